#include "delivery/senders/monitor.h"
#include "instruments/parked_audio.h"
#include "support/records.h"
#include "support/session_rig.h"

#include <sys/socket.h>

namespace {

using Lines = std::vector<std::string>;

int32_t Video(SessionRig &rig, uint64_t timestamp)
{
    const Bytes frame = Hex("00000001 41");
    return RtmpSendData(rig.session, frame.data(), 5, 0, 0, timestamp, RTMP_FRAME_VIDEO);
}

int32_t Audio(SessionRig &rig, uint64_t timestamp, uint8_t mark = 0)
{
    return RtmpSendData(rig.session, &mark, 1, 0, 0, timestamp, RTMP_FRAME_AUDIO);
}

// The messages on the wire as "V" and "A<mark>", told apart by their chunk stream.
std::string Messages(int peer)
{
    const Bytes wire = DrainBytes(peer);
    std::string out;
    for (size_t at = 0; at < wire.size();) {
        const bool video = (wire[at] & 0x3F) == 5;
        at += std::vector<size_t>{12, 8, 4, 1}[wire[at] >> 6];
        out += video ? "V" : "A" + std::to_string(wire[at + 2]);
        at += video ? 10 : 3;
    }
    return out;
}

} // namespace

TEST(Monitor, AudioAloneIsParkedAndNeverSent)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(Audio(rig, 1000 + static_cast<uint64_t>(i) * 23), 0);
    }
    EXPECT_EQ(Messages(player.peer), "");
    EXPECT_EQ(rig.session->Monitor->AudioCount, 5);
}

TEST(Monitor, AVideoFrameSendsTheAudioStrictlyBeforeItAndLeavesTheRest)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    // References, as the sequence headers of a play leave them: both timelines at the same time.
    ASSERT_EQ(Audio(rig, 1000, 1), 0);
    ASSERT_EQ(Video(rig, 1000), 0);
    ASSERT_EQ(Video(rig, 1001), 0);
    Messages(player.peer);
    rig.session->Monitor->LastVideoRtmpTs = 500;
    rig.session->Monitor->LastAudioRtmpTs = 500;
    player.client->SendPktHead->Timestamp = 500;
    for (RtmpSendPkt *each = player.client->SendPktHead; each != nullptr; each = each->Next) {
        each->Timestamp = 500;
    }
    rig.session->Monitor->LastVideoTs = 2000;
    rig.session->Monitor->LastAudioTs = 2000;
    ASSERT_EQ(Audio(rig, 2010, 2), 0); // due at 510
    ASSERT_EQ(Audio(rig, 2030, 3), 0); // due at 530
    ASSERT_EQ(Audio(rig, 2040, 4), 0); // due at 540: with the video frame, not before it
    ASSERT_EQ(Video(rig, 2040), 0);
    EXPECT_EQ(Messages(player.peer), "A2A3V");
    ASSERT_EQ(Video(rig, 2041), 0);
    EXPECT_EQ(Messages(player.peer), "A4V");
}

TEST(Monitor, TheRingHolds240FramesAndThe241stEmptiesIt)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    for (uint64_t i = 0; i < 240; i++) {
        ASSERT_EQ(Audio(rig, 1000 + i), 0);
    }
    EXPECT_EQ(rig.session->Monitor->AudioCount, 240);
    rig.log.clear();
    EXPECT_EQ(Audio(rig, 2000), 0);
    EXPECT_EQ(rig.log.lines(),
              Lines{"3 ERROR: addRtmpPacketToBuffer: Audio Packet Overflow : 240 Total (h:0,t:0)"});
    EXPECT_EQ(rig.session->Monitor->AudioCount, 0);
    EXPECT_EQ(rig.session->Monitor->AudioHead, -1);
    EXPECT_EQ(rig.session->Monitor->AudioTail, 0);
    ASSERT_EQ(Video(rig, 2000), 0);
    EXPECT_EQ(Messages(player.peer), "V");
}

TEST(Monitor, TheRingWrapsAroundItsEnd)
{
    SessionRig rig;
    RtmpMonitor *monitor = rig.session->Monitor;
    const uint8_t byte = 7;
    RtmpPacket taken;
    monitor->LastVideoRtmpTs = 1;
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(addRtmpPacketToBuffer(monitor, rig.session, &byte, 1, 0, 0, 0, 0, 52, 1), 0) << i;
        ASSERT_EQ(addRtmpPacketToBuffer(monitor, rig.session, &byte, 1, 0, 0, 0, 0, 52, 1), 0) << i;
        for (int k = 0; k < 2; k++) {
            ASSERT_EQ(TakeParkedAudio(monitor, 0, &taken), 1);
            free(taken.Data);
        }
        ASSERT_EQ(TakeParkedAudio(monitor, 0, &taken), 0);
        ASSERT_EQ(monitor->AudioCount, 0);
    }
}

