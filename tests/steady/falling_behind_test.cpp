// Players that are slower than the stream, and players that come and go beside others.
#include "steady_server.h"

#include "rtmpcast/media.h"
#include "rtmpcast/service.h"
#include "support/slow_reader.h"

#include <map>
#include <thread>

using namespace steady;
using namespace wire;

namespace {

constexpr uint64_t kStepMs = 40;

// Frame `number` of a stream with a key frame every 10 frames; its length tells which one it is.
Bytes Numbered(uint64_t number, size_t least)
{
    return VideoFrame(least + number, number % 10 == 0 ? kKey : kInter);
}

void SendNumbered(RtmpSession *session, uint64_t from, uint64_t to, size_t least)
{
    for (uint64_t number = from; number < to; number++) {
        const int result = SendVideo(session, Numbered(number, least), 1000 + kStepMs * number);
        EXPECT_TRUE(result == 0 || result == RTMP_ERR_NO_CLIENT) << result;
    }
}

uint64_t NumberOf(const Message &message, size_t least)
{
    return message.payload.size() - 5 - least;
}

// What a player of this pace gets of 200 frames that are sent at once.
void ExpectEveryFrame(size_t piece)
{
    constexpr size_t kLeast = 50;
    Server server;
    RtmpSession *session = server.session();
    HandMade mine(server.server);
    Narrow(mine.client, 2048);
    mine.join(session);
    SlowReader reader(mine.ends[1], piece);
    ChunkParser chunks(*reader.socket);
    chunks.standard = true;
    chunks.chunkSize = 4096;
    SendNumbered(session, 0, 200, kLeast);
    for (uint64_t number = 0; number < 200; number++) {
        const Message message = chunks.next();
        ASSERT_EQ(NumberOf(message, kLeast), number);
        ASSERT_EQ(message.timestamp, kStepMs * number);
        ASSERT_EQ(Slice(message.payload, 5, message.payload.size()), Numbered(number, kLeast));
    }
}

} // namespace

TEST(FallingBehind, APlayerThatReadsOneByteAtATimeGetsEveryFrame)
{
    ExpectEveryFrame(1);
}

TEST(FallingBehind, APlayerThatReadsInBurstsGetsEveryFrame)
{
    ExpectEveryFrame(7001);
}

// What the ring has let go of is missing, and nothing else; it goes on at a key frame, on the same timeline.
TEST(FallingBehind, APlayerThatFallsOutGoesOnAtAKeyFrame)
{
    constexpr size_t kLeast = 40000;
    constexpr uint64_t kFrames = 400;
    RtmpServiceLimits limits = With(&RtmpServiceLimits::RingBytes, 1000000);
    limits.StallMilliseconds = 600000; // on a slow machine, too, it is read in time
    Server server(limits);
    RtmpSession *session = server.session();
    ScriptedPlayer slow(server);
    slow.playing("cam");
    RtmpClient *client = NewestOf(session);
    Narrow(client);
    ScriptedPlayer quick(server);
    quick.playing("cam");
    std::thread other(OnAThread([&] { // gets everything meanwhile
        for (uint64_t number = 0; number < kFrames; number++) {
            ASSERT_EQ(NumberOf(quick.frame(), kLeast), number);
        }
    }));
    for (uint64_t number = 0; number < kFrames; number++) {
        SendNumbered(session, number, number + 1, kLeast);
        RtmpClient *newest = NewestOf(session);
        ASSERT_TRUE(WaitForLine(newest, [](const SteadyLine &line) { return line.WantsRoom == 0; }));
    }
    other.join();
    uint64_t expected = 0;
    uint64_t dropped = 0;
    for (uint64_t number = 0; number + 1 < kFrames; expected = number + 1) {
        const Message message = slow.frame();
        number = NumberOf(message, kLeast);
        ASSERT_EQ(message.timestamp, kStepMs * number);
        ASSERT_EQ(message.headerType, number == 0 ? 0 : 1);
        ASSERT_EQ(Slice(message.payload, 5, message.payload.size()), Numbered(number, kLeast));
        if (number != expected) {
            EXPECT_EQ(number % 10, 0u) << "goes on in the midst of a group";
            dropped += number - expected;
        }
    }
    EXPECT_GT(dropped, 100u);
    EXPECT_TRUE(LineIs(client, [&](const SteadyLine &line) { return line.FramesDropped == dropped; }));
    EXPECT_TRUE(LineIs(client, [&](const SteadyLine &line) { return line.Restarts > 0; }));
}

