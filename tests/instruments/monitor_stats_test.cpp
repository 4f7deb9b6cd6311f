#include "instruments/monitor_stats.h"
#include "net/limits.h"
#include "support/host_fakes.h"

namespace {

struct Window {
    std::vector<RtmpMonitorSample> samples = std::vector<RtmpMonitorSample>(kMonitorStatsSamples);
    RtmpMonitorStats stats = {};
    int context = 0;
    Window()
    {
        HostFakes::get().reset();
        stats.Samples = samples.data();
        stats.HeadIndex = -1;
    }
    void add(int64_t seconds, int64_t microseconds, uint32_t bytes, uint32_t interval = 5)
    {
        addPacketToMonitor(&stats, &context, RTMP_MSG_VIDEO, seconds, microseconds, bytes, interval);
    }
    std::vector<StatusReport> reports(const std::string &key) const
    {
        std::vector<StatusReport> out;
        for (const StatusReport &report : HostFakes::get().statusReports()) {
            if (report.key == key) {
                out.push_back(report);
            }
        }
        return out;
    }
};

} // namespace

TEST(MonitorStats, TheFirst99FramesReportNoRate)
{
    Window window;
    for (int i = 0; i < 99; i++) {
        window.add(1000 + i, 0, 1000);
    }
    EXPECT_TRUE(window.reports("rtmpBandwidth").empty());
    EXPECT_EQ(window.stats.Count, 99);
    window.add(1099, 0, 1000);
    EXPECT_EQ(window.reports("rtmpBandwidth").size(), 1U);
}

TEST(MonitorStats, TheRateIsTheMeanOfTheRunningTotalsOverTheSpan)
{
    // 100 frames of 1000 bytes, 10 ms apart. At the 100th the oldest of 99 held is the second one, sent at
    // 10 ms; the span is 980 ms. Running totals: 1000, 2000 ... 99000; the first is dropped, and the 100th
    // sample's total is 99000: (2000 + ... + 99000) + 99000 = 4949000 + 99000 = 5048000 over 99 samples is
    // 50989. 50989 * 125 / (980 * 16) = 406.
    Window window;
    for (int i = 0; i < 100; i++) {
        window.add(1000, i * 10000, 1000);
    }
    EXPECT_EQ(window.stats.Count, 99);
    EXPECT_EQ(window.stats.WindowBytes, 99000U);
    EXPECT_EQ(window.stats.Mean, 50989U);
    EXPECT_EQ(window.stats.Kbps, 406U);
    EXPECT_EQ(window.reports("rtmpBandwidth"),
              (std::vector<StatusReport>{{&window.context, "rtmpBandwidth", "406", "Current RTMP Bitrate"}}));
}

TEST(MonitorStats, RatesAreReportedAtMostOnceEveryInterval)
{
    Window window;
    for (int i = 0; i < 130; i++) {
        window.add(1000 + i, 0, 1000, 5);
    }
    // From the 100th frame (second 1099) on: 1099, then whenever more than 4 seconds have passed.
    EXPECT_EQ(window.reports("rtmpBandwidth").size(), 7U); // 1099 1104 1109 1114 1119 1124 1129
}

TEST(MonitorStats, UptimeIsReportedAtOnceAndThenAfterMoreThanThirtySeconds)
{
    Window window;
    for (int i = 0; i <= 62; i++) {
        window.add(1000 + i, 0, 1000);
    }
    EXPECT_EQ(window.reports("rtmpUptime"),
              (std::vector<StatusReport>{{&window.context, "rtmpUptime", "0", "Broadcast Duration"},
                                         {&window.context, "rtmpUptime", "31", "Broadcast Duration"},
                                         {&window.context, "rtmpUptime", "62", "Broadcast Duration"}}));
}

TEST(MonitorStats, FramesOfTheSameInstantDivideByNothing)
{
    Window window;
    for (int i = 0; i < 300; i++) {
        window.add(1000, 0, 1000000);
    }
    EXPECT_TRUE(window.reports("rtmpBandwidth").empty());
    EXPECT_EQ(window.stats.Kbps, 0U);
}

TEST(MonitorStats, AClockThatRunsBackwardsGivesNoRate)
{
    Window window;
    for (int i = 0; i < 300; i++) {
        window.add(5000 - i, 0, 1000);
    }
    EXPECT_TRUE(window.reports("rtmpBandwidth").empty());
}

TEST(MonitorStats, WithoutAWindowNothingHappens)
{
    HostFakes::get().reset();
    addPacketToMonitor(nullptr, nullptr, RTMP_MSG_VIDEO, 1, 2, 3, 4);
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
}

TEST(TimevalSubtract, DifferencesAreNormalisedAndTheirSignIsTold)
{
    const struct {
        RtmpMonitorTime x, y, result;
        int earlier;
    } rows[] = {
        {{5, 300000}, {3, 100000}, {2, 200000}, 0},
        {{5, 100000}, {3, 300000}, {1, 800000}, 0},
        {{5, 0}, {5, 0}, {0, 0}, 0},
        {{3, 0}, {5, 0}, {-2, 0}, 1},
        {{5, 2500000}, {3, 0}, {4, 500000}, 0},
    };
    for (const auto &row : rows) {
        RtmpMonitorTime y = row.y;
        RtmpMonitorTime result = {};
        EXPECT_EQ(timeval_subtract(&result, &row.x, &y), row.earlier);
        EXPECT_EQ(result.Seconds, row.result.Seconds);
        EXPECT_EQ(result.Microseconds, row.result.Microseconds);
        EXPECT_EQ(y.Seconds * 1000000 + y.Microseconds, row.y.Seconds * 1000000 + row.y.Microseconds);
    }
}
