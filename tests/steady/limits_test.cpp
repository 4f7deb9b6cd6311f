// How far a client of the steady road may go, and the line of whoever goes further.
#include "net/scope.h"
#include "steady/steady_peers.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace wire;
using steady::With;

namespace {

constexpr uint32_t kSoon = 100;    // milliseconds that a test waits for
constexpr uint32_t kInTime = 1000; // the same; enough for a peer on a busy machine, too
constexpr uint32_t kLate = 60000;  // those that it does not wait for

std::string Leaves(const std::string &why)
{
    return "leaves: " + why;
}

// An acknowledgement: a message that is handled and answered by nothing.
Outgoing Acknowledgement(uint32_t chunkStream, size_t length = 4)
{
    return {.payload = Bytes(length, 1), .type = 3, .chunkStream = chunkStream};
}

Bytes FirstChunk(const Outgoing &message)
{
    return Slice(Chunks(message), 0, 12 + 128);
}

} // namespace

// ---------------------------------------------------------------------------------------- connections

TEST(SteadyLimits, OneClientTooManyIsTurnedAwayUntilAnotherLeaves)
{
    SteadyTestServer server(With(&RtmpServiceLimits::MostClients, 2));
    ScriptedPeer first(server.port);
    ScriptedPeer second(server.port);
    first.connected();
    second.connected();
    ByteSocket third(server.port);
    EXPECT_TRUE(third.ends());
    EXPECT_TRUE(
        server.log.waitFor("6 INFO: AcceptSteadily: 127.0.0.1 is turned away: 2 clients are connected"));
    EXPECT_EQ(server.log.count("turned away"), 1u);
    first.socket.leave();
    ASSERT_TRUE(server.log.waitFor(Leaves("its connection has ended")));
    // Its place is free a moment after the line.
    EXPECT_TRUE(WaitUntil([&] {
        try {
            ScriptedPeer(server.port).handshake();
            return true;
        } catch (const PeerError &) {
            return false;
        }
    }));
}

TEST(SteadyLimits, OneAddressHasItsShare)
{
    SteadyTestServer server(With(&RtmpServiceLimits::MostClientsPerAddress, 1));
    ScriptedPeer first(server.port);
    first.connected();
    ByteSocket again(server.port);
    EXPECT_TRUE(again.ends());
    EXPECT_TRUE(server.log.waitFor(
        "6 INFO: AcceptSteadily: 127.0.0.1 is turned away: 1 clients are connected from this address"));
    ScriptedPeer neighbour(ConnectFrom("127.0.0.2", server.port));
    neighbour.connected();
    EXPECT_EQ(server.log.count("turned away"), 1u);
}

// Two connections of the second port and one of the first are three.
TEST(SteadyLimits, BothPortsCountTogether)
{
    TwoPorts server(With(&RtmpServiceLimits::MostClients, 2));
    ScriptedPeer player(server.port);
    player.connected();
    ByteSocket tunnel(server.tunnelPort); // its listener takes it in front of the next
    EXPECT_TRUE(ByteSocket(server.tunnelPort).ends());
    EXPECT_TRUE(ByteSocket(server.port).ends());
    EXPECT_TRUE(server.log.waitForCount("127.0.0.1 is turned away: 2 clients are connected", 2));
}

// ----------------------------------------------------------------------------------------------- time

TEST(SteadyLimits, AHandshakeThatTakesTooLongEndsTheConnection)
{
    RtmpServiceLimits limits = With(&RtmpServiceLimits::HandshakeMilliseconds, kInTime);
    limits.PlayMilliseconds = kLate;
    SteadyTestServer server(limits);
    ScriptedPeer quick(server.port);
    quick.connected();
    ByteSocket silent(server.port);
    EXPECT_TRUE(silent.ends());
    EXPECT_TRUE(server.log.waitForCount(Leaves("its handshake took too long"), 1));
    ScriptedPeer half(server.port);
    try {
        half.handshake({.stopAfter = 1537});
    } catch (const PeerError &) { // on a slow machine its time is up already
    }
    EXPECT_TRUE(ReadsToTheEnd(half.socket));
    EXPECT_TRUE(server.log.waitForCount(Leaves("its handshake took too long"), 2));
    quick.command(CreateStreamCommand()); // whoever was in time has more of it
    quick.read();
}