TEST(FallingBehind, ThreePlayersOfWhichTheFirstLeavesWhileAFourthJoinsAllGetFrames)
{
    constexpr size_t kLeast = 100;
    Server server;
    RtmpSession *session = server.session();
    auto first = std::make_unique<ScriptedPlayer>(server);
    ScriptedPlayer second(server), third(server), fourth(server);
    first->playing("cam");
    second.playing("cam");
    third.playing("cam");
    SendNumbered(session, 0, 5, kLeast);
    fourth.created();
    first->socket.reset();
    fourth.command(PlayCommand("cam"));
    ASSERT_TRUE(WaitUntil([&] {
        RtmpSessionFigures figures;
        EXPECT_EQ(RtmpSessionStatistics(session, &figures), 0);
        return figures.ViewersInAll == 4 && LoadShared(&session->ClientCount) == 3;
    }));
    SendNumbered(session, 5, 30, kLeast);
    for (ScriptedPlayer *player : {&second, &third, &fourth}) {
        for (uint64_t number = 0; number < 30; number++) {
            const Message message = player->frame();
            ASSERT_EQ(NumberOf(message, kLeast), number);
            ASSERT_EQ(message.timestamp, kStepMs * number);
        }
    }
    second.socket.reset();
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&session->ClientCount) == 2; }));
    SendNumbered(session, 30, 40, kLeast);
    for (ScriptedPlayer *player : {&third, &fourth}) {
        for (uint64_t number = 30; number < 40; number++) {
            ASSERT_EQ(NumberOf(player->frame(), kLeast), number);
        }
    }
}

// One that takes nothing costs the others nothing.
TEST(FallingBehind, PlayersThatTakeNothingHoldUpNobody)
{
    constexpr size_t kLeast = 20000;
    Server server;
    RtmpSession *session = server.session();
    std::vector<std::unique_ptr<HandMade>> stopped;
    for (int i = 0; i < 5; i++) {
        stopped.push_back(std::make_unique<HandMade>(server.server));
        Narrow(stopped.back()->client, 4096);
        stopped.back()->join(session);
    }
    ScriptedPlayer player(server);
    player.playing("cam");
    for (uint64_t number = 0; number < 100; number++) {
        SendNumbered(session, number, number + 1, kLeast);
        ASSERT_EQ(NumberOf(player.frame(), kLeast), number);
    }
    for (const std::unique_ptr<HandMade> &each : stopped) {
        EXPECT_TRUE(LineIs(each->client, IsFull));
    }
    stopped.clear();
    SendNumbered(session, 100, 101, kLeast);
    EXPECT_EQ(NumberOf(player.frame(), kLeast), 100u);
}

TEST(FallingBehind, ASessionMadeAgainUnderItsNameHasPlayersOfItsOwn)
{
    constexpr size_t kLeast = 100;
    Server server;
    for (int round = 0; round < 5; round++) {
        RtmpSession *session = server.session();
        ScriptedPlayer player(server);
        player.playing("cam");
        HandMade mine(server.server);
        mine.join(session);
        SendNumbered(session, 0, 15, kLeast);
        for (uint64_t number = 0; number < 15; number++) {
            const Message message = player.frame();
            ASSERT_EQ(NumberOf(message, kLeast), number);
            ASSERT_EQ(message.timestamp, kStepMs * number);
            ASSERT_EQ(NumberOf(mine.chunks->next(), kLeast), number);
        }
        EXPECT_EQ(DestroyRtmpClient(mine.client), 0);
        mine.client = nullptr;
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
        EXPECT_TRUE(player.socket.ends());
    }
}

