// The threaded sender's producer side: frames go into rings, and the host's encoder follows the network.
#pragma once

#include "delivery/queue_records.h"

extern "C" {

RTMP_STATUS int RtmpThreadedQueueInit(RtmpSession *session, uint32_t audioQueueSize, uint32_t videoQueueSize);
RTMP_STATUS int RtmpThreadedQueueSendData(RtmpSession *session, const uint8_t *data, int32_t length,
                                          int32_t fd, uint64_t mapBase, uint64_t timestamp,
                                          int64_t mediaType);
int RtmpThreadedQueueDestroy(RtmpSession *session);
}
