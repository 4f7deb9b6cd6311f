// Settings of the trace and of the bitrate controller that a session in the packet monitor stores.
#include "delivery/senders/monitor.h"
#include "instruments/abr_defaults.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"

int RtmpMonitorDebugInit(RtmpSession *session, uint32_t enable, uint8_t burninEnable, uint8_t logEnable,
                         const char *directory, uint32_t logEvery)
{
    RtmpMonitor *monitor = session->Monitor;
    if (enable == 0 || monitor == nullptr) {
        return 0;
    }
    RtmpMonitorDebug *debug = NewRecord<RtmpMonitorDebug>();
    if (debug == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR, "ERROR: %s: Not enough memory for Debug\n",
                     __func__);
        return -1;
    }
    debug->BurninEnable = burninEnable;
    debug->LogEnable = logEnable;
    debug->LogEvery = logEvery;
    if (directory != nullptr) {
        memcpy(debug->Directory, directory, strnlen(directory, sizeof debug->Directory - 1));
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    free(monitor->DebugSettings);
    monitor->DebugSettings = debug;
    return 0;
}

int RtmpMonitorAdaptiveBitrateInit(RtmpSession *session, uint32_t enable, uint32_t /*reserved1*/,
                                   uint32_t /*reserved2*/, uint32_t minBitrate, uint32_t increaseFullness,
                                   uint32_t increasePercent, uint32_t increaseMinStep,
                                   uint32_t increaseIntervalSec, uint32_t decreaseFullness,
                                   uint32_t decreasePercent, uint32_t decreaseFullnessHigh,
                                   uint32_t decreasePercentHigh, uint32_t decreaseIntervalSec, uint32_t spare)
{
    RtmpMonitor *monitor = session->Monitor;
    if (enable == 0 || monitor == nullptr) {
        return 0;
    }
    RtmpMonitorAbr *abr = NewRecord<RtmpMonitorAbr>();
    if (abr == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Not enough memory for adaptive bitrate\n", __func__);
        return -1;
    }
    abr->MaxBitrate = -1;
    abr->CurrentBitrate = -1;
    abr->MinBitrate = static_cast<int32_t>(minBitrate);
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
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    free(monitor->AbrSettings);
    monitor->AbrSettings = abr;
    return 0;
}