// ------------------------------------------------------------------------------------ clients of the host's
// own

TEST(HostsOwnClients, GetFramesAndAreFreed)
{
    Server server;
    RtmpSession *session = server.session();
    {
        HandMade mine(server.server);
        mine.join(session);
        ASSERT_EQ(SendVideo(session, VideoFrame(10000, kKey), 70), 0);
        ASSERT_EQ(SendVideo(session, VideoFrame(20, kInter), 110), 0);
        const Message first = mine.chunks->next();
        EXPECT_EQ(first.headerType, 0);
        EXPECT_EQ(first.stream, 1u);
        EXPECT_EQ(first.timestamp, 0u);
        EXPECT_EQ(first.payload.size(), 10005u);
        EXPECT_EQ(mine.chunks->next().timestamp, 40u);
    }
    EXPECT_EQ(session->ClientCount, 0);
    EXPECT_EQ(session->Stream->FirstPlayer, nullptr);
    EXPECT_EQ(server.server->Service->LineCount, 0u);
    EXPECT_EQ(SendVideo(session, VideoFrame(20, kKey), 150), RTMP_ERR_NO_CLIENT);
}

// ------------------------------------------------------------------------------------ sizes

class EveryChunkSize : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Of, EveryChunkSize, testing::Values(128, 1000, 4096, 65536));

TEST_P(EveryChunkSize, FramesOfEveryLengthArriveWhole)
{
    const size_t chunk = static_cast<size_t>(GetParam());
    Server server({}, GetParam());
    RtmpSession *session = server.session();
    ScriptedPlayer player(server);
    player.playing("cam");
    const std::vector<size_t> lengths = {
        5, 6, 100, chunk - 6, chunk - 5, chunk - 4, 2 * chunk - 5, 2 * chunk - 4, 100000, 300000};
    uint64_t time = 0;
    for (const size_t length : lengths) {
        ASSERT_EQ(SendVideo(session, VideoFrame(length, kKey), time), 0) << length;
        const Message message = player.frame();
        EXPECT_TRUE(Same(message.payload, Join({Hex("17 01 000000"), VideoFrame(length, kKey)}))) << length;
        EXPECT_EQ(message.timestamp, time);
        EXPECT_EQ(message.chunks, (length + 5 + chunk - 1) / chunk);
        time += 40;
    }
}

TEST(FrameSizes, SoundOfOneByteAndOfManyArrivesWhole)
{
    Server server;
    SessionSetup setup;
    setup.video = false;
    RtmpSession *session = server.session("cam", setup);
    ScriptedPlayer player(server);
    player.playing("cam", 6);
    uint64_t time = 500;
    for (const size_t length : {1, 2, 300, 4094, 4095, 50000}) {
        ASSERT_EQ(SendAudio(session, Counting(length), time), 0);
        const Message message = player.frame();
        EXPECT_EQ(message.chunkStream, kAudioStream);
        EXPECT_EQ(message.payload, Join({Hex("AF 01"), Counting(length)}));
        EXPECT_EQ(message.timestamp, time - 500);
        time += 23;
    }
}

