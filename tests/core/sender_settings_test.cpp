#include "delivery/senders/monitor.h"
#include "delivery/senders/threaded_queue.h"
#include "rtmpcast/rtmpcast.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/produced.h"

#include <memory>

namespace {

using Texts = std::vector<std::string>;

class SenderSettings : public testing::Test {
  protected:
    void SetUp() override
    {
        HostFakes::get().reset();
        server_ = RtmpServerCreate(log_.get(), "ANY", 0, 0, 0, 0, nullptr);
        ASSERT_NE(server_, nullptr);
        session_ = RtmpSessionCreate(server_, "live", nullptr);
        ASSERT_NE(session_, nullptr);
        log_.clear();
    }
    void TearDown() override
    {
        testing::internal::CaptureStdout(); // the log of the end
        EXPECT_EQ(RtmpServerDestroy(server_), 0);
        produced::CapturedStdout();
    }
    int settings(uint32_t mode, uint32_t audio = 20, uint32_t video = 30)
    {
        return RtmpSenderSettings(session_, mode, 2, 3, 4, 5, 6, audio, video);
    }
    CaptureLogger log_;
    RtmpServer *server_ = nullptr;
    RtmpSession *session_ = nullptr;
};

} // namespace

TEST_F(SenderSettings, EveryArgumentIsStored)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    EXPECT_EQ(session_->SenderMode, 1U);
    EXPECT_EQ(session_->SenderParam, 2U);
    EXPECT_EQ(session_->SenderFlag, 3);
    EXPECT_EQ(session_->EncoderHandle, 4U);
    EXPECT_EQ(session_->CcGen->Mode, 5);
    EXPECT_EQ(session_->StatsInterval, 6U);
    EXPECT_EQ(session_->AudioQueueSize, 20U);
    EXPECT_EQ(session_->VideoQueueSize, 30U);
}

TEST_F(SenderSettings, ModeOneMakesAQueueAndNoMonitor)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    ASSERT_NE(session_->Queue, nullptr);
    EXPECT_EQ(session_->Monitor, nullptr);
    EXPECT_EQ(session_->Queue->EncoderHandle, 4U);
    EXPECT_EQ(session_->Queue->AudioBuffer->Size, 21);
    EXPECT_EQ(session_->Queue->VideoBuffer->Size, 31);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SenderSettings, AnyOtherModeMakesAMonitorAndNoQueue)
{
    EXPECT_EQ(settings(7), 0);
    EXPECT_EQ(session_->SenderMode, 7U);
    EXPECT_EQ(session_->Queue, nullptr);
    ASSERT_NE(session_->Monitor, nullptr);
    EXPECT_EQ(session_->Monitor->EncoderHandle, 4U);
    EXPECT_NE(session_->Monitor->Stats, nullptr);
    EXPECT_EQ(log_.lines(), Texts{"6 INFO: RtmpMonitorInit: Initialized"});
}

TEST_F(SenderSettings, AQueueThatCannotBeMadeIsLoggedAndFramesFail)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED, 20, 0xFFFFFFFF), 0);
    EXPECT_EQ(session_->Queue, nullptr);
    EXPECT_EQ(log_.lines(),
              Texts{"3 ERROR: RtmpThreadedQueueInit: Not enough memory for Video rtmpQueueBuffer"});
    // What hangs on the queue is skipped.
    EXPECT_EQ(RtmpBWMSettings(session_, 1, 30), 0);
    EXPECT_EQ(RtmpDebugSettings(session_, 1, 1, 1, "/tmp", 1), 0);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(session_, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    const uint8_t frame[5] = {};
    EXPECT_EQ(RtmpThreadedQueueSendData(session_, frame, 5, 0, 0, 1, 0), -1);
    // A second call may do better.
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    EXPECT_NE(session_->Queue, nullptr);
}

TEST_F(SenderSettings, ASessionKeepsItsSenderAndTakesTheOtherSettings)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    RtmpThreadedQueue *queue = session_->Queue;
    EXPECT_EQ(RtmpSenderSettings(session_, 0, 2, 3, 4, 1, 99, 1, 1), 0);
    EXPECT_EQ(session_->Queue, queue);
    EXPECT_EQ(session_->Monitor, nullptr);
    EXPECT_EQ(session_->SenderMode, 1U);
    EXPECT_EQ(session_->CcGen->Mode, 1);
    EXPECT_EQ(session_->StatsInterval, 99U);
}

TEST_F(SenderSettings, TheBandwidthMonitorBelongsToTheThreadedSender)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    EXPECT_EQ(RtmpBWMSettings(session_, 0, 30), 0);
    EXPECT_EQ(session_->Queue->Bwm, nullptr);
    EXPECT_EQ(RtmpBWMSettings(session_, 1, 30), 0);
    ASSERT_NE(session_->Queue->Bwm, nullptr);
    EXPECT_EQ(session_->Queue->Bwm->Size, 31);
}

