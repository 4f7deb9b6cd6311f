// What the parameters of the bitrate controller are where the host gives 0, whichever sender stores them.
#pragma once

#include <stdint.h>

// KEPT: fullness never exceeds 100, so that the defaults only ever raise. Required; changes bitrates. A host
// that wants lowering brings thresholds of its own.
constexpr uint32_t kStartDelayMs = 5000;
constexpr uint32_t kIncreaseFullness = 200;
constexpr uint32_t kIncreasePercent = 10;
constexpr uint32_t kIncreaseMinStep = 10000;
constexpr uint32_t kIncreaseIntervalSec = 10;
constexpr uint32_t kDecreaseFullness = 500;
constexpr uint32_t kDecreasePercent = 50;
constexpr uint32_t kDecreaseFullnessHigh = 1000;
constexpr uint32_t kDecreasePercentHigh = 110;
constexpr uint32_t kDecreaseIntervalSec = 1;
constexpr uint32_t kSpare = 10;

constexpr uint32_t OrDefault(uint32_t value, uint32_t standard)
{
    return value == 0 ? standard : value;
}
