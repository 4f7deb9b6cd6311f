// Frames through the threaded sender, as players see them.
#include "support/host_fakes.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <memory>

using namespace wire;

namespace {

constexpr SessionSetup kThreaded = {.mode = RTMP_SENDER_THREADED};

Bytes NumberedFrame(size_t length, uint32_t number)
{
    Bytes frame = VideoFrame(length, OrdinaryNal(), static_cast<uint8_t>(number));
    const Bytes text = BigEndian(number, 4);
    std::copy(text.begin(), text.end(), frame.begin() + 5);
    return frame;
}

uint32_t NumberIn(const Message &message)
{
    const Bytes &body = message.payload;
    return static_cast<uint32_t>(body[10]) << 24 | static_cast<uint32_t>(body[11]) << 16 |
           static_cast<uint32_t>(body[12]) << 8 | body[13];
}

} // namespace

TEST(WireThreaded, FramesArriveInOrderWithTheBytesOfTheMonitor)
{
    TestServer server(200);
    RtmpSession *session = server.session("cam", kThreaded);
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    uint64_t time = 1000;
    for (const size_t length : {14, 194, 195, 196, 395, 5000}) {
        EXPECT_EQ(SendVideo(session, VideoFrame(length, 0x65), time), 0);
        const Message message = peer.read();
        EXPECT_TRUE(Same(message.payload, Join({Hex("17 01 000000"), VideoFrame(length, 0x65)})));
        EXPECT_EQ(message.field, time == 1000 ? 0U : 40U);
        time += 40;
    }
    EXPECT_TRUE(server.log.contains(" :Sender Thread Started: SCHED_OTHER:0"));
}

TEST(WireThreaded, AudioThatMeetsAVideoFrameExactlyGoesInFrontOfIt)
{
    TestServer server;
    RtmpSession *session = server.session("cam", kThreaded);
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 100000), 0);
    peer.read();
    EXPECT_EQ(SendAudio(session, {1, 2, 3}, 100000), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 160000), 0);
    const Message audio = peer.read();
    const Message video = peer.read();
    ASSERT_EQ(audio.type, 8);
    ASSERT_EQ(video.type, 9);
    ASSERT_GT(video.timestamp + 100, audio.timestamp);
    const uint32_t apart = video.timestamp + 100 - audio.timestamp; // the two clocks are known now
    EXPECT_EQ(SendAudio(session, {4, 5, 6}, 100000 + apart), 0);
    EXPECT_EQ(SendAudio(session, {7, 8, 9}, 100001 + apart), 0); // one too late
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 160100), 0);
    EXPECT_TRUE(Same(peer.read().payload, Hex("af01 040506")));
    EXPECT_EQ(peer.read().type, 9);
    EXPECT_TRUE(peer.settle().empty());
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 160101), 0);
    EXPECT_TRUE(Same(peer.read().payload, Hex("af01 070809")));
    EXPECT_EQ(peer.read().type, 9);
}

TEST(WireThreaded, NothingIsQueuedWhileTheFirstInTheListIsPaused)
{
    TestServer server;
    RtmpSession *session = server.session("cam", kThreaded);
    ScriptedPeer first(server.port), second(server.port);
    first.playing("cam");
    second.playing("cam");
    first.command(PauseCommand(true));
    first.settle();
    EXPECT_EQ(SendVideo(session, VideoFrame(20, OrdinaryNal(), 1), 1000), 0);
    first.chunks.restart();
    first.command(PauseCommand(false));
    first.read(7);
    first.settle();
    EXPECT_EQ(SendVideo(session, VideoFrame(20, OrdinaryNal(), 2), 1040), 0);
    EXPECT_TRUE(Same(Slice(second.read().payload, 5, 20), VideoFrame(20, OrdinaryNal(), 2)));
    EXPECT_TRUE(Same(Slice(first.read().payload, 5, 20), VideoFrame(20, OrdinaryNal(), 2)));
}

// A player that reads nothing fills its socket and then the queue, which is flushed whole: the host never
// waits, and what the player reads afterwards is made of whole frames in their order.
TEST(WireThreaded, ASlowPlayerLosesWholeFramesAndCostsTheHostNothing)
{
    HostFakes::get().reset();
    constexpr uint32_t kFrames = 400;
    constexpr size_t kLength = 60000;
    TestServer server;
    RtmpSession *session = server.session("cam", kThreaded);
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    for (uint32_t number = 0; number < kFrames; ++number) {
        EXPECT_EQ(SendVideo(session, NumberedFrame(kLength, number), 1000 + number), 0);
    }
    EXPECT_TRUE(server.log.contains(": Flushing Video Buffer"));
    const std::vector<StatusReport> reports = HostFakes::get().statusReports();
    ASSERT_GE(reports.size(), 1U);
    EXPECT_EQ(reports[0], (StatusReport{session, "rtmpLowBitrate", "1", "Buffer full"}));
    uint32_t last = 0, read = 0;
    for (const Message &message : peer.settle()) {
        const uint32_t number = NumberIn(message);
        EXPECT_TRUE(read == 0 || number > last) << number << " behind " << last;
        EXPECT_TRUE(Same(Slice(message.payload, 5, kLength), NumberedFrame(kLength, number)));
        last = number;
        ++read;
    }
    EXPECT_GT(read, 0U);
    EXPECT_LT(read, kFrames);
}

TEST(WireThreaded, SessionsEndAroundTheirPlayersAndTheSenderThread)
{
    TestServer server;
    for (int round = 0; round < 10; ++round) {
        RtmpSession *session = server.session("cam", kThreaded);
        std::vector<std::unique_ptr<ScriptedPeer>> players;
        for (int i = 0; i < 3; ++i) {
            players.push_back(std::make_unique<ScriptedPeer>(server.port));
            players.back()->playing("cam");
        }
        for (uint32_t number = 0; number < 20; ++number) {
            EXPECT_EQ(SendVideo(session, NumberedFrame(500, number), 1000 + 40 * number), 0);
        }
        for (const std::unique_ptr<ScriptedPeer> &player : players) {
            EXPECT_EQ(NumberIn(player->read()), 0U);
        }
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
    }
    server.session("cam", kThreaded);
    ScriptedPeer last(server.port);
    last.playing("cam");
    EXPECT_EQ(server.destroy(), 0);
}

// The kernel needs a moment to tell the sender that a player is gone; the host only ever sees 0.
TEST(WireThreaded, APlayerThatIsKilledStopsTheSenderAndItsResetStartsItAgain)
{
    TestServer server;
    RtmpSession *session = server.session("cam", kThreaded);
    for (int round = 0; round < 10; ++round) {
        std::unique_ptr<ScriptedPeer> victim = std::make_unique<ScriptedPeer>(server.port);
        victim->playing("cam");
        for (uint32_t number = 0; number < 30; ++number) {
            EXPECT_TRUE(SendVideo(session, NumberedFrame(500, number), 1000 + number) >= RTMP_ERR_NO_CLIENT);
            if (number == 10) {
                victim->socket.reset();
            }
        }
        ASSERT_TRUE(server.waitForClientsToEnd());
        EXPECT_EQ(RtmpThreadedQueueReset(session), 0);
    }
    ScriptedPeer player(server.port);
    player.playing("cam");
    EXPECT_EQ(SendVideo(session, NumberedFrame(500, 77), 5000), 0);
    EXPECT_EQ(NumberIn(player.read()), 77U);
}
