#include "soak/growth.h"

#include <algorithm>
#include <cstddef>

namespace soak {
namespace {

int64_t Median(std::vector<int64_t> values)
{
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) / 2]; // of two the smaller: a busy moment is no growth
}

void AddIfAbove(std::vector<std::string> &found, const char *what, const std::vector<int64_t> &values,
                const char *unit, int64_t tolerance)
{
    const int64_t growth = GrowthOf(values);
    if (growth > tolerance) {
        found.push_back(std::string(what) + " has grown by " + std::to_string(growth) + " " + unit +
                        " (up to " + std::to_string(tolerance) + " are nothing)");
    }
}

void AddChangesOfCounts(std::vector<std::string> &found, const std::vector<Ebb> &ebbs)
{
    for (const Ebb &each : ebbs) {
        if (each.descriptors != ebbs.front().descriptors || each.threads != ebbs.front().threads) {
            found.push_back("at ebb after " + std::to_string(static_cast<int>(each.seconds)) + " s " +
                            std::to_string(each.descriptors) + " descriptors and " +
                            std::to_string(each.threads) + " threads instead of " +
                            std::to_string(ebbs.front().descriptors) + " and " +
                            std::to_string(ebbs.front().threads));
        }
    }
}

} // namespace

std::vector<Ebb> BehindWarmUp(const std::vector<Ebb> &ebbs)
{
    const double length = ebbs.empty() ? 0 : ebbs.back().seconds;
    const double warmUp = std::min(std::max(60.0, length / 5), length / 3);
    std::vector<Ebb> behind;
    for (const Ebb &each : ebbs) {
        if (each.seconds > warmUp) {
            behind.push_back(each);
        }
    }
    return behind;
}

int64_t GrowthOf(const std::vector<int64_t> &values)
{
    const std::ptrdiff_t third = static_cast<std::ptrdiff_t>(values.size()) / 3;
    if (values.size() < kEnoughEbbs) {
        return 0;
    }
    return Median({values.end() - third, values.end()}) - Median({values.begin(), values.begin() + third});
}

std::vector<std::string> WhatHasGrown(const std::vector<Ebb> &ebbs, bool judgesResident)
{
    std::vector<int64_t> resident, inUse, lag;
    std::vector<std::string> found;
    for (const Ebb &each : BehindWarmUp(ebbs)) {
        resident.push_back(each.residentKiB);
        inUse.push_back(each.inUseKiB);
        lag.push_back(each.lagMs);
    }
    if (inUse.size() < kEnoughEbbs) {
        found.push_back("only " + std::to_string(inUse.size()) +
                        " ebbs behind the warm-up: nothing can be compared");
    }
    AddIfAbove(found, "memory in use at ebb", inUse, "KiB", kInUseToleranceKiB);
    if (judgesResident) {
        AddIfAbove(found, "resident memory at ebb", resident, "KiB", kResidentToleranceKiB);
    }
    AddIfAbove(found, "the longest way of a picture in a tide", lag, "ms", kLagToleranceMs);
    AddChangesOfCounts(found, ebbs);
    return found;
}

} // namespace soak
