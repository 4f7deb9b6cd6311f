#include "state/frame_under_way.h"
#include "support/produced.h"
#include "support/session_rig.h"

namespace {

constexpr uint8_t kByte = 0;

int32_t Send(RtmpSession *session, int64_t mediaType, int32_t length = 1, const uint8_t *data = &kByte)
{
    return RtmpSendData(session, data, length, 0, 0, 1000, mediaType);
}

} // namespace

TEST(SendData, BadArgumentsAreRefusedOnStandardOutput)
{
    SessionRig rig;
    rig.addClient();
    testing::internal::CaptureStdout();
    EXPECT_EQ(Send(nullptr, 0), -99);
    EXPECT_EQ(Send(rig.session, 0, 1, nullptr), -99);
    EXPECT_EQ(Send(rig.session, 0, 0), -99);
    EXPECT_EQ(Send(rig.session, 0, -5), -99);
    EXPECT_EQ(Send(rig.session, 2), -99);
    EXPECT_EQ(Send(rig.session, -1), -99);
    const std::string out = produced::CapturedStdout();
    std::string expected;
    for (int i = 0; i < 6; i++) {
        expected += "RTMPWriter: ERROR: RtmpSendData: Invalid input arguments\n";
    }
    EXPECT_EQ(out, expected);
}

TEST(SendData, OnlyTheLowHalfOfTheMediaTypeCounts)
{
    SessionRig rig;
    rig.addClient();
    EXPECT_EQ(Send(rig.session, (int64_t{7} << 32) | RTMP_FRAME_AUDIO), 0);
    EXPECT_EQ(Send(rig.session, (int64_t{7} << 32) | RTMP_FRAME_VIDEO), 0);
}

TEST(SendData, ASessionWithoutMediaIsToldApartSilently)
{
    SessionRig rig(4096, RTMP_MEDIA_NONE);
    rig.addClient();
    rig.log.clear();
    EXPECT_EQ(Send(rig.session, 0), -97);
    EXPECT_TRUE(rig.log.lines().empty());
}

TEST(SendData, ASessionWithoutClientsIsToldApartSilentlyAndNothingIsKept)
{
    SessionRig rig;
    rig.log.clear();
    EXPECT_EQ(Send(rig.session, 0), -82);
    EXPECT_EQ(Send(rig.session, 1), -82);
    EXPECT_TRUE(rig.log.lines().empty());
    const RigClient player = rig.addClient();
    EXPECT_EQ(Send(rig.session, 0), 0);
    EXPECT_EQ(DrainBytes(player.peer).size(), 12U + 5U + 1U); // the frame alone
}

TEST(SendData, ASessionThatIsBeingDestroyedTakesNoMoreFramesSilently)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    rig.log.clear();
    RefuseFrames(rig.session); // as RtmpSessionDestroy does before it waits
    EXPECT_EQ(Send(rig.session, 0), -82);
    EXPECT_TRUE(DrainBytes(player.peer).empty());
    EXPECT_TRUE(rig.log.lines().empty());
    AllowFrames(rig.session);
    EXPECT_EQ(Send(rig.session, 0), 0);
}

TEST(SendData, ASessionThatWasGivenNoSenderFailsInTheLog)
{
    SessionRig rig;
    RtmpSession *other = RtmpSessionCreate(rig.server, "other", nullptr);
    other->MediaInfoAdded = 1;
    other->ClientCount = 1;
    rig.log.clear();
    EXPECT_EQ(Send(other, 0), -1);
    EXPECT_EQ(rig.log.lines(), (std::vector<std::string>{
                                   "3 ERROR: RtmpSendData: The session has no sender",
                                   "3 ERROR: RtmpSendData: Sending message to connected clients failed",
                               }));
    other->ClientCount = 0;
}
