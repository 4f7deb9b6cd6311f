#include "pacer.h"

#include <utility>

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

void StopFlag::raise()
{
    const std::lock_guard<std::mutex> held(mutex_);
    raised_ = true;
    raisedNow_.notify_all();
}

bool StopFlag::raised() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return raised_;
}

bool StopFlag::waitUntil(steady_clock::time_point when) const
{
    std::unique_lock<std::mutex> held(mutex_);
    return raisedNow_.wait_until(held, when, [this] { return raised_; });
}

bool Pacer::waitFor(int64_t time, const StopFlag &stop)
{
    const steady_clock::time_point now = steady_clock::now();
    if (!started_) {
        started_ = true;
        start_ = now - microseconds(time);
        firstTimestamp_ = static_cast<uint64_t>(duration_cast<milliseconds>(now.time_since_epoch()).count());
        firstTimestamp_ -= static_cast<uint64_t>(time / 1000);
    }
    const steady_clock::duration late = now - (start_ + microseconds(time));
    if (late > std::chrono::seconds(1)) {
        delay_ = duration_cast<milliseconds>(late);
        start_ += late;
    }
    return !stop.waitUntil(start_ + microseconds(time));
}

// Rounded, not cut: the error never adds up.
uint64_t Pacer::timestamp(int64_t time) const
{
    return firstTimestamp_ + static_cast<uint64_t>((time + 500) / 1000);
}

milliseconds Pacer::takeDelay()
{
    return std::exchange(delay_, milliseconds(0));
}
