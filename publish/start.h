// The steps of a connection to a service, up to the first frame.
#pragma once

#include "publish/publisher.h"

extern "C" {

// Exported; documented in rtmpcast/publish_client.h.
RTMP_API int32_t RtmpPublisherHandshake(RtmpPublisher *publisher);

// StartPublishing takes the service through all of them, and lets the session's frames go to it. On the
// thread that serves the publisher. The codes are those of RtmpPublisherStart.
RTMP_STATUS int32_t StartPublishing(RtmpPublisher *publisher, RtmpSession *session);
}
