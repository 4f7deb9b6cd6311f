// A server on the steady road, for the tests of this folder.
#pragma once

#include "support/test_server.h"

namespace wire {

constexpr uint8_t kKeyNal = 0x65;
constexpr uint8_t kInterNal = 0x41;

struct SteadyTestServer : TestServer {
    explicit SteadyTestServer(const RtmpServiceLimits &limits = {}) : TestServer(4096)
    {
        EXPECT_EQ(RtmpServiceSettings(server, &limits), 0);
    }
};

} // namespace wire
