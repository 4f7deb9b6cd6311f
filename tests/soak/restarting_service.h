// A service that the host publishes to, which dies and comes back on its port.
#pragma once

#include "soak/recording.h"
#include "support/scripted_peer.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <random>
#include <thread>

namespace soak {

class RestartingService {
  public:
    RestartingService(Recording &recording, uint32_t seed);
    ~RestartingService();
    RestartingService(const RestartingService &) = delete;
    RestartingService &operator=(const RestartingService &) = delete;

    uint16_t port() const
    {
        return port_;
    }
    void still(); // it stays up from here on
    void flow();
    std::atomic<uint64_t> restarts = 0;

  private:
    void run();
    void listen();
    int acceptOne(); // -1: nobody has come for a moment
    void serve(int fd);
    void answer(wire::ScriptedPeer &peer, const wire::Message &message);
    bool goesOn(std::chrono::steady_clock::time_point death);
    bool isWanted();
    void stayAway();
    int draw(int from, int to);

    Recording &recording_;
    std::mt19937 random_;
    uint16_t port_ = 0;
    int listener_ = -1;
    bool stop_ = false, isStill_ = true;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
};

} // namespace soak
