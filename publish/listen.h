// What a service sends, heard on the publisher's thread.
#pragma once

#include "publish/publisher.h"

extern "C" {

constexpr double kNoStreamId = -1;

// What one message was.
typedef struct Heard {
    uint32_t Kind;   // RtmpMsgKind; RTMP_MSG_UNSUPPORTED for what is passed over
    double StreamId; // of an answer to createStream
} Heard;

// HearMessage waits until `until` (ms of RtmpGetSystemTime; 0: without limit) for a whole message and handles
// it: what the peer announces is noted, pings are answered, bytes acknowledged, answers stored. 0;
// RTMP_ERR_NO_ANSWER; RTMP_ERR_CONNECTION.
RTMP_STATUS int32_t HearMessage(RtmpPublisher *publisher, uint64_t until, Heard *heard);

// CodeOfFailedRead tells why a read has failed.
int32_t CodeOfFailedRead(const RtmpClient *client);
}
