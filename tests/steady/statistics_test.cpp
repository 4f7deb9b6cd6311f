// The figures of sessions and players on the steady road, against what the players themselves have seen.
#include "steady_server.h"
#include "support/wait.h"
#include "support/wire_replies.h"

#include <arpa/inet.h>
#include <netinet/in.h>

using namespace wire;

namespace {

constexpr size_t kHandshakeSize = 1 + 1536 + 1536;

uint16_t LocalPort(const ByteSocket &socket)
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(socket.descriptor(), reinterpret_cast<struct sockaddr *>(&address), &length), 0);
    return ntohs(address.sin_port);
}

RtmpSessionFigures FiguresOf(RtmpSession *session)
{
    RtmpSessionFigures figures;
    memset(&figures, 0xEE, sizeof figures); // whatever is not filled shows
    EXPECT_EQ(RtmpSessionStatistics(session, &figures), 0);
    return figures;
}

std::vector<RtmpClientFigures> ClientsOf(RtmpSession *session)
{
    std::vector<RtmpClientFigures> clients(16);
    memset(clients.data(), 0xEE, sizeof clients[0] * clients.size());
    const int32_t count = RtmpClientStatistics(session, clients.data(), 16);
    EXPECT_GE(count, 0);
    clients.resize(static_cast<size_t>(count));
    return clients;
}

// Reads by the book: frames of this road are cut in another way than the default's.
struct Reader : ScriptedPeer {
    explicit Reader(uint16_t port) : ScriptedPeer(port)
    {
        chunks.standard = true;
    }
};

// A player that has read everything so far, and how many bytes that was behind the handshake.
struct CountingPlayer {
    explicit CountingPlayer(uint16_t port) : peer(port)
    {
        peer.playing("cam");
    }
    uint64_t received()
    {
        taken += peer.socket.takeRecord().size();
        return taken - kHandshakeSize;
    }
    Reader peer;
    uint64_t taken = 0;
};

} // namespace

TEST(SteadyStatistics, RefuseWhatTheyHaveNoFiguresFor)
{
    RtmpSessionFigures figures;
    memset(&figures, 0xEE, sizeof figures);
    RtmpClientFigures clients[1];
    TestServer exact;
    RtmpSession *session = exact.session("cam");
    EXPECT_EQ(RtmpSessionStatistics(nullptr, &figures), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpSessionStatistics(session, &figures), RTMP_ERR_INVALID_ARGUMENT)
        << "not on the steady road";
    EXPECT_EQ(RtmpClientStatistics(nullptr, clients, 1), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpClientStatistics(session, clients, 1), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(exact.log.count("3 ERROR: RtmpSessionStatistics: Invalid input arguments"), 1U);
    EXPECT_EQ(exact.log.count("3 ERROR: RtmpClientStatistics: Invalid input arguments"), 1U);
    EXPECT_EQ(figures.Viewers, 0xEEEEEEEEU) << "nothing is filled";

    SteadyTestServer steady;
    session = steady.session("cam");
    EXPECT_EQ(RtmpSessionStatistics(session, nullptr), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpClientStatistics(session, nullptr, 1), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpClientStatistics(session, nullptr, 0), 0);
}

TEST(SteadyStatistics, OfASessionThatNobodyWatches)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    const RtmpSessionFigures none = FiguresOf(session);
    EXPECT_EQ(none.Viewers + none.ViewersInAll + none.RingMessages + none.RingMilliseconds +
                  none.SlowestMilliseconds + none.SlowestPictures,
              0U);
    EXPECT_EQ(none.Bytes + none.Frames + none.DroppedFrames + none.RingBytes, 0U);
    for (uint64_t i = 0; i < 4; i++) {
        EXPECT_EQ(SendVideo(session, VideoFrame(1000, i == 0 ? kKeyNal : kInterNal), 1000 + 40 * i),
                  RTMP_ERR_NO_CLIENT);
    }
    const RtmpSessionFigures filled = FiguresOf(session);
    EXPECT_EQ(filled.RingMessages, 4U) << "held for whoever comes";
    EXPECT_EQ(filled.RingMilliseconds, 120U);
    EXPECT_GE(filled.RingBytes, 4000U);
    EXPECT_LE(filled.RingBytes, 4200U);
    EXPECT_EQ(filled.Frames, 0U);
}

