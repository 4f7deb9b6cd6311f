// A session that is destroyed and made again and again, with whoever is in it, in both sender modes by turns.
#pragma once

#include "soak/frame_feeder.h"

#include <memory>
#include <random>

namespace soak {

class FleetingSession {
  public:
    FleetingSession(BusyServer &server, Feed &feed, uint32_t seed);
    ~FleetingSession();
    FleetingSession(const FleetingSession &) = delete;
    FleetingSession &operator=(const FleetingSession &) = delete;

    void still(); // it stays as it is from here on, a session with the packet monitor
    void flow();
    uint64_t droppedFrames();

  private:
    void run();
    void makeAnew(uint32_t mode);

    BusyServer &server_;
    Feed &feed_;
    std::mt19937 random_;
    std::unique_ptr<FrameFeeder> feeder_;
    bool stop_ = false, isStill_ = true;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
};

} // namespace soak
