// Waiting for a condition with a deadline; never for a length of time.
#pragma once

#include <chrono>
#include <poll.h>
#include <thread>

// Between two looks at something that nobody announces: at first the other threads go first, for most of what
// is waited for is about to happen; then looks are a millisecond apart and cost nothing.
class Patience {
  public:
    void pause()
    {
        if (looks_ < kEagerLooks) {
            looks_++;
            std::this_thread::yield();
        } else {
            poll(nullptr, 0, 1);
        }
    }
    void reset() // something has happened: the next is near
    {
        looks_ = 0;
    }

  private:
    static constexpr int kEagerLooks = 10;
    int looks_ = 0;
};

// True when `condition` came to hold before the deadline. What shows in a log is waited for with the logger's
// own waitFor, which sleeps until a line comes.
template <typename Condition> bool WaitUntil(Condition condition, int milliseconds = 20000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    Patience patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        patience.pause();
    }
    return true;
}