TEST(SteadyStatistics, CountWhatPlayersHaveGotAlsoOfThoseThatHaveLeft)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    CountingPlayer stays(server.port);
    uint64_t bytesOfTheOther = 0;
    {
        CountingPlayer leaves(server.port);
        ASSERT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
        ASSERT_EQ(SendVideo(session, VideoFrame(9000, kInterNal), 1040), 0);
        stays.peer.read(2);
        leaves.peer.read(2);
        bytesOfTheOther = leaves.received();
        const RtmpSessionFigures both = FiguresOf(session);
        EXPECT_EQ(both.Viewers, 2U);
        EXPECT_EQ(both.ViewersInAll, 2U);
        EXPECT_EQ(both.Frames, 4U);
        EXPECT_EQ(both.Bytes, stays.received() + bytesOfTheOther);
    }
    ASSERT_TRUE(WaitUntil([session] { return FiguresOf(session).Viewers == 1; }));
    const RtmpSessionFigures one = FiguresOf(session);
    EXPECT_EQ(one.ViewersInAll, 2U);
    EXPECT_EQ(one.Frames, 4U);
    EXPECT_EQ(one.Bytes, stays.received() + bytesOfTheOther);
    EXPECT_EQ(one.DroppedFrames, 0U);
}

TEST(SteadyStatistics, NamePlayersInTheOrderInWhichTheyJoined)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    Reader first(server.port);
    Reader second(server.port);
    Reader third(server.port);
    second.playing("cam");
    first.playing("cam");
    third.created(); // has not joined
    std::vector<RtmpClientFigures> clients = ClientsOf(session);
    ASSERT_EQ(clients.size(), 2U);
    EXPECT_STREQ(clients[0].Address, "127.0.0.1");
    EXPECT_EQ(clients[0].Port, LocalPort(second.socket));
    EXPECT_EQ(clients[1].Port, LocalPort(first.socket));
    EXPECT_EQ(clients[0].State, uint32_t{CLIENT_STATE_PLAY_DONE});
    EXPECT_EQ(clients[0].IsTls, 0);
    EXPECT_LT(clients[0].Milliseconds, 60000U);
#ifndef RTMPCAST_EMULATED // qemu-user does not hand TCP_INFO on
    EXPECT_GT(clients[0].RoundTripMicros, 0U);
#endif

    RtmpClientFigures room[2];
    memset(room, 0xEE, sizeof room);
    EXPECT_EQ(RtmpClientStatistics(session, room, 1), 2) << "there are more than fit";
    EXPECT_EQ(room[0].Port, LocalPort(second.socket));
    EXPECT_EQ(room[1].Port, 0xEEEE) << "behind the room that was given";
    EXPECT_EQ(RtmpClientStatistics(session, nullptr, 0), 2);
}

TEST(SteadyStatistics, ShowAPauseAndWhoIsPausedIsStillAViewer)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    Reader peer(server.port);
    peer.playing("cam");
    peer.command(PauseCommand(true));
    peer.settle();
    EXPECT_EQ(ClientsOf(session)[0].State, uint32_t{CLIENT_STATE_PAUSE_DONE});
    EXPECT_EQ(FiguresOf(session).Viewers, 1U);
}

TEST(SteadyStatistics, OfAPlayerAreWhatItHasRead)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    CountingPlayer player(server.port);
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
    ASSERT_EQ(SendAudio(session, Bytes(50, 7), 1010), 0);
    ASSERT_EQ(SendVideo(session, VideoFrame(9000, kInterNal), 1040), 0);
    player.peer.read(3);
    const std::vector<RtmpClientFigures> clients = ClientsOf(session);
    ASSERT_EQ(clients.size(), 1U);
    EXPECT_EQ(clients[0].Frames, 3U);
    EXPECT_EQ(clients[0].Bytes, player.received());
    EXPECT_EQ(clients[0].DroppedFrames, 0U);
    EXPECT_EQ(clients[0].Restarts, 0U);
    EXPECT_EQ(clients[0].WaitingBytes, 0U);
    EXPECT_EQ(clients[0].LagMilliseconds, 0U);
    EXPECT_EQ(clients[0].LagPictures, 0U);
}