TEST_F(SenderSettings, ThePacketMonitorGetsNoBandwidthMonitor)
{
    EXPECT_EQ(settings(0), 0);
    log_.clear();
    EXPECT_EQ(RtmpBWMSettings(session_, 1, 30), 0);
    EXPECT_EQ(session_->Queue, nullptr);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SenderSettings, DebugSettingsReachTheSenderThatThereIs)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    EXPECT_EQ(RtmpDebugSettings(session_, 0, 1, 2, "/d", 25), 0);
    EXPECT_EQ(session_->Queue->Debug, nullptr);
    EXPECT_EQ(RtmpDebugSettings(session_, 1, 1, 2, "/d", 25), 0);
    ASSERT_NE(session_->Queue->Debug, nullptr);
    EXPECT_EQ(session_->Queue->Debug->BurninEnable, 1);
    EXPECT_EQ(session_->Queue->Debug->LogEnable, 2);
    EXPECT_STREQ(session_->Queue->Debug->Directory, "/d");
    EXPECT_EQ(session_->Queue->Debug->LogEvery, 25U);
}

TEST_F(SenderSettings, ThePacketMonitorStoresDebugSettings)
{
    EXPECT_EQ(settings(0), 0);
    EXPECT_EQ(RtmpDebugSettings(session_, 1, 1, 2, "/d", 25), 0);
    ASSERT_NE(session_->Monitor->DebugSettings, nullptr);
    EXPECT_EQ(session_->Monitor->DebugSettings->BurninEnable, 1);
    EXPECT_EQ(session_->Monitor->DebugSettings->LogEnable, 2);
    EXPECT_STREQ(session_->Monitor->DebugSettings->Directory, "/d");
    EXPECT_EQ(session_->Monitor->DebugSettings->LogEvery, 25U);
}

TEST_F(SenderSettings, WhatIsNotEnabledIsNotMadeForThePacketMonitor)
{
    EXPECT_EQ(settings(0), 0);
    EXPECT_EQ(RtmpDebugSettings(session_, 0, 1, 2, "/d", 25), 0);
    EXPECT_EQ(session_->Monitor->DebugSettings, nullptr);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(session_, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12), 0);
    EXPECT_EQ(session_->Monitor->AbrSettings, nullptr);
}

TEST_F(SenderSettings, ControllerSettingsReachTheQueueInTheirOrder)
{
    EXPECT_EQ(settings(RTMP_SENDER_THREADED), 0);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(session_, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14), 0);
    EXPECT_EQ(session_->Queue->Abr, nullptr);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(session_, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14), 0);
    const RtmpQueueAdaptiveBitrate *abr = session_->Queue->Abr;
    ASSERT_NE(abr, nullptr);
    EXPECT_EQ(abr->MinBitrate, 3);
    EXPECT_EQ(abr->StartDelayMs, 4U);
    EXPECT_EQ(abr->IncreaseFullness, 5U);
    EXPECT_EQ(abr->IncreasePercent, 6U);
    EXPECT_EQ(abr->IncreaseMinStep, 7U);
    EXPECT_EQ(abr->IncreaseIntervalSec, 8U);
    EXPECT_EQ(abr->DecreaseFullness, 9U);
    EXPECT_EQ(abr->DecreasePercent, 10U);
    EXPECT_EQ(abr->DecreaseFullnessHigh, 11U);
    EXPECT_EQ(abr->DecreasePercentHigh, 12U);
    EXPECT_EQ(abr->DecreaseIntervalSec, 13U);
    EXPECT_EQ(abr->Spare, 14U);
}

TEST_F(SenderSettings, ThePacketMonitorStoresControllerSettingsWithoutTheStartDelay)
{
    EXPECT_EQ(settings(0), 0);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(session_, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14), 0);
    const RtmpMonitorAbr *abr = session_->Monitor->AbrSettings;
    ASSERT_NE(abr, nullptr);
    EXPECT_EQ(abr->MinBitrate, 3);
    EXPECT_EQ(abr->IncreaseFullness, 5U);
    EXPECT_EQ(abr->IncreasePercent, 6U);
    EXPECT_EQ(abr->IncreaseMinStep, 7U);
    EXPECT_EQ(abr->IncreaseIntervalSec, 8U);
    EXPECT_EQ(abr->DecreaseFullness, 9U);
    EXPECT_EQ(abr->DecreasePercent, 10U);
    EXPECT_EQ(abr->DecreaseFullnessHigh, 11U);
    EXPECT_EQ(abr->DecreasePercentHigh, 12U);
    EXPECT_EQ(abr->DecreaseIntervalSec, 13U);
    EXPECT_EQ(abr->Spare, 14U);
}

TEST_F(SenderSettings, WithoutASessionEverythingReturnsZero)
{
    EXPECT_EQ(RtmpSenderSettings(nullptr, 1, 0, 0, 0, 0, 0, 1, 1), 0);
    EXPECT_EQ(RtmpBWMSettings(nullptr, 1, 1), 0);
    EXPECT_EQ(RtmpDebugSettings(nullptr, 1, 1, 1, "", 1), 0);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(nullptr, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
}
