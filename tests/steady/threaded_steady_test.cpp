// The steady road in sender mode 1: a thread of the session writes.
#include "steady/counted_writes.h"
#include "steady/steady_server.h"
#include "support/calls.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/wait.h"

#include <chrono>

using namespace wire;

namespace {

constexpr SessionSetup kThreaded = {.mode = RTMP_SENDER_THREADED};

struct ThreadedServer : SteadyTestServer {
    explicit ThreadedServer(const RtmpServiceLimits &limits = {})
        : SteadyTestServer(limits), cam(session("cam", kThreaded))
    {
    }
    int picture(uint64_t time, uint8_t nal = kInterNal, size_t length = 50)
    {
        return SendVideo(cam, VideoFrame(length, nal), time);
    }
    int sound(uint64_t time)
    {
        return SendAudio(cam, Bytes(30, 0x77), time);
    }
    RtmpSession *cam;
};

void Play(ScriptedPeer &peer)
{
    peer.chunks.standard = true;
    peer.playing("cam");
}

} // namespace

TEST(ThreadedSteady, FramesArriveInTheOrderOfTheirTimesAndTheHostsThreadWritesNone)
{
    ThreadedServer server;
    ScriptedPeer peer(server.port);
    Play(peer);
    const uint64_t before = WritesOfThisThread();
    EXPECT_EQ(server.picture(1000, kKeyNal), 0);
    for (uint64_t i = 1; i < 100; i++) {
        EXPECT_EQ(server.sound(1000 + 40 * i - 20), 0);
        EXPECT_EQ(server.picture(1000 + 40 * i), 0);
    }
    EXPECT_EQ(WritesOfThisThread(), before);
    EXPECT_EQ(peer.read().timestamp, 0u);
    for (uint32_t i = 1; i < 100; i++) {
        const Message sound = peer.read();
        const Message picture = peer.read();
        EXPECT_EQ(sound.type, 8);
        EXPECT_EQ(sound.timestamp, 40 * i - 20);
        EXPECT_EQ(picture.type, 9);
        EXPECT_EQ(picture.timestamp, 40 * i);
    }
    EXPECT_FALSE(server.log.contains("Sender Thread Started")); // the exact one's
}

