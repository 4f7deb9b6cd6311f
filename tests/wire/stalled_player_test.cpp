// A player that takes nothing, and a host that wants to go on.
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace wire;

TEST(WireStalledPlayer, ASessionWithAThreadedSenderIsDestroyedWhileItsThreadIsStuckInAWrite)
{
    TestServer server;
    RtmpSession *session = server.session("cam", {.sender = false});
    RtmpSenderSettings(session, RTMP_SENDER_THREADED, 0, 0, 1, 255, 5, 50, 50);
    ScriptedPeer player(server.port);
    player.playing("cam");
    // Far more than both ends' buffers hold. Once the ring is flushed, the thread has stood still for fifty
    // frames.
    const Bytes frame = VideoFrame(400000);
    uint64_t timestamp = 1000;
    EXPECT_TRUE(WaitUntil([&] {
        timestamp += 33;
        EXPECT_EQ(SendVideo(session, frame, timestamp), 0);
        return server.log.contains("6 INFO: RtmpThreadedQueueSendData: Flushing Video Buffer");
    }));
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    EXPECT_TRUE(server.waitForClientsToEnd());
}
