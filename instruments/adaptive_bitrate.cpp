#include "instruments/adaptive_bitrate.h"

#include "instruments/abr_defaults.h"
#include "instruments/debug_trace.h"
#include "net/atomic.h"
#include "net/host_call.h"
#include "net/log.h"
#include "net/record.h"

namespace {

constexpr uint64_t kNever = UINT64_MAX;
constexpr int64_t kLeastHeadroom = 1000; // bit/s

// More than `seconds` whole seconds have passed.
bool HasPassed(uint64_t since, uint64_t now, uint32_t seconds)
{
    return since == kNever || (now - since) / 1000 > seconds;
}

int32_t InBitrateRange(int64_t bitrate, int64_t least, int64_t most)
{
    if (bitrate < least) {
        return static_cast<int32_t>(least);
    }
    return static_cast<int32_t>(bitrate > most ? most : bitrate);
}

int64_t FullnessPercent(int32_t queued, int32_t slots)
{
    return (static_cast<int64_t>(queued) * 100 + slots / 2) / slots;
}

// The delay before the first decision. It applies once.
bool IsWarmingUp(RtmpQueueAdaptiveBitrate *abr, uint64_t now)
{
    if (abr->StartTime == 0) {
        abr->StartTime = now;
        return true;
    }
    return now - abr->StartTime < abr->StartDelayMs;
}

// 0 when there is no room for a raise, or it is not time yet.
int64_t RaiseStep(const RtmpQueueAdaptiveBitrate *abr, uint64_t now)
{
    const int64_t headroom = static_cast<int64_t>(abr->MaxBitrate) - abr->CurrentBitrate;
    if (headroom <= kLeastHeadroom || !HasPassed(abr->LastIncreaseTime, now, abr->IncreaseIntervalSec)) {
        return 0;
    }
    const int64_t step = headroom * abr->IncreasePercent / 100;
    return step < abr->IncreaseMinStep ? abr->IncreaseMinStep : step;
}

// What a lowering adds: negative, or 0 for none.
int64_t LoweringStep(const RtmpQueueAdaptiveBitrate *abr, int32_t measuredKbps, int64_t fullness)
{
    const int64_t distance = static_cast<int64_t>(measuredKbps) * 1000 - abr->CurrentBitrate;
    if (measuredKbps < 0 || distance >= 0) {
        return 0; // without a monitor there is no rate to move towards
    }
    const uint32_t gain =
        fullness > abr->DecreaseFullnessHigh ? abr->DecreasePercentHigh : abr->DecreasePercent;
    return distance * gain / 100; // less than 2^31 times less than 2^32
}

bool IsTimeToLower(const RtmpQueueAdaptiveBitrate *abr, int64_t fullness, uint64_t now)
{
    return fullness > abr->DecreaseFullness && abr->CurrentBitrate > abr->MinBitrate &&
           HasPassed(abr->LastDecreaseTime, now, abr->DecreaseIntervalSec);
}

// Half as much again as the minimum, though the minimum is announced at a quarter more: the status does not
// flap.
void ReportRecovery(RtmpQueueAdaptiveBitrate *abr, int64_t bitrate, void *hostContext)
{
    if (abr->AtMinimum != 0 && bitrate > static_cast<int64_t>(abr->MinBitrate) * 3 / 2) {
        ReportStatus(hostContext, "rtmpLowBitrate", "0", "Bitrate is recovering");
        abr->AtMinimum = 0;
    }
}

void ReportMinimum(RtmpQueueAdaptiveBitrate *abr, int64_t bitrate, void *hostContext)
{
    if (abr->AtMinimum == 0 && bitrate < static_cast<int64_t>(abr->MinBitrate) * 5 / 4) {
        ReportStatus(hostContext, "rtmpLowBitrate", "1", "Bitrate is at minimum");
        abr->AtMinimum = 1;
    }
}

bool Raise(RtmpQueueAdaptiveBitrate *abr, uint64_t now, void *hostContext)
{
    const int64_t step = RaiseStep(abr, now);
    if (step == 0) {
        return false;
    }
    const int64_t raised = abr->CurrentBitrate + step;
    ReportRecovery(abr, raised, hostContext);
    StoreShared(&abr->CurrentBitrate, InBitrateRange(raised, 0, abr->MaxBitrate));
    return true;
}

bool Lower(RtmpQueueAdaptiveBitrate *abr, int32_t measuredKbps, int64_t fullness, uint64_t now,
           void *hostContext)
{
    if (!IsTimeToLower(abr, fullness, now)) {
        return false;
    }
    const int64_t step = LoweringStep(abr, measuredKbps, fullness);
    if (step == 0) {
        return false;
    }
    const int64_t lowered = abr->CurrentBitrate + step;
    ReportMinimum(abr, lowered, hostContext);
    StoreShared(&abr->CurrentBitrate, InBitrateRange(lowered, abr->MinBitrate, INT32_MAX));
    abr->LastDecreaseTime = now;
    return true;
}

} // namespace

