// What a service sends, heard on the publisher's thread.
#pragma once

#include "publish/publisher.h"

extern "C" {

// What one message was.
typedef struct Heard {
    uint32_t Kind;   // RtmpMsgKind; RTMP_MSG_UNSUPPORTED for what is passed over
    double StreamId; // of an answer to createStream; 0: none
} Heard;

// HearMessage waits at most `milliseconds` (0: without limit) for a message and handles it: what the peer
// announces is noted, pings are answered, bytes acknowledged, answers stored. 0; RTMP_ERR_NO_ANSWER;
// RTMP_ERR_CONNECTION.
RTMP_STATUS int32_t HearMessage(RtmpPublisher *publisher, uint32_t milliseconds, Heard *heard);

// LimitReads has each read of the connection wait at most so long; 0: without limit.
void LimitReads(const RtmpPublisher *publisher, uint32_t milliseconds);
}
