// One of the host's servers: its ports, its log, and the descriptors that the exact road leaves behind.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "soak/soak_plan.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>

namespace soak {

struct BusyServer {
    explicit BusyServer(ServerIndex which);
    ~BusyServer(); // with the sessions that are left
    BusyServer(const BusyServer &) = delete;
    BusyServer &operator=(const BusyServer &) = delete;

    const ServerIndex index;
    RtmpServer *server = nullptr;
    uint16_t port = 0, tunnelPort = 0, tlsPort = 0;
    std::atomic<uint64_t> logLines = 0;
    std::atomic<uint32_t> failedSenders = 0; // threaded senders that a failed send has ended

  private:
    static void Log(void *context, uint8_t level, const char *format, va_list arguments);
    void create();
    void takeSteadyRoad();
    RtmpLogger logger_;
};

// Closes what the exact road has left open: descriptors of connections to this port whose peers have gone. To
// be called while nobody but the steady players is connected: the library has ended its own use of them then.
// Returns how many.
int SweepLeftDescriptors(uint16_t port);

// The descriptor of a connection to this port whose peer is there, the newest as a rule; -1: there is none.
int SomeConnectionOf(uint16_t port);

int OpenDescriptors();

// Viewers of the steady road whom the library has told of, and those of them that have left.
uint64_t ViewersAccepted();
uint64_t ViewersLeft();

void RefuseViewers(); // of the steady road, from now on: a fault

} // namespace soak
