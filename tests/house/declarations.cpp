// The headers of the face and of the rooms, together: functions that both declare are declared alike, or this
// does not compile.
#include "rtmpcast/rtmpcast.h"

#include "amf/decode.h"
#include "amf/encode.h"
#include "amf/object.h"
#include "delivery/replies/replies.h"
#include "delivery/senders/threaded_queue.h"
#include "delivery/write/client_send.h"
#include "message/chunk_reader.h"
#include "message/generate.h"
#include "message/media.h"
#include "message/recv_list.h"
#include "message/send_list.h"
#include "net/log.h"
#include "serve/dispatch.h"
#include "state/client.h"
#include "state/session_list.h"
