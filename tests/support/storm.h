// What the storms of both roads have in common: players that join, pause, ask for nonsense and leave rudely,
// hosts that destroy sessions under them and make them again, and a player that must notice nothing of it.
#pragma once

#include "support/scripted_peer.h"
#include "support/test_server.h"

#include <array>
#include <atomic>
#include <thread>

namespace storm {

constexpr uint32_t kRudePlayers = 20;
constexpr uint64_t kQuietFrames = 100; // at least
constexpr const char *kQuietName = "quiet";

// RTMPCAST_STORM_SECONDS in the environment, or 2.
int Seconds();

// The logger of a storm keeps nothing.
RtmpLogger *Silence();

// A sanitizer's own thread comes with the first. That one is gone only some time after it has been joined,
// above all under an emulator, and would be counted as one of those that run before the storm.
void RunFirstThread();

// What the players of a storm did.
struct Counts {
    std::atomic<int> visits = 0;      // connections, however they ended
    std::atomic<int> undisturbed = 0; // of those, the ones that came to the end of what they were up to
    std::atomic<int> sessions = 0;    // made by the hosts, and destroyed under their players
};

// How the rude ones are met, which differs between the roads.
struct Weather {
    // Longest wait for an answer. A session of the exact road ends without a word to its players.
    int patienceMs = 3000;
    // Further connections may end in a way that leaves a thread unjoined (a refused connection of the exact
    // road).
    std::atomic<int> refusals = 1 << 30;
    Counts counts;
};

// Twenty rude players and two hosts, from the construction on.
class Storm {
  public:
    Storm(wire::TestServer &server, Weather &weather, uint32_t seed);
    ~Storm();
    Storm(const Storm &) = delete;
    Storm &operator=(const Storm &) = delete;

    // The hosts' threads end, but for those that send frames: their sessions exist, and may be destroyed.
    void endHosts();

  private:
    class Host;
    std::atomic<bool> stop_ = false;
    std::array<std::unique_ptr<Host>, 2> hosts_;
    std::vector<std::thread> players_;
};

// A player of a session of its own, at an encoder's pace: every frame comes, in its order and at its time.
class QuietPlayer {
  public:
    // `readsByTheBook`: the player reads whatever chunks RTMP 1.0 allows, whichever the library is known to
    // choose.
    QuietPlayer(const wire::TestServer &server, RtmpSession *session, bool readsByTheBook);
    ~QuietPlayer();
    QuietPlayer(const QuietPlayer &) = delete;
    QuietPlayer &operator=(const QuietPlayer &) = delete;

    void finish(); // reads up to the last frame
    uint64_t seen() const
    {
        return seen_;
    }

  private:
    void encode(RtmpSession *session);
    void watch(uint16_t port, bool readsByTheBook);

    std::atomic<bool> stop_ = false, isPlaying_ = false;
    std::atomic<uint64_t> seen_ = 0;
    std::thread watcher_, encoder_;
};

} // namespace storm
