#include "instruments/bandwidth_monitor.h"

#include "support/host_fakes.h"

#include <memory>

namespace {

struct MonitorDeleter {
    void operator()(RtmpQueueBWM *monitor) const
    {
        RtmpQueueBWMDestroy(monitor);
    }
};
using Monitor = std::unique_ptr<RtmpQueueBWM, MonitorDeleter>;

int g_context; // its address is passed to the host

// Milliseconds behind a full second of the wall clock.
RtmpQueueTime At(int64_t milliseconds)
{
    return {1700000000 + milliseconds / 1000, milliseconds % 1000 * 1000};
}

void Add(const Monitor &monitor, uint32_t bytes, int64_t milliseconds)
{
    ASSERT_EQ(AddBandwidthSampleAt(monitor.get(), &g_context, bytes, At(milliseconds)), 0);
}

std::vector<std::string> Reports(const std::string &key)
{
    std::vector<std::string> values;
    for (const StatusReport &report : HostFakes::get().statusReports()) {
        if (report.key == key) {
            EXPECT_EQ(report.context, &g_context);
            EXPECT_EQ(report.description,
                      key == "rtmpUptime" ? "Broadcast Duration" : "Current RTMP Bitrate");
            values.push_back(report.value);
        }
    }
    return values;
}

class BandwidthMonitor : public testing::Test {
  protected:
    void SetUp() override
    {
        HostFakes::get().reset();
    }
};

} // namespace

TEST_F(BandwidthMonitor, TheFirstSampleMeasuresNothingAndReportsBothAtOnce)
{
    const Monitor monitor(RtmpQueueBWMCreate(30));
    Add(monitor, 5000, 0);
    EXPECT_EQ(monitor->Kbps, 0U);
    const std::vector<StatusReport> expected = {
        {&g_context, "rtmpBandwidth", "0", "Current RTMP Bitrate"},
        {&g_context, "rtmpUptime", "0", "Broadcast Duration"},
    };
    EXPECT_EQ(HostFakes::get().statusReports(), expected);
}

TEST_F(BandwidthMonitor, TheRateIsTheBytesHeldOverTheTimeSinceTheOldest)
{
    const Monitor monitor(RtmpQueueBWMCreate(30));
    Add(monitor, 1000, 0);
    Add(monitor, 3000, 250); // 4000 bytes * 1000 / 250 ms
    EXPECT_EQ(monitor->BytesPerSec, 16000U);
    EXPECT_EQ(monitor->Kbps, 128U);
    Add(monitor, 3, 500); // 4003 * 1000 / 500 = 8006; 8006 * 8 / 1000 = 64.048
    EXPECT_EQ(monitor->BytesPerSec, 8006U);
    EXPECT_EQ(monitor->Kbps, 64U);
}

TEST_F(BandwidthMonitor, TheThirtyFirstSamplePushesOutTheFirst)
{
    const Monitor monitor(RtmpQueueBWMCreate(30));
    Add(monitor, 100000, 0);
    for (int i = 1; i < 30; i++) {
        Add(monitor, 1000, i * 40);
    }
    EXPECT_EQ(monitor->Count, 30U);
    EXPECT_EQ(monitor->TotalBytes, 129000);
    EXPECT_EQ(monitor->BytesPerSec, 111206U); // 129000 * 1000 / 1160 = 111206.89
    Add(monitor, 2000, 1200);
    EXPECT_EQ(monitor->Count, 30U);
    EXPECT_EQ(monitor->TotalBytes, 31000);
    EXPECT_EQ(monitor->BytesPerSec, 26724U); // 31000 * 1000 / (1200 - 40) = 26724.13
    EXPECT_EQ(monitor->Kbps, 213U);
}

TEST_F(BandwidthMonitor, TheWindowGoesRoundManyTimes)
{
    const Monitor monitor(RtmpQueueBWMCreate(3));
    for (int i = 0; i < 100; i++) {
        Add(monitor, static_cast<uint32_t>(100 + i), i * 10);
    }
    EXPECT_EQ(monitor->Count, 3U);
    EXPECT_EQ(monitor->TotalBytes, 197 + 198 + 199);
    EXPECT_EQ(monitor->BytesPerSec, 29700U); // 594 * 1000 / 20
}

TEST_F(BandwidthMonitor, FramesWithinTheMillisecondOfTheOldestLeaveTheRate)
{
    const Monitor monitor(RtmpQueueBWMCreate(1));
    Add(monitor, 1000, 0);
    Add(monitor, 1000, 10); // the window holds this one alone: no span
    EXPECT_EQ(monitor->BytesPerSec, 0U);

    const Monitor wide(RtmpQueueBWMCreate(2));
    Add(wide, 1000, 0);
    Add(wide, 1000, 10);
    EXPECT_EQ(wide->BytesPerSec, 200000U);
    ASSERT_EQ(AddBandwidthSampleAt(wide.get(), &g_context, 9000, {1700000000, 10999}), 0);
    EXPECT_EQ(wide->BytesPerSec, 200000U);
    EXPECT_EQ(wide->Kbps, 1600U);
}

TEST_F(BandwidthMonitor, ASpanBorrowsASecondForNegativeMicroseconds)
{
    EXPECT_EQ(MillisecondsBetween({10, 900000}, {11, 100000}), 200);
    EXPECT_EQ(MillisecondsBetween({10, 999999}, {11, 0}), 0);
    EXPECT_EQ(MillisecondsBetween({10, 0}, {12, 1999}), 2001);
    EXPECT_EQ(MillisecondsBetween({10, 0}, {9, 0}), -1000);
}

