// A publisher's messages: commands (RTMP 1.0, 7.2) and data.
#pragma once

#include "publish/publisher.h"

extern "C" {

// Exported; documented in rtmpcast/publish_client.h.
RTMP_API int32_t RtmpPublisherSend(RtmpPublisher *publisher, enum RtmpPublisherCommand command,
                                   double *transaction);
RTMP_API int32_t RtmpPublisherSendData(RtmpPublisher *publisher, const uint8_t *values, uint32_t length);
RTMP_API int32_t RtmpPublisherSendMetaData(RtmpPublisher *publisher);
}
