// What host and company know of each other: servers, sessions, and how far the steady players have come.
#pragma once

#include <atomic>
#include <cstdint>

namespace soak {

// Exact: the exact road and the rules of connections by default. Today: the exact road, today's players.
// Steady: the steady road, today's players, and a listener of TLS.
enum ServerIndex { kExact, kToday, kSteady, kServers };

struct SessionPlan {
    ServerIndex server;
    const char *name;
    uint32_t mode; // of the sender
    bool hasSound;
    bool isMended; // a sender that a failed send has ended is reset, as the manual says
};

// Sound on the exact server would fall behind with every player that joins, and be gone after some hundred of
// them (the manual, "Two senders"); so the steady player there has pictures alone.
constexpr SessionPlan kLasting[] = {
    {kExact, "camera", 0, false, false}, {kExact, "hall", 1, true, true},
    {kToday, "camera", 0, true, false},  {kToday, "polite", 1, true, false},
    {kSteady, "camera", 0, true, false}, {kSteady, "hall", 1, true, false},
};
constexpr int kLastingCount = sizeof kLasting / sizeof kLasting[0];
constexpr const char *kFleetingName = "fleeting"; // on the exact and on the steady server

// Whoever records without a hole. The host does not run ahead of them by more than a second of pictures, so
// that none of them falls behind because the machine is busy with something else.
enum Recorder {
    kExactPlayer,
    kTodayPlayer,
    kTodayDump,
    kPolitePlayer,
    kSteadyPlayer,
    kSteadyDump,
    kTlsPlayer,
    kExactService,
    kSteadyService,
    kRecorders
};
constexpr int kSessionOf[kRecorders] = {0, 2, 2, 3, 4, 4, 5, 2, 5};
constexpr const char *kNameOf[kRecorders] = {"player, exact road, default rules",
                                             "player, exact road",
                                             "rtmpdump, exact road",
                                             "player, exact road, threaded sender",
                                             "player, steady road",
                                             "rtmpdump, steady road",
                                             "player over TLS, steady road, threaded sender",
                                             "service, exact road",
                                             "service, steady road, threaded sender"};
constexpr uint64_t kNotRecording = UINT64_MAX;
constexpr uint64_t kAhead = 25;

// Memory that both processes see.
struct Progress {
    std::atomic<uint64_t> pictures[kRecorders]; // the last one's number, or kNotRecording
};

// Descriptors that the host inherits.
constexpr int kControlDescriptor = 3;
constexpr int kProgressDescriptor = 4;

} // namespace soak
