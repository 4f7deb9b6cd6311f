// What a full socket holds up: a message that is half out stays whole, and what is asked for meanwhile comes
// behind it.
#include "steady_server.h"

#include "rtmpcast/media.h"
#include "rtmpcast/service.h"
#include "steady/line.h"
#include "steady/line_end.h"
#include "steady/line_flush.h"

using namespace steady;
using namespace wire;

namespace {

constexpr size_t kBig = 600000;

// FLV video tag header, 5 bytes, in front of the frame.
Bytes VideoBody(const Bytes &frame, bool isKey = true)
{
    return Join({Hex(isKey ? "17 01 000000" : "27 01 000000"), frame});
}

std::string CodeOf(const Message &status)
{
    const std::string text(status.payload.begin(), status.payload.end());
    const size_t at = text.find("NetStream.");
    return at == std::string::npos ? "" : text.substr(at, text.find('\0', at) - at);
}

// A player whose socket is full in the midst of a key frame.
struct HalfSent {
    explicit HalfSent(const RtmpServiceLimits &limits = {})
        : server(limits), session(server.session()), player(server)
    {
        player.playing("cam");
        client = NewestOf(session);
        Narrow(client);
        EXPECT_EQ(SendVideo(session, big, 1000), 0);
        EXPECT_TRUE(WaitForLine(client, [](const SteadyLine &line) {
            return line.WantsRoom != 0 && line.Half.Message != nullptr && line.Half.Out > 0;
        }));
    }
    bool waitForAnswers(size_t count)
    {
        return WaitForLine(client, [&](const SteadyLine &line) {
            size_t waiting = 0;
            for (const SteadyReply *each = line.FirstReply; each != nullptr; each = each->Next) {
                waiting++;
            }
            return waiting == count;
        });
    }
    Server server;
    RtmpSession *session;
    ScriptedPlayer player;
    RtmpClient *client = nullptr;
    const Bytes big = VideoFrame(kBig, kKey);
};

} // namespace

TEST(HalfMessage, APingIsAnsweredBehindIt)
{
    HalfSent half;
    half.player.pingRequest(0x11223344);
    half.player.pingRequest(0x11223345);
    ASSERT_TRUE(half.waitForAnswers(2));
    ASSERT_EQ(SendVideo(half.session, VideoFrame(50, kInter), 1040), 0);
    EXPECT_TRUE(Same(half.player.read().payload, VideoBody(half.big)));
    EXPECT_EQ(half.player.read().payload, Hex("0007 11223344"));
    EXPECT_EQ(half.player.read().payload, Hex("0007 11223345"));
    const Message next = half.player.read();
    EXPECT_EQ(next.payload, VideoBody(VideoFrame(50, kInter), false));
    EXPECT_EQ(next.timestamp, 40u);
}

// The frame behind it does not leave; it comes with the unpause, and the key frame once more in front of it.
TEST(HalfMessage, APauseTakesEffectBehindIt)
{
    HalfSent half;
    half.player.command(PauseCommand(true));
    ASSERT_TRUE(half.waitForAnswers(1));
    ASSERT_EQ(SendVideo(half.session, VideoFrame(50, kInter), 1040), 0);
    EXPECT_TRUE(Same(half.player.read().payload, VideoBody(half.big)));
    EXPECT_EQ(CodeOf(half.player.read()), "NetStream.Pause.Notify");
    EXPECT_TRUE(half.player.settle().empty());
    half.player.command(PauseCommand(false));
    const Message again = half.player.frame();
    EXPECT_TRUE(Same(again.payload, VideoBody(half.big)));
    EXPECT_EQ(again.headerType, 1);
    EXPECT_EQ(again.timestamp, 33u); // one frame behind the 0 of the first
    EXPECT_EQ(half.player.frame().timestamp, 33u + 40);
}

TEST(HalfMessage, ARepeatedPlayBeginsBehindIt)
{
    HalfSent half;
    half.player.command(PlayCommand("cam", 6));
    EXPECT_TRUE(Same(half.player.read().payload, VideoBody(half.big)));
    const Message again = half.player.frame();
    EXPECT_GE(half.player.replies.size(), 5u);
    EXPECT_EQ(again.headerType, 0);
    EXPECT_EQ(again.timestamp, 0u);
    EXPECT_TRUE(Same(again.payload, VideoBody(half.big)));
}

TEST(HalfMessage, ADeleteStreamInTheMidstOfItEndsThePlayer)
{
    HalfSent half;
    half.player.command(DeleteStreamCommand());
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&half.session->ClientCount) == 0; }));
    EXPECT_EQ(SendVideo(half.session, VideoFrame(50, kInter), 1040), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(half.session->Stream->FirstPlayer, nullptr);
    const FinishedMessage *big = half.session->Stream->Slots[0];
    EXPECT_EQ(LoadShared(&big->References), 1u); // the ring's own; the player's half is let go of
}

TEST(HalfMessage, APlayerThatResetsInTheMidstOfItLetsGoOfIt)
{
    HalfSent half;
    half.player.socket.reset();
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&half.session->ClientCount) == 0; }));
    EXPECT_EQ(LoadShared(&half.session->Stream->Slots[0]->References), 1u);
}

