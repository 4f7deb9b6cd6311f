// What is due to players that are up to date leaves in one write to each.
#include "steady/counted_writes.h"
#include "steady/steady_server.h"

#include <deque>

using namespace wire;
using namespace steady;

namespace {

constexpr size_t kPlayers = 3;

// Players that have had a picture and its sound already: the next ones need no header of their own.
struct Audience {
    explicit Audience(Server &server) : session(server.session())
    {
        EXPECT_EQ(SendVideo(session, VideoFrame(100, kKey), 1000), RTMP_ERR_NO_CLIENT);
        EXPECT_EQ(SendAudio(session, Bytes(30, 0x77), 1010), RTMP_ERR_NO_CLIENT);
        EXPECT_EQ(SendVideo(session, VideoFrame(100, kInter), 1040), RTMP_ERR_NO_CLIENT);
        for (size_t i = 0; i < kPlayers; i++) {
            ScriptedPlayer &player = players.emplace_back(server);
            player.created();
            player.command(PlayCommand("cam"));
            while (player.frame().timestamp < 40) {
            }
            Narrow(NewestOf(session));
            // The player's own thread has written that, and leaves the line.
            UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(NewestOf(session));
        }
    }
    RtmpSession *session;
    std::deque<ScriptedPlayer> players;
};

} // namespace

TEST(SharedWrite, SoundAndThePictureBehindItLeaveInOneWritePerPlayer)
{
    Server server;
    Audience audience(server);
    const uint64_t before = WritesOfThisThread();
    ASSERT_EQ(SendAudio(audience.session, Bytes(31, 0x77), 1060), 0);
    ASSERT_EQ(SendAudio(audience.session, Bytes(32, 0x77), 1070), 0);
    EXPECT_EQ(WritesOfThisThread(), before);
    ASSERT_EQ(SendVideo(audience.session, VideoFrame(101, kInter), 1080), 0);
    EXPECT_EQ(WritesOfThisThread(), before + kPlayers);
    for (ScriptedPlayer &player : audience.players) {
        EXPECT_EQ(player.frame().payload.size(), 33u);
        EXPECT_EQ(player.frame().timestamp, 70u);
        const Message picture = player.frame();
        EXPECT_EQ(picture.timestamp, 80u);
        EXPECT_EQ(picture.payload.size(), 106u);
    }
}

TEST(SharedWrite, WhatASocketDoesNotTakeOfItFollows)
{
    constexpr size_t kLong = 1000000; // far more than a narrow socket takes
    Server server;
    Audience audience(server);
    ASSERT_EQ(SendAudio(audience.session, Bytes(31, 0x77), 1060), 0);
    ASSERT_EQ(SendVideo(audience.session, VideoFrame(kLong, kInter), 1080), 0);
    ASSERT_EQ(SendVideo(audience.session, VideoFrame(102, kInter), 1120), 0);
    for (ScriptedPlayer &player : audience.players) {
        EXPECT_EQ(player.frame().timestamp, 60u);
        const Message message = player.frame();
        EXPECT_EQ(Bytes(message.payload.begin() + 5, message.payload.end()), VideoFrame(kLong, kInter));
        EXPECT_EQ(player.frame().timestamp, 120u);
    }
}
