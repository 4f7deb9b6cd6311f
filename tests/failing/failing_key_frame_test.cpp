// Players that wait for key frames (RTMP_PLAYERS_KEY_FRAME) when a frame does not reach one of them, or all.
#include "delivery/write/fan_out.h"
#include "rtmpcast/player.h"
#include "support/calls.h"
#include "support/session_rig.h"

#include <gtest/gtest.h>

namespace {

Bytes TinyPicture(bool isKey, uint8_t number)
{
    return {0, 0, 0, 2, static_cast<uint8_t>(isKey ? 0x65 : 0x41), number};
}

int SendTiny(SessionRig &rig, const Bytes &frame)
{
    return SendMsgToConnectedClients(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0, 40,
                                     RTMP_MSG_VIDEO);
}

// Whether the frame is the last thing that came to the player; nothing else lies in its socket.
bool GotTiny(const RigClient &player, const Bytes &frame)
{
    const Bytes bytes = DrainBytes(player.peer);
    return bytes.size() >= frame.size() && Slice(bytes, bytes.size() - frame.size(), frame.size()) == frame;
}

} // namespace

TEST(KeyFrameFailing, WhoMissesAFrameGetsNoneBeforeTheNextKeyFrame)
{
    for (const uint32_t flags : {uint32_t{RTMP_PLAYERS_EXACT}, uint32_t{RTMP_PLAYERS_KEY_FRAME}}) {
        SessionRig rig;
        const RigClient player = rig.addClient(), other = rig.addClient();
        player.client->PlayerFlags = flags;
        other.client->PlayerFlags = flags;
        EXPECT_EQ(SendTiny(rig, TinyPicture(true, 1)), 0);
        EXPECT_TRUE(GotTiny(player, TinyPicture(true, 1)));
        {
            const FailingCall failing(Call::MutexLock, 1, &player.client->SendStrmListLock);
            EXPECT_EQ(SendTiny(rig, TinyPicture(false, 2)), -1);
        }
        EXPECT_FALSE(GotTiny(player, TinyPicture(false, 2)));
        EXPECT_EQ(SendTiny(rig, TinyPicture(false, 3)), 0);
        EXPECT_EQ(GotTiny(player, TinyPicture(false, 3)), flags == RTMP_PLAYERS_EXACT);
        EXPECT_TRUE(GotTiny(other, TinyPicture(false, 3))) << "who missed nothing goes on";
        EXPECT_EQ(SendTiny(rig, TinyPicture(true, 4)), 0);
        EXPECT_TRUE(GotTiny(player, TinyPicture(true, 4)));
        EXPECT_EQ(SendTiny(rig, TinyPicture(false, 5)), 0);
        EXPECT_TRUE(GotTiny(player, TinyPicture(false, 5)));
    }
}

TEST(KeyFrameFailing, BehindAFrameThatNobodyGotAllWaitForTheNextKeyFrame)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    player.client->PlayerFlags = RTMP_PLAYERS_KEY_FRAME;
    EXPECT_EQ(SendTiny(rig, TinyPicture(true, 1)), 0);
    Bytes large = TinyPicture(false, 2);
    large.resize(100000); // more pieces than the session keeps
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(SendTiny(rig, large), -1);
    }
    EXPECT_TRUE(GotTiny(player, TinyPicture(true, 1)));
    EXPECT_EQ(SendTiny(rig, TinyPicture(false, 3)), 0);
    EXPECT_TRUE(DrainBytes(player.peer).empty());
    EXPECT_EQ(SendTiny(rig, TinyPicture(true, 4)), 0);
    EXPECT_TRUE(GotTiny(player, TinyPicture(true, 4)));
}

// The reference says what the peer has seen last: one that it may not have seen is not built upon.
TEST(KeyFrameFailing, BehindAMissedFrameTheHeaderIsRight)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    player.client->PlayerFlags = RTMP_PLAYERS_CHUNKS_OUT;
    EXPECT_EQ(SendTiny(rig, TinyPicture(true, 1)), 0);
    EXPECT_EQ(SendTiny(rig, TinyPicture(false, 2)), 0);
    DrainBytes(player.peer);
    {
        const FailingCall failing(Call::MutexLock, 1, &player.client->SendStrmListLock);
        EXPECT_EQ(SendTiny(rig, TinyPicture(false, 3)), -1);
    }
    EXPECT_EQ(SendTiny(rig, TinyPicture(false, 4)), 0);
    EXPECT_EQ(DrainBytes(player.peer), Hex("C5 27 01 000000 00000002 41 04"))
        << "40 ms behind the one before, as that was behind its own";
}