TEST(HalfMessage, ItGoesOnWhenThePeerReadsAlthoughNoFurtherFrameComes)
{
    HalfSent half;
    for (uint64_t i = 1; i <= 100; i++) {
        ASSERT_EQ(SendVideo(half.session, VideoFrame(10 + i, kInter), 1000 + 10 * i), 0);
    }
    EXPECT_TRUE(Same(half.player.read().payload, VideoBody(half.big)));
    for (uint64_t i = 1; i <= 100; i++) {
        const Message picture = half.player.read();
        EXPECT_EQ(picture.payload.size(), 15 + i);
        EXPECT_EQ(picture.timestamp, 10 * i);
    }
    EXPECT_TRUE(WaitForLine(half.client, [](const SteadyLine &line) { return line.WantsRoom == 0; }));
}

// Answers that nobody takes do not grow for ever.
TEST(HalfMessage, APlayerThatAsksAndNeverReadsIsEnded)
{
    HalfSent half(With(&RtmpServiceLimits::ReplyBytes, 2000));
    try {
        for (uint32_t i = 0; i < 200; i++) { // 18 bytes and more for each answer
            half.player.pingRequest(i);
        }
    } catch (const PeerError &) {
        // ended by then
    }
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&half.session->ClientCount) == 0; }));
}

TEST(HalfMessage, APlayerThatTakesNothingIsEnded)
{
    HalfSent half(With(&RtmpServiceLimits::StallMilliseconds, 200));
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&half.session->ClientCount) == 0; }));
}

// A full socket that another thread has written to a moment after the keeper looked at the clock.
TEST(HalfMessage, ProgressThatIsNewerThanTheKeepersClockIsNoStall)
{
    HalfSent half;
    ASSERT_TRUE(WaitForLine(half.client, [](const SteadyLine &line) { // the peer's window is closed, too
        return line.WantsRoom != 0 && RtmpGetSystemTime() > line.LastProgress + 100;
    }));
    ScriptedPlayer late(half.server);
    late.connected();
    SteadyLine *looked = nullptr; // the keeper comes to it behind the player's
    {
        SteadyService *service = half.server.server->Service;
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
        UNLOCK_AT_EXIT RtmpMutex *writing = HoldForWriting(half.client);
        half.client->Line->LastProgress = RtmpGetSystemTime() + 100000;
        looked = service->LastLine;
        SetDeadline(looked, STEADY_WAITS_FOR_PLAY, 1);
    }
    EXPECT_TRUE(WaitUntil([&] { return half.server.log.contains("leaves: it did not play in time"); }));
    ASSERT_EQ(LoadShared(&half.session->ClientCount), 1);
    EXPECT_EQ(LoadShared(&half.client->Line->End), STEADY_GOES_ON);
    const SteadyLag lag = LagOf(half.session->Stream);
    EXPECT_EQ(lag.Playing, 1u);
    ASSERT_EQ(SendVideo(half.session, VideoFrame(50, kInter), 1040), 0);
    EXPECT_EQ(LagOf(half.session->Stream).Milliseconds, 40u); // it makes progress
}

// Nobody turns round over a connection that is over.
TEST(HalfMessage, AConnectionThatHasEndedWantsNoRoom)
{
    Server server;
    RtmpSession *session = server.session();
    HandMade mine(server.server);
    mine.join(session);
    for (uint64_t i = 0; i < 2; i++) {
        ASSERT_EQ(SendVideo(session, VideoFrame(kBig, kKey), 40 * i), 0);
    }
    ASSERT_TRUE(LineIs(mine.client, IsFull));
    mine.socket->leave();
    EXPECT_TRUE(
        WaitForLine(mine.client, [](const SteadyLine &line) { return line.End == STEADY_END_BROKEN; }));
    EXPECT_TRUE(LineIs(mine.client, [](const SteadyLine &line) { return line.WantsRoom == 0; }));
}

// The answer still leaves; but only as long as its peer takes something.
TEST(HalfMessage, ARefusedPeerThatTakesNothingIsEndedAllTheSame)
{
    HalfSent half(With(&RtmpServiceLimits::StallMilliseconds, 200));
    SteadyLine *line = half.client->Line;
    {
        SteadyService *service = half.server.server->Service;
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
        EndLine(line, STEADY_END_REFUSED);
        EXPECT_EQ(line->End, STEADY_END_REFUSED);
        EndLine(line, STEADY_END_STALLED);
        EXPECT_EQ(line->End, STEADY_END_STALLED);
        EndLine(line, STEADY_END_REFUSED);
        EXPECT_EQ(line->End, STEADY_END_STALLED);
    }
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&half.session->ClientCount) == 0; }));
}

// What a refused peer had sent behind its request is not served.
TEST(HalfMessage, WhatARefusedPeerHasSentAlreadyIsNotRead)
{
    Server server;
    RtmpSession *session = server.session();
    ScriptedPlayer player(server);
    player.created();
    Bytes requests;
    Append(requests, Chunks({.payload = PlayCommand("nothing")}));
    Append(requests, Chunks({.payload = PlayCommand("cam")}));
    player.socket.send(requests);
    EXPECT_TRUE(server.log.waitFor("leaves: it was refused"));
    RtmpSessionFigures figures;
    EXPECT_EQ(RtmpSessionStatistics(session, &figures), 0);
    EXPECT_EQ(figures.ViewersInAll, 0u);
}