RtmpQueueAdaptiveBitrate *
RtmpQueueAdaptiveBitrateCreate(RtmpLogger *logger, uint32_t minBitrate, uint32_t startDelayMs,
                               uint32_t increaseFullness, uint32_t increasePercent, uint32_t increaseMinStep,
                               uint32_t increaseIntervalSec, uint32_t decreaseFullness,
                               uint32_t decreasePercent, uint32_t decreaseFullnessHigh,
                               uint32_t decreasePercentHigh, uint32_t decreaseIntervalSec, uint32_t spare)
{
    RtmpQueueAdaptiveBitrate *abr = NewRecord<RtmpQueueAdaptiveBitrate>();
    if (abr == nullptr) {
        return nullptr;
    }
    abr->Logger = logger;
    abr->MinBitrate = InBitrateRange(minBitrate, 0, INT32_MAX);
    abr->StartDelayMs = OrDefault(startDelayMs, kStartDelayMs);
    abr->IncreaseFullness = OrDefault(increaseFullness, kIncreaseFullness);
    abr->IncreasePercent = OrDefault(increasePercent, kIncreasePercent);
    abr->IncreaseMinStep = OrDefault(increaseMinStep, kIncreaseMinStep);
    abr->IncreaseIntervalSec = OrDefault(increaseIntervalSec, kIncreaseIntervalSec);
    abr->DecreaseFullness = OrDefault(decreaseFullness, kDecreaseFullness);
    abr->DecreasePercent = OrDefault(decreasePercent, kDecreasePercent);
    abr->DecreaseFullnessHigh = OrDefault(decreaseFullnessHigh, kDecreaseFullnessHigh);
    abr->DecreasePercentHigh = OrDefault(decreasePercentHigh, kDecreasePercentHigh);
    abr->DecreaseIntervalSec = OrDefault(decreaseIntervalSec, kDecreaseIntervalSec);
    abr->Spare = OrDefault(spare, kSpare);
    (void)RtmpQueueAdaptiveBitrateReset(abr); // not null
    return abr;
}

void RtmpQueueAdaptiveBitrateDestroy(RtmpQueueAdaptiveBitrate *abr)
{
    free(abr);
}

int RtmpQueueAdaptiveBitrateReset(RtmpQueueAdaptiveBitrate *abr)
{
    if (abr == nullptr) {
        return 1;
    }
    abr->MaxBitrate = -1;
    StoreShared(&abr->CurrentBitrate, -1);
    abr->LastIncreaseTime = kNever;
    abr->LastDecreaseTime = kNever;
    abr->AtMinimum = 0;
    abr->StartTime = 0;
    return 0;
}

int RtmpQueueAdaptiveBitrateInit(RtmpQueueAdaptiveBitrate *abr, int32_t bitrate)
{
    if (abr == nullptr) {
        return 1;
    }
    abr->MaxBitrate = bitrate;
    StoreShared(&abr->CurrentBitrate, bitrate);
    RtmpLogPrint(abr->Logger, RTMP_LOG_INFO, "INFO: %s: Initial video bitrate: %d Kbps\n", __func__,
                 bitrate / 1000);
    return 0;
}

int RtmpQueueAdaptiveBitrateUpdate(RtmpQueueAdaptiveBitrate *abr, int32_t bwmKbps, int32_t queued,
                                   int32_t slots, void *hostContext, uint64_t now, RtmpQueueDebug *debug)
{
    if (abr == nullptr) {
        return 1;
    }
    if (slots < 1 || IsWarmingUp(abr, now)) {
        return 0;
    }

    const int64_t fullness = FullnessPercent(queued, slots);
    const bool mayRaise = fullness < abr->IncreaseFullness;
    const bool changed =
        mayRaise ? Raise(abr, now, hostContext) : Lower(abr, bwmKbps, fullness, now, hostContext);
    if (!changed) {
        return 0;
    }
    const int32_t kbps = abr->CurrentBitrate / 1000;
    if (mayRaise) {
        RtmpLogPrint(abr->Logger, RTMP_LOG_INFO, "INFO: %s: Increasing Bitrate to %d Kbps\n", __func__, kbps);
    } else {
        RtmpLogPrint(abr->Logger, RTMP_LOG_INFO, "INFO: %s: Decreasing Bitrate to %d Kbps\n", __func__, kbps);
    }
    RtmpLogPrint(abr->Logger, RTMP_LOG_INFO, "INFO: %s:   Fullness: %d%% (%d/%d)\n", __func__,
                 static_cast<int>(fullness), queued, slots);
    SetEncoderBitrate(hostContext, abr->CurrentBitrate);
    abr->LastIncreaseTime = now; // a lowering restarts the raise timer too
    (void)RtmpQueueDebugBurnin(debug, hostContext, -1, bwmKbps, abr->CurrentBitrate); // null is fine
    return 0;
}