TEST_F(BandwidthMonitor, AClockThatIsSetBackLeavesTheRate)
{
    const Monitor monitor(RtmpQueueBWMCreate(30));
    Add(monitor, 1000, 0);
    Add(monitor, 1000, 100);
    ASSERT_EQ(monitor->Kbps, 160U);
    ASSERT_EQ(AddBandwidthSampleAt(monitor.get(), &g_context, 1000, {1600000000, 0}), 0);
    EXPECT_EQ(monitor->Kbps, 160U);
}

TEST_F(BandwidthMonitor, TheRateIsReportedOnceTwoWholeSecondsHavePassed)
{
    const Monitor monitor(RtmpQueueBWMCreate(30));
    Add(monitor, 1000, 0);    // reported
    Add(monitor, 1000, 1000); // 1 s: no
    Add(monitor, 1000, 1999); // still the second behind the next
    EXPECT_EQ(Reports("rtmpBandwidth"), std::vector<std::string>{"0"});
    Add(monitor, 1000, 2000); // 4000 * 1000 / 2000 = 2000 bytes/s
    EXPECT_EQ(Reports("rtmpBandwidth"), (std::vector<std::string>{"0", "16"}));
    Add(monitor, 1000, 3900);
    EXPECT_EQ(Reports("rtmpBandwidth").size(), 2U);
}

TEST_F(BandwidthMonitor, TheUptimeIsReportedAtOnceAndThirtySecondsLater)
{
    const Monitor monitor(RtmpQueueBWMCreate(30));
    Add(monitor, 1000, 0);
    Add(monitor, 1000, 29999);
    EXPECT_EQ(Reports("rtmpUptime"), std::vector<std::string>{"0"});
    Add(monitor, 1000, 30000);
    EXPECT_EQ(Reports("rtmpUptime"), (std::vector<std::string>{"0", "30"}));
    Add(monitor, 1000, 59000);
    Add(monitor, 1000, 61000);
    EXPECT_EQ(Reports("rtmpUptime"), (std::vector<std::string>{"0", "30", "61"}));
}

TEST_F(BandwidthMonitor, AResetForgetsEverythingButTheWindow)
{
    const Monitor monitor(RtmpQueueBWMCreate(5));
    Add(monitor, 1000, 0);
    Add(monitor, 1000, 100);
    EXPECT_EQ(RtmpQueueBWMReset(monitor.get()), 0);
    EXPECT_EQ(monitor->Size, 6);
    EXPECT_EQ(monitor->Count, 0U);
    EXPECT_EQ(monitor->Head, 0U);
    EXPECT_EQ(monitor->Tail, 0U);
    EXPECT_EQ(monitor->TotalBytes, 0);
    EXPECT_EQ(monitor->BytesPerSec, 0U);
    EXPECT_EQ(monitor->Kbps, 0U);
    EXPECT_EQ(monitor->StartTime.Seconds, 0);
    EXPECT_EQ(monitor->LastRateReport.Seconds, 0);
    EXPECT_EQ(monitor->LastUptimeReport.Seconds, 0);
    EXPECT_EQ(monitor->Samples[0].Bytes, 0U);
    Add(monitor, 1000, 50000);
    EXPECT_EQ(Reports("rtmpUptime"), (std::vector<std::string>{"0", "0"}));
}

TEST_F(BandwidthMonitor, AWindowOfNothingMeasuresNothing)
{
    const Monitor monitor(RtmpQueueBWMCreate(0));
    ASSERT_NE(monitor, nullptr);
    for (int i = 0; i < 10; i++) {
        Add(monitor, 1000, i * 100);
        EXPECT_EQ(monitor->Kbps, 0U);
        EXPECT_EQ(monitor->Count, 0U);
        EXPECT_EQ(monitor->TotalBytes, 0);
    }
}

TEST_F(BandwidthMonitor, WindowsNearTheEndOfTheirTypesAreRefused)
{
    for (const uint32_t size : {0x7FFFFFFEU, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(RtmpQueueBWMCreate(size), nullptr) << size;
    }
}

TEST_F(BandwidthMonitor, TheLargestFramesDoNotOverflow)
{
    const Monitor monitor(RtmpQueueBWMCreate(3));
    Add(monitor, 0xFFFFFFFF, 0);
    Add(monitor, 0xFFFFFFFF, 1000);
    Add(monitor, 0xFFFFFFFF, 2000);
    EXPECT_EQ(monitor->BytesPerSec, 6442450942U); // 12884901885 * 1000 / 2000
    EXPECT_EQ(monitor->Kbps, 51539607U);
}

TEST_F(BandwidthMonitor, NoMonitorIsAnswered)
{
    EXPECT_EQ(RtmpQueueBWMAdd(nullptr, &g_context, 1), 1);
    EXPECT_EQ(RtmpQueueBWMReset(nullptr), 1);
    EXPECT_EQ(RtmpQueueBWMItemReset(nullptr), 1);
    EXPECT_EQ(RtmpQueueBWMKbps(nullptr, -1), -1);
    RtmpQueueBWMDestroy(nullptr);
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
}

TEST_F(BandwidthMonitor, AddTakesTheTimeOfDay)
{
    const Monitor monitor(RtmpQueueBWMCreate(3));
    const int64_t before = time(nullptr);
    EXPECT_EQ(RtmpQueueBWMAdd(monitor.get(), &g_context, 10), 0);
    EXPECT_GE(monitor->StartTime.Seconds, before);
    EXPECT_LE(monitor->StartTime.Seconds, time(nullptr));
    EXPECT_EQ(monitor->Samples[0].Bytes, 10U);
}
