// A logger, a server and a session as records: no listener, no list, no thread. Single rooms are tested on
// them.
#pragma once

#include "rtmpcast/types.h"
#include "support/capture_logger.h"

struct Records {
    Records(); // the session is the server's, in no list; the host's fakes are as new
    ~Records();
    Records(const Records &) = delete;
    Records &operator=(const Records &) = delete;

    CaptureLogger log;
    RtmpServer server = {};
    RtmpSession session = {};
};
