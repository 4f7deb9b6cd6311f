// A publisher's messages: commands (RTMP 1.0, 7.2) and data; and how long they wait for the service.
#pragma once

#include "delivery/replies/reply.h"
#include "publish/publisher.h"

#include <sys/time.h>

extern "C" {

// Exported; documented in rtmpcast/publish_client.h.
RTMP_API int32_t RtmpPublisherSend(RtmpPublisher *publisher, enum RtmpPublisherCommand command,
                                   double *transaction);
RTMP_API int32_t RtmpPublisherSendData(RtmpPublisher *publisher, const uint8_t *values, uint32_t length);
RTMP_API int32_t RtmpPublisherSendMetaData(RtmpPublisher *publisher);

// What is logged when one of the library's own messages to the service cannot be built or sent.
extern const ReplyFailures kServiceFailures;

// LimitWrites has the socket's writes wait at most so long, and returns how long they did before.
struct timeval LimitWrites(const RtmpClient *client, struct timeval limit);

// AnswerTime is how long the host lets the service take for an answer.
struct timeval AnswerTime(const RtmpPublisher *publisher);
}
