// Real time for frames: each leaves when its time has come.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// Told once, by any thread, that it is time to stop.
class StopFlag {
  public:
    void raise();
    bool raised() const;

    // True as soon as the flag is raised; false when `when` has come.
    bool waitUntil(std::chrono::steady_clock::time_point when) const;

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable raisedNow_;
    bool raised_ = false;
};

class Pacer {
  public:
    // Waits until a frame of this time (microseconds of its source) is due. False: told to stop.
    bool waitFor(int64_t time, const StopFlag &stop);

    // The host's clock for RtmpSendData, milliseconds: the source's time, counted from the first wait.
    uint64_t timestamp(int64_t time) const;

    // How long the last frame would have been late. After more than a second the frames that are overdue are
    // not rushed out: the source's clock is set back by that much, and this says so once.
    std::chrono::milliseconds takeDelay();

  private:
    bool started_ = false;
    std::chrono::steady_clock::time_point start_; // when time 0 is due
    uint64_t firstTimestamp_ = 0;
    std::chrono::milliseconds delay_{0};
};
