#include "soak/fleeting_session.h"

namespace soak {

FleetingSession::FleetingSession(BusyServer &server, Feed &feed, uint32_t seed)
    : server_(server), feed_(feed), random_(seed)
{
    makeAnew(0);
    thread_ = std::thread([this] { run(); });
}

FleetingSession::~FleetingSession()
{
    {
        const std::lock_guard<std::mutex> held(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void FleetingSession::makeAnew(uint32_t mode)
{
    feeder_.reset(); // its name becomes free
    const SessionPlan plan = {server_.index, kFleetingName, mode, true, true};
    feeder_ = std::make_unique<FrameFeeder>(server_, plan, -1, feed_);
}

void FleetingSession::still()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isStill_ = true;
    makeAnew(0);
}

void FleetingSession::flow()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isStill_ = false;
    changed_.notify_all();
}

uint64_t FleetingSession::droppedFrames()
{
    const std::lock_guard<std::mutex> held(mutex_);
    return feeder_->droppedFrames();
}

void FleetingSession::run()
{
    std::unique_lock<std::mutex> held(mutex_);
    uint32_t mode = 0;
    while (!stop_) {
        changed_.wait(held, [this] { return stop_ || !isStill_; });
        const std::chrono::milliseconds life(std::uniform_int_distribution<int>(500, 5000)(random_));
        const bool interrupted = changed_.wait_for(held, life, [this] { return stop_ || isStill_; });
        if (!interrupted) {
            mode = RTMP_SENDER_THREADED - mode;
            makeAnew(mode);
        }
    }
}

} // namespace soak
