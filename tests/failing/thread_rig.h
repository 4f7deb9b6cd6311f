// A host whose players come over loopback, so that all calls but the host's own are made on threads of the
// library's: what becomes of a player that comes to it, and what it leaves behind.
#pragma once

#include "failing/every_call_rig.h"
#include "support/capture_logger.h"
#include "support/scripted_peer.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <set>

namespace thread_trials {

using every_call::Road;

// The player's way, step by step.
enum class Step { Connects, Plays, Ends };

enum class Ending { PlayerLeaves, SessionIsDestroyed, ServerIsDestroyed };

struct Way {
    const char *name;
    Road road = Road::Exact;
    uint32_t mode = 0;
    bool overTls = false;
    Step from = Step::Connects; // calls in front of it do not fail
    Ending ending = Ending::PlayerLeaves;
    uint32_t stallMilliseconds = 0; // the limit of the steady road; 0: its default
};

// The host's logger. A line that tells of a failure ends what a player waits for: an answer that could not be
// sent is not waited for in vain.
class Watch {
  public:
    Watch() : logger_{&Watch::Log, this} {}
    RtmpLogger *logger()
    {
        return &logger_;
    }
    void begin();
    void over(int player); // its socket
    void end();
    bool hasTold() const // since it began
    {
        return told_;
    }
    CaptureLogger log;

  private:
    static void Log(void *context, uint8_t level, const char *format, va_list arguments);
    void endWaiting();
    RtmpLogger logger_;
    std::mutex mutex_;
    bool watches_ = false;
    int player_ = -1;
    std::atomic<bool> told_ = false;
};

// What became of a player.
enum class Fate {
    Served, // it got its answers and every frame
    Told,   // it did not, and a line says so
    Ended,  // nor did it, and its connection has ended
    Lost    // nor did it, and nobody is told
};

class Ground {
  public:
    explicit Ground(const Way &way);
    ~Ground();
    Ground(const Ground &) = delete;
    Ground &operator=(const Ground &) = delete;

    // A player goes the whole way; `begins` is called in front of each step.
    Fate visit(const std::function<void(Step)> &begins);
    // One more comes, gets the next picture and leaves.
    Fate visitAgain();
    bool waitUntilAlone(); // no thread serves anybody any more
    void destroy();        // the server, if it is still there

    Watch watch;
    RtmpServer *server = nullptr; // null: destroyed
    RtmpSession *session = nullptr;
    uint16_t port = 0; // that players come to

  private:
    void openSession();
    void join(wire::ScriptedPeer &player);
    void waitUntilItPlays();
    void pauseAndGoOn(wire::ScriptedPeer &player);
    void watchPictures(wire::ScriptedPeer &player, const std::vector<size_t> &lengths);
    void sendPicture(size_t length);
    void look(const wire::Message &message);
    void endIt();
    Fate fateOf(wire::ScriptedPeer &player, const std::function<void()> &way);
    const Way way_;
    uint64_t time_ = 1000;
    uint32_t sent_ = 0;  // pictures; each has its number
    uint32_t seen_ = 0;  // by the player that is there
    std::string folder_; // of the trace
};

// What a host leaves behind in the process.
class Footprint {
  public:
    Footprint();
    // Threads are waited for. Sockets of this port are connections that the exact road leaves open: they are
    // closed, and counted.
    int expectOnly(uint16_t port);

  private:
    std::set<int> descriptors_;
    size_t threads_;
};

} // namespace thread_trials