// A player that reads nothing: frames wait for it, then it is behind, and falls out of the ring; then it
// reads, and is told everything but what it missed.
TEST(SteadyStatistics, ShowWhoFallsBehindAndWhatItMisses)
{
    RtmpServiceLimits limits = {};
    limits.RingMilliseconds = 1000;
    SteadyTestServer server(limits);
    RtmpSession *session = server.session("cam", {.audio = false});
    Reader peer(server.port);
    peer.socket.setReceiveBuffer(65536);
    peer.playing("cam", 6); // no AAC header
    steady::Narrow(steady::NewestOf(session));
    uint64_t sent = 0;
    const auto send = [&] {
        const uint8_t nal = sent % 10 == 0 ? kKeyNal : kInterNal;
        ASSERT_EQ(SendVideo(session, VideoFrame(40000, nal), 1000 + 40 * sent), 0);
        sent++;
    };
    while (ClientsOf(session)[0].LagPictures < 5 && sent < 5000) {
        send();
    }
    RtmpClientFigures behind = ClientsOf(session)[0];
    ASSERT_GE(behind.LagPictures, 5U);
    EXPECT_EQ(behind.LagMilliseconds, 40 * behind.LagPictures);
    // One of them may be half out.
    EXPECT_GE(behind.WaitingBytes, 40000U * (behind.LagPictures - 1));
    EXPECT_LE(behind.WaitingBytes, 40100U * (behind.LagPictures + 1));
    EXPECT_EQ(behind.DroppedFrames, 0U);

    for (int i = 0; i < 60; i++) {
        send(); // 2.4 s more than a ring of one
    }
    std::atomic<uint64_t> last = UINT64_MAX;
    uint32_t gaps = 0;
    std::thread reader(OnAThread([&] {
        uint64_t expected = 0;
        while (expected <= last) {
            const uint64_t time = peer.read().timestamp;
            gaps += time != expected;
            expected = time + 40;
        }
    }));
    const bool caughtUp = WaitUntil([&] {
        const RtmpClientFigures now = ClientsOf(session)[0];
        return now.LagPictures == 0 && now.WaitingBytes == 0;
    });
    const RtmpClientFigures after = ClientsOf(session)[0];
    const RtmpSessionFigures figures = FiguresOf(session);
    last = 40 * sent;
    send();
    reader.join();
    EXPECT_TRUE(caughtUp);
    EXPECT_GE(after.Restarts, 1U); // more where the kernel moved bytes between the socket's ends meanwhile
    EXPECT_EQ(after.Restarts, gaps);
    EXPECT_GE(after.DroppedFrames, 20U);
    EXPECT_EQ(after.Frames + after.DroppedFrames, sent - 1) << "each was sent or dropped";
    EXPECT_EQ(figures.DroppedFrames, after.DroppedFrames);
    EXPECT_LE(figures.RingMilliseconds, 1000U);
}

TEST(SteadyStatistics, MayBeAskedForWhilePlayersComeAndGo)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    std::atomic<bool> over = false;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!over) {
            for (const RtmpClientFigures &client : ClientsOf(session)) {
                EXPECT_STREQ(client.Address, "127.0.0.1");
            }
            EXPECT_LE(FiguresOf(session).Viewers, 4U);
        }
    });
    threads.emplace_back([&] {
        for (uint64_t time = 1000; !over; time += 40) {
            (void)SendVideo(session, VideoFrame(1000, kKeyNal), time);
        }
    });
    std::vector<std::thread> players;
    for (int i = 0; i < 4; i++) {
        players.emplace_back([&] {
            for (int round = 0; round < 25; round++) {
                Reader peer(server.port);
                peer.created();
                peer.command(PlayCommand("cam"));
                peer.read(8);
                round % 2 == 0 ? peer.socket.reset() : peer.socket.leave();
            }
        });
    }
    for (std::thread &player : players) {
        player.join();
    }
    over = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(WaitUntil([&] { return ClientsOf(session).empty(); }));
    EXPECT_EQ(FiguresOf(session).ViewersInAll, 100U);
}