// RTMP 1.0, 5.3.1.2.1: the length of a message has 24 bits, 5 bytes of which the tag header takes.
TEST(FrameSizes, TheLongestMessageArrivesAndALongerOneIsRefused)
{
    RtmpServiceLimits limits = With(&RtmpServiceLimits::RingBytes, UINT32_MAX);
    Server server(limits, 65536);
    RtmpSession *session = server.session();
    HandMade mine(server.server, nullptr, 65536);
    mine.join(session);
    const Bytes longest = VideoFrame(0xFFFFFF - 5, kKey);
    std::thread sender([&] {
        EXPECT_EQ(SendVideo(session, longest, 1000), 0);
        EXPECT_EQ(SendVideo(session, VideoFrame(0xFFFFFF - 4, kKey), 1040), -1);
        EXPECT_EQ(SendVideo(session, VideoFrame(30, kInter), 1080), 0);
    });
    EXPECT_TRUE(Same(Slice(mine.chunks->next().payload, 5, longest.size()), longest));
    const Message next = mine.chunks->next();
    EXPECT_EQ(next.payload.size(), 35u);
    EXPECT_EQ(next.timestamp, 80u);
    sender.join();
    EXPECT_TRUE(server.log.contains("A frame of 16777211 bytes is too long for a message"));
}

TEST(FrameSizes, AVideoOnlySessionHasPicturesAlone)
{
    Server server;
    SessionSetup setup;
    setup.audio = false;
    RtmpSession *session = server.session("cam", setup);
    ScriptedPlayer player(server);
    player.playing("cam", 6);
    SendNumbered(session, 0, 30, 100);
    for (uint64_t number = 0; number < 30; number++) {
        ASSERT_EQ(NumberOf(player.frame(), 100), number);
    }
}

// ------------------------------------------------------------------------------------ beginning

TEST(Beginning, WithoutABurstAPlayerWaitsForTheNextKeyFrame)
{
    Server server(With(&RtmpServiceLimits::Options, RTMP_SERVICE_NO_BURST));
    RtmpSession *session = server.session();
    SendNumbered(session, 0, 15, 100); // the last key frame is number 10
    ScriptedPlayer player(server);
    player.playing("cam");
    SendNumbered(session, 15, 25, 100);
    const Message first = player.frame();
    EXPECT_EQ(NumberOf(first, 100), 20u);
    EXPECT_EQ(first.timestamp, 0u);
    EXPECT_EQ(player.frame().timestamp, kStepMs);
}

TEST(Beginning, APausedPlayerGetsNothingAndGoesOnAtTheLastKeyFrame)
{
    Server server;
    RtmpSession *session = server.session();
    ScriptedPlayer player(server);
    player.playing("cam");
    SendNumbered(session, 0, 5, 100);
    for (uint64_t number = 0; number < 5; number++) {
        ASSERT_EQ(NumberOf(player.frame(), 100), number);
    }
    player.command(PauseCommand(true));
    player.settle();
    SendNumbered(session, 5, 25, 100);
    for (const Message &message : player.settle()) {
        EXPECT_FALSE(IsMedia(message));
    }
    player.command(PauseCommand(false));
    uint64_t time = kStepMs * 4 + 33;
    for (uint64_t number = 20; number < 25; number++, time += kStepMs) {
        const Message message = player.frame();
        ASSERT_EQ(NumberOf(message, 100), number);
        ASSERT_EQ(message.timestamp, time);
    }
    SendNumbered(session, 25, 26, 100);
    EXPECT_EQ(player.frame().timestamp, time);
}

TEST(Beginning, ARepeatedPlayBeginsAtZeroAgainAsOftenAsItIsAsked)
{
    Server server;
    RtmpSession *session = server.session();
    ScriptedPlayer player(server);
    player.playing("cam");
    SendNumbered(session, 0, 15, 100);
    for (uint64_t number = 0; number < 15; number++) {
        ASSERT_EQ(NumberOf(player.frame(), 100), number);
    }
    for (int round = 0; round < 5; round++) {
        player.command(PlayCommand("cam", 10 + round));
        for (uint64_t number = 10; number < 15; number++) { // from the last key frame on
            const Message message = player.frame();
            ASSERT_EQ(NumberOf(message, 100), number);
            ASSERT_EQ(message.headerType, number == 10 ? 0 : 1);
            ASSERT_EQ(message.timestamp, kStepMs * (number - 10));
        }
    }
}
