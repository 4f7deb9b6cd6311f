// The clock, the locks, the allocator and some calls of the library, steered by a test. Everything passes
// through to the real call until a test says otherwise.
#pragma once

#include "rtmpcast/types.h"

#include <atomic>
#include <cstdint>

namespace wrapped {

inline std::atomic<bool> clockStands{false};
inline std::atomic<uint64_t> now{0};                   // what a standing clock shows
inline std::atomic<int> failAllocation{0};             // the n-th calloc from now fails; 0: none
inline std::atomic<int> failLock{0};                   // the n-th RtmpMutexLock
inline std::atomic<int> failUnlock{0};                 // the n-th RtmpMutexUnlock
inline std::atomic<RtmpMutex *> brokenLock{nullptr};   // every RtmpMutexLock of this mutex fails
inline std::atomic<RtmpMutex *> brokenUnlock{nullptr}; // every RtmpMutexUnlock of this one
inline std::atomic<bool> failGenerate{false};          // GenerateRtmpMsg, as commands call it, returns null
inline std::atomic<int> joinResult{0};                 // not 0: what JoinStream returns instead of joining
inline std::atomic<uint64_t> allocations{0};           // callocs so far

inline void Reset()
{
    clockStands = false;
    failAllocation = 0;
    failLock = 0;
    failUnlock = 0;
    brokenLock = nullptr;
    brokenUnlock = nullptr;
    failGenerate = false;
    joinResult = 0;
}

} // namespace wrapped