TEST(ThreadedSteady, TheThreadBeginsWithTheFirstFrameThatSomebodyIsThereFor)
{
    ThreadedServer server;
    const uint64_t before = calls::made(Call::ThreadCreate);
    EXPECT_EQ(server.picture(1000, kKeyNal), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(calls::made(Call::ThreadCreate), before);
    ScriptedPeer peer(server.port);
    Play(peer);
    const uint64_t playing = calls::made(Call::ThreadCreate);
    EXPECT_EQ(server.picture(1040), 0);
    EXPECT_EQ(server.picture(1080), 0);
    EXPECT_EQ(calls::made(Call::ThreadCreate), playing + 1);
    EXPECT_EQ(peer.read().timestamp, 40u); // the key frame came with the answers
    EXPECT_EQ(peer.read().timestamp, 80u);
}

TEST(ThreadedSteady, ABrokenPlayerCostsTheOthersNothing)
{
    ThreadedServer server;
    ScriptedPeer stays(server.port);
    Play(stays);
    ASSERT_EQ(server.picture(1000, kKeyNal), 0);
    ASSERT_EQ(stays.read().timestamp, 0u); // it has begun
    for (uint64_t i = 0; i < 20; i++) {
        ScriptedPeer breaks(server.port);
        Play(breaks);
        breaks.socket.reset();
        for (uint64_t number = 5 * i + 1; number <= 5 * i + 5; number++) {
            ASSERT_EQ(server.picture(1000 + 40 * number, number % 5 == 0 ? kKeyNal : kInterNal), 0);
        }
    }
    for (uint32_t number = 1; number <= 100; number++) {
        ASSERT_EQ(stays.read().timestamp, 40 * number);
    }
}

TEST(ThreadedSteady, ResetDropsWhatWaitsAndPlayersGoOnWithAKeyFrame)
{
    ThreadedServer server;
    ScriptedPeer peer(server.port);
    Play(peer);
    EXPECT_EQ(server.picture(1000, kKeyNal), 0);
    EXPECT_EQ(peer.read().timestamp, 0u);
    EXPECT_EQ(server.sound(1020), 0);
    EXPECT_EQ(RtmpThreadedQueueReset(server.cam), 0);
    HostFakes::get().keyFramesWanted.clear();
    EXPECT_EQ(server.picture(500), 0);
    EXPECT_EQ(server.picture(540), 0);
    EXPECT_TRUE(WaitUntil([&] { // the host is asked for what the player waits for
        EXPECT_EQ(server.picture(560), 0);
        return HostFakes::get().keyFramesWanted().size() == 1;
    }));
    EXPECT_EQ(server.picture(900, kKeyNal), 0);
    const Message message = peer.read(); // neither sound nor inter frames
    EXPECT_EQ(message.type, 9);
    EXPECT_EQ(message.payload[0], 0x17);
    EXPECT_EQ(message.timestamp, 20u + 33u + 400u); // the timeline went on by a frame
}

TEST(ThreadedSteady, ResetLeavesNewcomersNothingToBeginWith)
{
    ThreadedServer server;
    EXPECT_EQ(server.picture(1000, kKeyNal), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(RtmpThreadedQueueReset(server.cam), 0);
    ScriptedPeer peer(server.port);
    Play(peer);
    EXPECT_EQ(server.picture(1040), 0);
    EXPECT_EQ(server.picture(1080, kKeyNal), 0);
    EXPECT_EQ(peer.read().payload[0], 0x17);
}

TEST(ThreadedSteady, CloseDropsFramesUntilTheNextReset)
{
    ThreadedServer server;
    ScriptedPeer peer(server.port);
    Play(peer);
    EXPECT_EQ(server.picture(1000, kKeyNal), 0);
    EXPECT_EQ(peer.read().timestamp, 0u);
    EXPECT_EQ(RtmpThreadedQueueClose(server.cam), 0);
    for (uint64_t i = 1; i < 10; i++) {
        EXPECT_EQ(server.picture(1000 + 40 * i, kKeyNal), 0);
        EXPECT_EQ(server.sound(1000 + 40 * i), 0);
    }
    EXPECT_TRUE(peer.settle().empty());
    EXPECT_EQ(RtmpThreadedQueueReset(server.cam), 0);
    EXPECT_EQ(server.picture(1400, kKeyNal), 0);
    const Message message = peer.read();
    EXPECT_EQ(message.timestamp, 33u);
}

TEST(ThreadedSteady, ResetAndCloseLeaveAnotherModeAlone)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    Play(peer);
    EXPECT_EQ(RtmpThreadedQueueClose(session), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(50, kKeyNal), 1000), 0);
    EXPECT_EQ(RtmpThreadedQueueReset(session), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(50, kInterNal), 1040), 0);
    EXPECT_EQ(peer.read().timestamp, 0u);
    EXPECT_EQ(peer.read().timestamp, 40u);
}

TEST(ThreadedSteady, AThreadThatCannotBeStartedIsLoggedAndPlayersGetTheirFramesAllTheSame)
{
    ThreadedServer server;
    ScriptedPeer peer(server.port);
    Play(peer);
    {
        const FailingCall failing(Call::ThreadCreate);
        EXPECT_EQ(server.picture(1000, kKeyNal), -1);
    }
    EXPECT_TRUE(server.log.contains("ERROR: RtmpSendData: Cannot create the session's sender thread"));
    EXPECT_EQ(server.picture(1040), 0);
    EXPECT_EQ(peer.read().timestamp, 0u);
    EXPECT_EQ(peer.read().timestamp, 40u);
}

// The sender thread is somewhere in its work, with a player that reads and one that does not.
TEST(ThreadedSteady, ASessionIsDestroyedInTheMiddleOfItsFrames)
{
    const Bytes key = VideoFrame(200000, kKeyNal);
    const Bytes inter = VideoFrame(200000, kInterNal);
    for (uint64_t round = 0; round < 30; round++) {
        ThreadedServer server;
        ScriptedPeer reads(server.port);
        ScriptedPeer stopped(server.port);
        Play(reads);
        Play(stopped);
        for (uint64_t i = 0; i <= round * 3; i++) {
            ASSERT_EQ(SendVideo(server.cam, i % 10 == 0 ? key : inter, 1000 + 40 * i), 0);
        }
        const auto begun = std::chrono::steady_clock::now();
        EXPECT_EQ(RtmpSessionDestroy(server.cam), 0);
        const auto took = std::chrono::steady_clock::now() - begun;
        EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 1000);
    }
}

TEST(ThreadedSteady, AThreadIsLeftBehindByNoSession)
{
    SteadyTestServer server;
    const size_t before = RunningThreads();
    for (int round = 0; round < 50; round++) {
        RtmpSession *session = server.session("cam", kThreaded);
        ScriptedPeer peer(server.port);
        Play(peer);
        EXPECT_EQ(SendVideo(session, VideoFrame(50, kKeyNal), 1000), 0);
        EXPECT_EQ(peer.read().timestamp, 0u);
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() == before; }));
}
