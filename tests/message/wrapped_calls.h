// The clock, the locks and the allocator of the library, steered by a test. Everything passes through to the
// real call until a test says otherwise.
#pragma once

#include <atomic>
#include <cstdint>

namespace wrapped {

inline std::atomic<bool> clockStands{false};
inline std::atomic<uint64_t> now{0};         // what a standing clock shows
inline std::atomic<int> failAllocation{0};   // the n-th calloc from now fails; 0: none
inline std::atomic<int> failLock{0};         // the n-th RtmpMutexLock
inline std::atomic<int> failUnlock{0};       // the n-th RtmpMutexUnlock
inline std::atomic<uint64_t> allocations{0}; // callocs so far

inline void Reset()
{
    clockStands = false;
    failAllocation = 0;
    failLock = 0;
    failUnlock = 0;
}

} // namespace wrapped
