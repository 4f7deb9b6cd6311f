// Peers of a server on the steady road that tests of limits and ends have in common.
#pragma once

#include "steady/steady_server.h"
#include "support/wire_replies.h"

#include <memory>

namespace wire {

// A connection from another address of the loopback network, such as "127.0.0.2".
Connected ConnectFrom(const char *address, uint16_t port);

// A server with both ports: on the exact road, or, with limits, on the steady one.
struct TwoPorts {
    TwoPorts();
    explicit TwoPorts(const RtmpServiceLimits &limits);
    ~TwoPorts();
    TwoPorts(const TwoPorts &) = delete;
    TwoPorts &operator=(const TwoPorts &) = delete;

    CaptureLogger log;
    RtmpServer *server = nullptr;
    uint16_t port = 0;
    uint16_t tunnelPort = 0;
};

// Reads what comes until the server closes. False: it did not in time.
bool ReadsToTheEnd(ByteSocket &socket);

// Resident memory of this process, in bytes.
size_t ResidentBytes();

} // namespace wire
