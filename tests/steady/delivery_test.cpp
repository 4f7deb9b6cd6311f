// Frames on the steady road, as a player sees them.
#include "steady_server.h"

using namespace steady;
using namespace wire;

// The first picture has a whole header and time 0, the next ones are told from it.
TEST(SteadyDelivery, APlayersMediaTimeBeginsAtZeroWithAKeyFrame)
{
    Server server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kInter), 5000), 0);
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKey), 5040), 0);
    ASSERT_EQ(SendVideo(session, VideoFrame(300, kInter), 5080), 0);
    const Message first = peer.read();
    EXPECT_EQ(first.chunkStream, kVideoStream);
    EXPECT_EQ(first.timestamp, 0u);
    EXPECT_EQ(first.payload.size(), 105u);
    EXPECT_EQ(first.payload[0], 0x17);
    const Message second = peer.read();
    EXPECT_EQ(second.timestamp, 40u);
    EXPECT_EQ(second.payload[0], 0x27);
}

// A newcomer is sent everything from the last key frame on, at once.
TEST(SteadyDelivery, ANewcomerBeginsWithTheLastKeyFrame)
{
    Server server;
    RtmpSession *session = server.session();
    for (uint64_t i = 0; i < 10; i++) {
        ASSERT_EQ(SendVideo(session, VideoFrame(100 + i, i % 5 == 0 ? kKey : kInter), 1000 + 40 * i),
                  RTMP_ERR_NO_CLIENT);
    }
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    peer.read(7);
    for (uint64_t i = 5; i < 10; i++) {
        const Message message = peer.read();
        EXPECT_EQ(message.payload.size(), 105 + i);
        EXPECT_EQ(message.timestamp, 40 * (i - 5));
    }
}
