// The generators that GenerateRtmpMsg (publish.h) dispatches to, all of them. Each returns a new message or
// null (logged); `recvPkt` is the RtmpRecvPkt that caused it.
#pragma once

#include "message/command_replies.h"
#include "message/control.h"
#include "message/data.h"
#include "message/media.h"
