// Waiting for a condition with a deadline; never for a length of time.
#pragma once

#include <chrono>
#include <thread>

// True when `condition` came to hold before the deadline.
template <typename Condition> bool WaitUntil(Condition condition, int milliseconds = 20000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}