TEST(SteadyLimits, WhoeverDoesNotPlayInTimeIsEndedAndAPlayerIsNot)
{
    SteadyTestServer server(With(&RtmpServiceLimits::PlayMilliseconds, kInTime));
    RtmpSession *session = server.session();
    ScriptedPeer player(server.port);
    ScriptedPeer paused(server.port);
    player.playing("cam");
    paused.playing("cam");
    paused.command(PauseCommand(true));
    ScriptedPeer idle(server.port);
    idle.handshake();
    EXPECT_TRUE(ReadsToTheEnd(idle.socket)); // two players were there before it, and are still
    EXPECT_TRUE(server.log.waitForCount(Leaves("it did not play in time"), 1));
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
    EXPECT_EQ(player.read().payload.size(), 105u);
    RtmpSessionFigures figures = {};
    ASSERT_EQ(RtmpSessionStatistics(session, &figures), 0);
    EXPECT_EQ(figures.Viewers, 2u);
}

TEST(SteadyLimits, APlayerThatTakesNothingForTooLongIsEnded)
{
    SteadyTestServer server(With(&RtmpServiceLimits::StallMilliseconds, 300));
    RtmpSession *session = server.session();
    ScriptedPeer stopped(server.port);
    stopped.playing("cam");
    const Bytes frame = VideoFrame(500000, kKeyNal);
    uint64_t time = 0;
    EXPECT_TRUE(WaitUntil([&] {
        (void)SendVideo(session, frame, time += 40); // until the socket is full, and then for a while
        return server.log.contains(Leaves("it took nothing for too long"));
    }));
    EXPECT_TRUE(ReadsToTheEnd(stopped.socket));
}

// ------------------------------------------------------------------------------------------- answers

