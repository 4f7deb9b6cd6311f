// Whether what is measured at ebb, when nobody but the steady players is there, grows, and what they waited
// for pictures until then.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

struct Ebb {
    double seconds;
    int64_t residentKiB, inUseKiB;
    int descriptors, threads;
    int64_t lagMs; // the longest way of a picture to a steady player since the ebb before
};

// The ebbs behind the warm-up, which is a fifth of the time, a minute at least, and a third at most.
std::vector<Ebb> BehindWarmUp(const std::vector<Ebb> &ebbs);

// Fewer cannot be compared.
constexpr size_t kEnoughEbbs = 6;

// How much the median of the last third is above that of the first; of fewer than kEnoughEbbs values nothing
// is said, and 0 returned.
int64_t GrowthOf(const std::vector<int64_t> &values);

// What has grown, or that nobody can know, one sentence each. `judgesResident`: a sanitizer's own memory is
// not the library's.
std::vector<std::string> WhatHasGrown(const std::vector<Ebb> &ebbs, bool judgesResident);

constexpr int64_t kInUseToleranceKiB = 256;     // two rings of steady sessions, full or just begun
constexpr int64_t kResidentToleranceKiB = 4096; // the allocator's arenas, and the stacks that it keeps
constexpr int64_t kLagToleranceMs = 2000; // the host is a second ahead at most; then the machine is busy

} // namespace soak
