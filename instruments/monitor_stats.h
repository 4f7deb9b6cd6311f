// The packet monitor's statistics window over the last video frames.
#pragma once

#include "instruments/monitor_records.h"

extern "C" {

// addPacketToMonitor adds a sample taken at the given wall-clock time, and reports "rtmpBandwidth" at most
// once every `statsInterval` seconds and "rtmpUptime" about every thirty. Null `stats`: nothing.
void addPacketToMonitor(RtmpMonitorStats *stats, void *hostContext, uint32_t kind, int64_t seconds,
                        int64_t microseconds, uint32_t bytes, uint32_t statsInterval);

// Its two steps, for a window that is shared: the sample is added, and what is due decided, under the lock;
// the host is told when the lock has been given back.
void AddSampleToMonitor(RtmpMonitorStats *stats, uint32_t kind, int64_t seconds, int64_t microseconds,
                        uint32_t bytes, uint32_t statsInterval, RtmpMonitorReports *due);
void SendMonitorReports(void *hostContext, const RtmpMonitorReports *due);

// CountFrame adds a picture that has just been sent to the monitor's window, and reports what is due, without
// the monitor's lock, which the last client that leaves waits for.
void CountFrame(RtmpMonitor *monitor, uint32_t bytes);

// timeval_subtract sets `result` to x - y, microseconds 0 to 999999. 1: x is earlier than y, else 0. `y` may
// be renormalised in place; its value stays.
int timeval_subtract(RtmpMonitorTime *result, const RtmpMonitorTime *x, RtmpMonitorTime *y);
}
