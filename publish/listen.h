// What a service sends, and what it means to whoever awaits an answer. On the publisher's thread.
#pragma once

#include "publish/publisher.h"

extern "C" {

// Exported; documented in rtmpcast/publish_client.h.
RTMP_API int32_t RtmpPublisherAwait(RtmpPublisher *publisher, double transaction);

constexpr double kNoStreamId = -1;
constexpr double kNoTransaction = -1;

// What one message was.
typedef struct Heard {
    uint32_t Kind;   // RtmpMsgKind; RTMP_MSG_UNSUPPORTED for what is passed over
    double StreamId; // of an answer to createStream
} Heard;

// HearMessage waits until `until` (ms of RtmpGetSystemTime) for a whole message and handles it: what the peer
// announces is noted, pings are answered, bytes acknowledged, answers stored. 0; RTMP_ERR_NO_ANSWER;
// RTMP_ERR_CONNECTION, also when the publisher is stopped meanwhile.
RTMP_STATUS int32_t HearMessage(RtmpPublisher *publisher, uint64_t until, Heard *heard);

// JudgeHeard tells what a message means to whoever awaits the answer to `transaction` (0: a status, or an
// error that names no command; kNoTransaction: a status alone): 1 not the answer, 0 it is, or the code to
// return. The stream's id is taken from the answer to createStream.
RTMP_STATUS int32_t JudgeHeard(RtmpPublisher *publisher, const Heard *heard, double transaction);

// CodeOfFailedRead tells why a read has failed.
int32_t CodeOfFailedRead(const RtmpClient *client);
}