TEST(Monitor, ARefusedVideoFrameIsReportedThroughEveryLayer)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    shutdown(player.client->Socket, SHUT_RDWR);
    rig.log.clear();
    EXPECT_EQ(Video(rig, 1000), -1);
    const Lines lines = rig.log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2],
              "3 ERROR: RtmpMonitorSendData: Sending message to connected clients failed");
    EXPECT_EQ(lines.back(), "3 ERROR: RtmpSendData: Sending message to connected clients failed");
}

TEST(Monitor, TheLastClientThatLeavesStartsAFreshTimeline)
{
    SessionRig rig;
    RtmpClient *first = rig.addClient().client;
    RtmpClient *second = rig.addClient().client;
    ASSERT_EQ(Audio(rig, 1000), 0);
    ASSERT_EQ(Video(rig, 1000), 0);
    ASSERT_EQ(Audio(rig, 1010), 0);
    rig.removeClient(second);
    EXPECT_NE(rig.session->Monitor->LastVideoTs, 0U);
    rig.removeClient(first);
    const RtmpMonitor *monitor = rig.session->Monitor;
    EXPECT_EQ(monitor->LastVideoTs, 0U);
    EXPECT_EQ(monitor->LastAudioTs, 0U);
    EXPECT_EQ(monitor->LastVideoRtmpTs, 0U);
    EXPECT_EQ(monitor->LastAudioRtmpTs, 0U);
    EXPECT_EQ(monitor->AudioCount, 0);
    EXPECT_EQ(monitor->Stats->HeadIndex, -1);
    EXPECT_EQ(monitor->Stats->Count, 0);
}

TEST(Monitor, OfAnEmptyRingNothingIsTaken)
{
    SessionRig rig;
    removeRtmpPacketFromBuffer(rig.session->Monitor);
    EXPECT_EQ(rig.session->Monitor->AudioCount, 0);
    EXPECT_EQ(rig.session->Monitor->AudioFirst, nullptr);
}

TEST(Monitor, OneWithoutStatisticsStartsAFreshTimelineToo)
{
    Records records;
    ASSERT_EQ(RtmpMonitorInit(&records.session, 1, 0), 0);
    RtmpMonitor *monitor = records.session.Monitor;
    EXPECT_EQ(monitor->Stats, nullptr);
    monitor->LastVideoTs = 77;
    EXPECT_EQ(RtmpMonitorClear(&records.session), 0);
    EXPECT_EQ(monitor->LastVideoTs, 0U);
    EXPECT_EQ(RtmpMonitorDestroy(&records.session), 0);
}

TEST(Monitor, AnEncoderHandleOfZeroIsAWarningAndTheMonitorWorks)
{
    SessionRig rig;
    int err = 0;
    RtmpSession *other = RtmpSessionCreate(rig.server, "other", &err);
    rig.log.clear();
    EXPECT_EQ(RtmpSenderSettings(other, 0, 0, 0, 0, 255, 5, 0, 0), 0);
    EXPECT_EQ(rig.log.lines(), Lines{"3 WARNING: RtmpMonitorInit: Invalid AVCENC handle"});
    EXPECT_NE(other->Monitor, nullptr);
    const uint8_t byte = 0;
    EXPECT_EQ(RtmpMonitorSendData(other, &byte, 1, 0, 0, 1000, RTMP_FRAME_VIDEO), 0);
}

TEST(Monitor, StoredSettingsTakeTheirDefaults)
{
    SessionRig rig;
    EXPECT_EQ(RtmpDebugSettings(rig.session, 1, 1, 0, "somewhere", 25), 0);
    EXPECT_STREQ(rig.session->Monitor->DebugSettings->Directory, "somewhere");
    EXPECT_EQ(rig.session->Monitor->DebugSettings->LogEvery, 25U);
    EXPECT_EQ(RtmpAdaptiveBitrateSettings(rig.session, 1, 9, 9, 500000, 77, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    const RtmpMonitorAbr *abr = rig.session->Monitor->AbrSettings;
    EXPECT_EQ(abr->MinBitrate, 500000);
    EXPECT_EQ(abr->IncreaseFullness, 200U);
    EXPECT_EQ(abr->IncreasePercent, 10U);
    EXPECT_EQ(abr->IncreaseMinStep, 10000U);
    EXPECT_EQ(abr->IncreaseIntervalSec, 10U);
    EXPECT_EQ(abr->DecreaseFullness, 500U);
    EXPECT_EQ(abr->DecreasePercent, 50U);
    EXPECT_EQ(abr->DecreaseFullnessHigh, 1000U);
    EXPECT_EQ(abr->DecreasePercentHigh, 110U);
    EXPECT_EQ(abr->DecreaseIntervalSec, 1U);
    EXPECT_EQ(abr->Spare, 10U);
    EXPECT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0); // the packet monitor has its own statistics
}
