#include "instruments/monitor_stats.h"

#include "net/atomic.h"
#include "net/host_call.h"
#include "net/limits.h"
#include "net/scope.h"

#include <stdio.h>
#include <sys/time.h>

namespace {

constexpr int64_t kMicrosecondsPerSecond = 1000000;
constexpr int64_t kShortestSpan = 1000; // microseconds
constexpr int64_t kUptimePeriod = 30;   // seconds

// DropOldest makes room when the write index has come round to the head.
void DropOldest(RtmpMonitorStats *stats)
{
    const RtmpMonitorSample *oldest = &stats->Samples[stats->HeadIndex];
    stats->WindowBytes -= oldest->Bytes;
    stats->SumOfTotals -= oldest->RunningTotal;
    stats->HeadIndex = (stats->HeadIndex + 1) % int32_t{kMonitorStatsSamples};
    stats->Count--;
}

// AddSample returns the time that the new sample's is compared with: the oldest sample's once the window is
// full, until then its own.
RtmpMonitorTime AddSample(RtmpMonitorStats *stats, uint32_t kind, const RtmpMonitorTime *now, uint32_t bytes)
{
    RtmpMonitorSample *sample = &stats->Samples[stats->WriteIndex];
    *sample = {kind, now->Seconds, now->Microseconds, bytes, 0};
    if (stats->HeadIndex < 0) {
        stats->HeadIndex = 0;
    }
    stats->WriteIndex = (stats->WriteIndex + 1) % int32_t{kMonitorStatsSamples};

    RtmpMonitorTime comparison = *now;
    if (stats->WriteIndex == stats->HeadIndex) {
        DropOldest(stats);
        const RtmpMonitorSample *oldest = &stats->Samples[stats->HeadIndex];
        comparison = {oldest->Seconds, oldest->Microseconds};
    }
    stats->Count++;
    stats->WindowBytes += bytes;
    stats->SumOfTotals += stats->WindowBytes;
    sample->RunningTotal = stats->WindowBytes;
    stats->Mean = stats->SumOfTotals / static_cast<uint64_t>(stats->Count);
    return comparison;
}

void DecideRate(RtmpMonitorStats *stats, const RtmpMonitorTime *now, uint32_t statsInterval,
                RtmpMonitorReports *due)
{
    if (stats->LastRateReport.Seconds >= now->Seconds - static_cast<int64_t>(statsInterval) + 1) {
        return;
    }
    due->RateIsDue = 1;
    due->Kbps = stats->Kbps;
    stats->LastRateReport = *now;
}

void DecideUptime(RtmpMonitorStats *stats, const RtmpMonitorTime *now, RtmpMonitorReports *due)
{
    const bool first = stats->StartTime.Seconds == 0 && stats->StartTime.Microseconds == 0;
    if (first) {
        stats->StartTime = *now;
    } else if (stats->LastUptimeReport.Seconds >= now->Seconds - kUptimePeriod) {
        return; // KEPT: a second later than the threaded sender's monitor. Required; changes a status report.
    }
    due->UptimeIsDue = 1;
    due->Uptime = now->Seconds - stats->StartTime.Seconds;
    stats->LastUptimeReport = *now;
}

RtmpMonitorReports CountFrameLocked(RtmpMonitor *monitor, uint32_t bytes)
{
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    const uint32_t statsInterval = LoadShared(&monitor->Session->StatsInterval);
    RtmpMonitorReports due;
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&monitor->RingLock);
    AddSampleToMonitor(monitor->Stats, RTMP_MSG_VIDEO, now.tv_sec, now.tv_usec, bytes, statsInterval, &due);
    return due;
}

} // namespace

int timeval_subtract(RtmpMonitorTime *result, const RtmpMonitorTime *x, RtmpMonitorTime *y)
{
    // Carry between the fields of y until x's microseconds exceed y's by 0 to 999999.
    if (x->Microseconds < y->Microseconds) {
        const int64_t carry = (y->Microseconds - x->Microseconds) / kMicrosecondsPerSecond + 1;
        y->Microseconds -= kMicrosecondsPerSecond * carry;
        y->Seconds += carry;
    }
    if (x->Microseconds - y->Microseconds >= kMicrosecondsPerSecond) {
        const int64_t carry = (x->Microseconds - y->Microseconds) / kMicrosecondsPerSecond;
        y->Microseconds += kMicrosecondsPerSecond * carry;
        y->Seconds -= carry;
    }
    result->Seconds = x->Seconds - y->Seconds;
    result->Microseconds = x->Microseconds - y->Microseconds;
    return x->Seconds < y->Seconds ? 1 : 0;
}

void AddSampleToMonitor(RtmpMonitorStats *stats, uint32_t kind, int64_t seconds, int64_t microseconds,
                        uint32_t bytes, uint32_t statsInterval, RtmpMonitorReports *due)
{
    *due = {};
    if (stats == nullptr) {
        return;
    }
    const RtmpMonitorTime now = {seconds, microseconds};
    RtmpMonitorTime comparison = AddSample(stats, kind, &now, bytes);
    RtmpMonitorTime span = {};
    const bool backwards = timeval_subtract(&span, &now, &comparison) != 0;
    const int64_t spanMicroseconds = span.Seconds * kMicrosecondsPerSecond + span.Microseconds;
    if (!backwards && spanMicroseconds > kShortestSpan) {
        // mean bytes per ms, in units of 1024 bit/s: mean / span * 8 * 1000 / 1024
        const uint64_t spanMilliseconds = static_cast<uint64_t>(spanMicroseconds) / 1000;
        stats->Kbps = static_cast<uint32_t>(stats->Mean * 125 / (spanMilliseconds * 16));
        DecideRate(stats, &now, statsInterval, due);
    }
    DecideUptime(stats, &now, due);
}

void SendMonitorReports(void *hostContext, const RtmpMonitorReports *due)
{
    char value[24];
    if (due->RateIsDue != 0) {
        snprintf(value, sizeof value, "%d", static_cast<int>(due->Kbps));
        ReportStatus(hostContext, "rtmpBandwidth", value, "Current RTMP Bitrate");
    }
    if (due->UptimeIsDue != 0) {
        snprintf(value, sizeof value, "%ld", static_cast<long>(due->Uptime));
        ReportStatus(hostContext, "rtmpUptime", value, "Broadcast Duration");
    }
}

void addPacketToMonitor(RtmpMonitorStats *stats, void *hostContext, uint32_t kind, int64_t seconds,
                        int64_t microseconds, uint32_t bytes, uint32_t statsInterval)
{
    RtmpMonitorReports due;
    AddSampleToMonitor(stats, kind, seconds, microseconds, bytes, statsInterval, &due);
    SendMonitorReports(hostContext, &due);
}

void CountFrame(RtmpMonitor *monitor, uint32_t bytes)
{
    const RtmpMonitorReports due = CountFrameLocked(monitor, bytes);
    SendMonitorReports(monitor->Session, &due);
}
