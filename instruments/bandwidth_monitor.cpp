#include "instruments/bandwidth_monitor.h"

#include "net/atomic.h"
#include "net/host_call.h"
#include "net/limits.h"
#include "net/record.h"
#include "net/scope.h"

#include <sys/time.h>

namespace {

constexpr int64_t kSecondsBetweenRateReports = 1;    // more than
constexpr int64_t kSecondsBetweenUptimeReports = 30; // at least

uint32_t NextSample(const RtmpQueueBWM *monitor, uint32_t position)
{
    return (position + 1) % static_cast<uint32_t>(monitor->Size);
}

// The slot in front of the oldest sample stays free, so that Size - 1 samples are held.
void StoreSample(RtmpQueueBWM *monitor, uint32_t bytes, RtmpQueueTime now)
{
    monitor->Samples[monitor->Tail] = {now, bytes};
    monitor->Tail = NextSample(monitor, monitor->Tail);
    if (monitor->Tail == monitor->Head) {
        monitor->TotalBytes -= monitor->Samples[monitor->Head].Bytes;
        monitor->Head = NextSample(monitor, monitor->Head);
        monitor->Count--;
    }
    monitor->Count++;
    monitor->TotalBytes += bytes;
}

// A span of nothing leaves the previous rate, and so does a clock that was set back.
void MeasureRate(RtmpQueueBWM *monitor, RtmpQueueTime now)
{
    const int64_t span = MillisecondsBetween(monitor->Samples[monitor->Head].SendTime, now);
    if (span > 0) {
        monitor->BytesPerSec = static_cast<uint64_t>(monitor->TotalBytes * 1000 / span);
    }
    StoreShared(&monitor->Kbps, static_cast<uint32_t>(monitor->BytesPerSec * 8 / 1000));
}

void Report(void *hostContext, const char *key, int64_t value, const char *description)
{
    char text[24];
    snprintf(text, sizeof text, "%ld", static_cast<long>(value));
    ReportStatus(hostContext, key, text, description);
}

void ReportQueueRate(RtmpQueueBWM *monitor, void *hostContext, RtmpQueueTime now)
{
    if (monitor->LastRateReport.Seconds < now.Seconds - kSecondsBetweenRateReports) {
        Report(hostContext, "rtmpBandwidth", static_cast<int32_t>(monitor->Kbps), "Current RTMP Bitrate");
        monitor->LastRateReport = now;
    }
}

void ReportQueueUptime(RtmpQueueBWM *monitor, void *hostContext, RtmpQueueTime now)
{
    const bool first = monitor->StartTime.Seconds == 0 && monitor->StartTime.Microseconds == 0;
    if (first) {
        monitor->StartTime = now;
    } else if (monitor->LastUptimeReport.Seconds > now.Seconds - kSecondsBetweenUptimeReports) {
        return;
    }
    Report(hostContext, "rtmpUptime", now.Seconds - monitor->StartTime.Seconds, "Broadcast Duration");
    monitor->LastUptimeReport = now;
}

} // namespace

RtmpQueueBWM *RtmpQueueBWMCreate(uint32_t windowSize)
{
    if (windowSize >= kMostWindowSamples) {
        return nullptr;
    }
    FREE_AT_EXIT RtmpQueueBWM *monitor = NewRecord<RtmpQueueBWM>();
    if (monitor == nullptr) {
        return nullptr;
    }
    monitor->Size = static_cast<int32_t>(windowSize) + 1;
    monitor->Samples = NewArray<RtmpQueueBWMItem>(static_cast<uint64_t>(monitor->Size));
    if (monitor->Samples == nullptr) {
        return nullptr;
    }
    RtmpQueueBWM *made = monitor;
    monitor = nullptr;
    return made;
}

void RtmpQueueBWMDestroy(RtmpQueueBWM *monitor)
{
    if (monitor != nullptr) {
        free(monitor->Samples);
        free(monitor);
    }
}

int RtmpQueueBWMReset(RtmpQueueBWM *monitor)
{
    if (monitor == nullptr) {
        return 1;
    }
    for (int32_t i = 0; i < monitor->Size; i++) {
        (void)RtmpQueueBWMItemReset(&monitor->Samples[i]); // not null
    }
    RtmpQueueBWMItem *samples = monitor->Samples;
    const int32_t size = monitor->Size;
    *monitor = {};
    monitor->Samples = samples;
    monitor->Size = size;
    return 0;
}

int RtmpQueueBWMItemReset(RtmpQueueBWMItem *sample)
{
    if (sample == nullptr) {
        return 1;
    }
    *sample = {};
    return 0;
}

int RtmpQueueBWMAdd(RtmpQueueBWM *monitor, void *hostContext, uint32_t bytes)
{
    return AddBandwidthSampleAt(monitor, hostContext, bytes, WallClock());
}

int AddBandwidthSampleAt(RtmpQueueBWM *monitor, void *hostContext, uint32_t bytes, RtmpQueueTime now)
{
    if (monitor == nullptr) {
        return 1;
    }
    StoreSample(monitor, bytes, now);
    MeasureRate(monitor, now);
    ReportQueueRate(monitor, hostContext, now);
    ReportQueueUptime(monitor, hostContext, now);
    return 0;
}

int32_t RtmpQueueBWMKbps(const RtmpQueueBWM *monitor, int32_t none)
{
    if (monitor == nullptr) {
        return none;
    }
    const uint32_t kbps = LoadShared(&monitor->Kbps);
    return kbps > INT32_MAX ? INT32_MAX : static_cast<int32_t>(kbps);
}

RtmpQueueTime WallClock(void)
{
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    return {now.tv_sec, now.tv_usec};
}

int64_t MillisecondsBetween(RtmpQueueTime from, RtmpQueueTime to)
{
    int64_t seconds = to.Seconds - from.Seconds;
    int64_t microseconds = to.Microseconds - from.Microseconds;
    if (microseconds < 0) {
        microseconds += 1000000;
        seconds--;
    }
    return seconds * 1000 + microseconds / 1000;
}
