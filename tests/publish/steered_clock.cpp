#include "steered_clock.h"

#include <atomic>

namespace {

std::atomic<uint64_t> now = 1000000;

} // namespace

void SetClock(uint64_t milliseconds)
{
    now = milliseconds;
}

extern "C" {

// In place of RtmpGetSystemTime, by the linker.
uint64_t __wrap_RtmpGetSystemTime(void)
{
    return now;
}
}