TEST(SteadyLimits, APeerThatAsksAndTakesNoAnswerIsEnded)
{
    SteadyTestServer server(With(&RtmpServiceLimits::ReplyBytes, 4096));
    const int least = 1; // for its client's socket: a thousand pings fill it, not a hundred thousand
    ASSERT_EQ(setsockopt(server.server->RtmpSocket, SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
    server.session();
    ScriptedPeer peer(server.port);
    peer.socket.setReceiveBuffer(4096);
    const int few = 16384;
    ASSERT_EQ(setsockopt(peer.socket.descriptor(), SOL_SOCKET, SO_SNDBUF, &few, sizeof few), 0);
    peer.playing("cam");
    Bytes pings;
    for (uint32_t i = 0; i < 2000; i++) {
        Append(pings,
               Chunks({.payload = Join({BigEndian(6, 2), BigEndian(i, 4)}), .type = 4, .chunkStream = 2}));
    }
    try {
        while (!server.log.contains(Leaves("too many answers wait for it"))) {
            peer.socket.send(pings);
        }
    } catch (const PeerError &error) {
        EXPECT_NE(error.code, 0) << error.what(); // the connection is gone
    }
    EXPECT_TRUE(server.log.waitFor(Leaves("too many answers wait for it"))) << server.log.lines().back();
}

// ---------------------------------------------------------------------------------- what is received

class SteadyReceiveLimits : public testing::TestWithParam<uint32_t> {
  protected:
    // Its peers' chunks are read by the exact reader, or by that of RTMP 1.0.
    void admit(TestServer &server)
    {
        ASSERT_EQ(RtmpPlayerSettings(server.server, GetParam()), 0);
    }
};

TEST_P(SteadyReceiveLimits, BytesOfBegunMessagesAreBounded)
{
    SteadyTestServer server(With(&RtmpServiceLimits::AssemblyBytes, 1000));
    admit(server);
    ScriptedPeer peer(server.port);
    peer.connected();
    for (uint32_t i = 0; i < 5; i++) {
        peer.send(Acknowledgement(3 + i, 900)); // one after the other, each is within the limit
    }
    peer.socket.send(FirstChunk(Acknowledgement(8, 900)));
    peer.socket.send(FirstChunk(Acknowledgement(9, 200)));
    EXPECT_TRUE(ReadsToTheEnd(peer.socket));
    EXPECT_TRUE(server.log.waitFor(Leaves("it began more message bytes than it may")));
    EXPECT_EQ(server.log.count("ACKNOWLEDGEMENT"), 5u);
}

TEST_P(SteadyReceiveLimits, AMessageLongerThanTheLimitIsNotBegun)
{
    SteadyTestServer server;
    admit(server);
    ScriptedPeer peer(server.port);
    peer.connected();
    peer.socket.send(Slice(Chunks(Acknowledgement(3, 300000)), 0, 12)); // the header is enough
    EXPECT_TRUE(ReadsToTheEnd(peer.socket));
    EXPECT_TRUE(server.log.waitFor(Leaves("it began more message bytes than it may")));
}

TEST_P(SteadyReceiveLimits, ChunkStreamsAreBounded)
{
    SteadyTestServer server(With(&RtmpServiceLimits::ChunkStreams, 4));
    admit(server);
    ScriptedPeer peer(server.port);
    peer.connected(); // on chunk stream 3
    for (uint32_t round = 0; round < 3; round++) {
        for (uint32_t stream = 3; stream < 7; stream++) {
            peer.send(Acknowledgement(stream));
        }
    }
    peer.send(Acknowledgement(7));
    EXPECT_TRUE(ReadsToTheEnd(peer.socket));
    EXPECT_TRUE(server.log.waitFor(Leaves("it used more chunk streams than it may")));
    EXPECT_EQ(server.log.count("ACKNOWLEDGEMENT"), 12u);
}

// Without the steady road there is no limit.
TEST_P(SteadyReceiveLimits, TheDefaultRoadHasNone)
{
    TestServer server;
    admit(server);
    ScriptedPeer peer(server.port);
    peer.connected();
    for (uint32_t stream = 3; stream < 15; stream++) {
        peer.socket.send(FirstChunk(Acknowledgement(stream + (stream == 3 ? 29 : 0), 300000)));
    }
    peer.command(CreateStreamCommand(), 3);
    peer.read();
}

// The thread of a connection has a small stack: values as deep as they may be fit, and deeper ones are
// refused.
TEST_P(SteadyReceiveLimits, DeeplyNestedValuesFitTheStack)
{
    SteadyTestServer server;
    admit(server);
    for (const size_t depth : {1000, 1023, 1024, 1025, 60000}) {
        Bytes connect = Hex("02 0007 'connect' 00 3FF0000000000000");
        for (size_t i = 0; i < depth; i++) {
            Append(connect, i == 0 ? Hex("03") : Hex("0001 'a' 03"));
        }
        for (size_t i = 0; i < depth; i++) {
            Append(connect, Hex("000009"));
        }
        connect.resize(std::min(connect.size(), size_t{200001})); // no multiple of the chunk size
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.command(connect);
        peer.socket.finish();
        EXPECT_TRUE(ReadsToTheEnd(peer.socket)) << depth;
    }
    ScriptedPeer(server.port).connected();
}

INSTANTIATE_TEST_SUITE_P(Readers, SteadyReceiveLimits, testing::Values(RTMP_PLAYERS_EXACT, RTMP_PLAYERS_ALL),
                         [](const testing::TestParamInfo<uint32_t> &row) {
                             return row.param == RTMP_PLAYERS_EXACT ? "Exact" : "Standard";
                         });

// ------------------------------------------------------------------------------------ the second port

TEST(SteadyTunnel, AConnectionIsReadAndEndsWhenItsTimeIsUp)
{
    TwoPorts server(With(&RtmpServiceLimits::TunnelMilliseconds, kSoon));
    const size_t threads = RunningThreads();
    ByteSocket first(server.tunnelPort);
    first.send(Bytes(100000, 'x'));
    EXPECT_TRUE(ReadsToTheEnd(first));
    EXPECT_TRUE(server.log.waitFor(Leaves("its time on the second port is up")));
    first.leave();
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads; }));
}

TEST(SteadyTunnel, AConnectionEndsWithItsPeer)
{
    TwoPorts server(With(&RtmpServiceLimits::TunnelMilliseconds, kLate));
    const size_t descriptors = OpenDescriptors();
    const size_t threads = RunningThreads();
    for (int i = 0; i < 20; i++) {
        ByteSocket(server.tunnelPort).send(Bytes(100, 'x'));
    }
    EXPECT_TRUE(server.log.waitForCount(Leaves("its connection has ended"), 20));
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads && OpenDescriptors() <= descriptors; }));
}

// ------------------------------------------------------------------------------ sockets of connections

namespace {

int OptionOf(int fd, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(fd, level, name, &value, &length);
    return value;
}

} // namespace

TEST(SteadyLimits, SocketsAreKeptWell)
{
    SteadyTestServer server(With(&RtmpServiceLimits::StallMilliseconds, 12345));
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock); // the client stays
    const int fd = session->ClientListHead->Socket;
    EXPECT_EQ(OptionOf(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(OptionOf(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(OptionOf(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), 12345);
    EXPECT_EQ(OptionOf(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT), 256 << 10);
}
