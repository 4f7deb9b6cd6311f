#include "soak/growth.h"

#include <algorithm>
#include <cstddef>

namespace soak {
namespace {

int64_t Median(std::vector<int64_t> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void AddIfAbove(std::vector<std::string> &found, const char *what, int64_t growth, int64_t tolerance)
{
    if (growth > tolerance) {
        found.push_back(std::string(what) + " has grown by " + std::to_string(growth) +
                        " KiB at ebb (up to " + std::to_string(tolerance) + " are nothing)");
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
    if (third < 2) {
        return 0;
    }
    return Median({values.end() - third, values.end()}) - Median({values.begin(), values.begin() + third});
}

std::vector<std::string> WhatHasGrown(const std::vector<Ebb> &ebbs, bool judgesResident)
{
    std::vector<int64_t> resident, inUse;
    std::vector<std::string> found;
    for (const Ebb &each : BehindWarmUp(ebbs)) {
        resident.push_back(each.residentKiB);
        inUse.push_back(each.inUseKiB);
    }
    AddIfAbove(found, "memory in use", GrowthOf(inUse), kInUseToleranceKiB);
    if (judgesResident) {
        AddIfAbove(found, "resident memory", GrowthOf(resident), kResidentToleranceKiB);
    }
    for (const Ebb &each : ebbs) {
        if (each.descriptors != ebbs.front().descriptors || each.threads != ebbs.front().threads) {
            found.push_back("at ebb after " + std::to_string(static_cast<int>(each.seconds)) + " s " +
                            std::to_string(each.descriptors) + " descriptors and " +
                            std::to_string(each.threads) + " threads instead of " +
                            std::to_string(ebbs.front().descriptors) + " and " +
                            std::to_string(ebbs.front().threads));
        }
    }
    return found;
}

} // namespace soak
