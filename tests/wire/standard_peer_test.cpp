// Peers that speak RTMP 1.0 as it is written, in front of the default and of a server that allows them.
#include "rtmpcast/player.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace amf0;
using namespace wire;

namespace {

// A command of exactly `length` bytes: "connect" with a member that fills it up.
Bytes ConnectOf(size_t length)
{
    const auto command = [](size_t fill) {
        return Values({String("connect"), Number(1),
                       Object({{"app", String("live")},
                               {"fpad", Boolean(false)},
                               {"audioCodecs", Number(3575)},
                               {"videoCodecs", Number(252)},
                               {"pageUrl", String(std::string(fill, 'p'))}})})
            .bytes;
    };
    return command(length - command(0).size());
}

// What an Acknowledgement says.
uint32_t AcknowledgedBytes(const Message &message)
{
    EXPECT_EQ(message.type, 3);
    EXPECT_EQ(message.chunkStream, 2U);
    EXPECT_EQ(message.stream, 0U);
    EXPECT_EQ(message.payload.size(), 4U);
    uint32_t value = 0;
    for (const uint8_t byte : message.payload) {
        value = value << 8 | byte;
    }
    return value;
}

constexpr uint32_t kHandshakeBytes = 1 + 2 * 1536;

} // namespace

// ---------------------------------------------------------------------------------------------- handshake

TEST(WireStandardPeer, WithAPlainHandshakeConnects)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_HANDSHAKE);
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.connected(kPlainHandshake);
    EXPECT_EQ(server.log.count("6 INFO: PerformHandshake: Client handshake is not signed"), 1U);
    EXPECT_EQ(server.log.count("6 INFO: PerformHandshake: Handshake done"), 1U);
    EXPECT_EQ(server.log.count("3 ERROR"), 0U);
}

TEST(WireStandardPeer, ThatSignsC1AndNotC2Connects)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_HANDSHAKE);
    server.log.clear();
    for (const bool echo : {true, false}) {
        ScriptedPeer peer(server.port);
        peer.connected({.signC2 = false, .echoS1 = echo});
    }
    EXPECT_EQ(server.log.count("6 INFO: PerformHandshake: Handshake done"), 2U);
    EXPECT_EQ(server.log.count("not signed"), 0U);
    EXPECT_EQ(server.log.count("3 ERROR: PerformHandshake"), 0U);
}

TEST(WireStandardPeer, WithAKeyConnectsAsEver)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL);
    for (const int scheme : {1, 2}) {
        ScriptedPeer peer(server.port);
        const HandshakeRecord record = peer.handshake({.scheme = scheme});
        const Bytes key = HmacSha256(Slice(record.c1, DigestOffset(record.c1, scheme), 32), ServerKey());
        EXPECT_TRUE(Same(record.s2, Join({Slice(record.c1, 0, 1504),
                                          HmacSha256(Slice(record.c1, 0, 1504),
                                                     {reinterpret_cast<const char *>(key.data()), 32})})));
    }
}

TEST(WireStandardPeer, IsToldTheVersionInS0)
{
    TestServer server;
    const auto versions = [&server] {
        std::string out;
        for (int i = 0; i < 30; ++i) {
            ScriptedPeer peer(server.port);
            peer.handshake({.stopAfter = 1});
            out += static_cast<char>(peer.socket.receive(1)[0]);
        }
        return out;
    };
    EXPECT_NE(versions(), std::string(30, '\3')) << "one of 128, thirty times: by chance never";
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_VERSION);
    EXPECT_EQ(versions(), std::string(30, '\3'));
}

// ----------------------------------------------------------------------------------------- received chunks

TEST(WireStandardPeer, ConnectsWithACommandThatFillsItsChunks)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_CHUNKS_IN);
    for (const size_t length : {256U, 384U, 512U}) {
        ScriptedPeer peer(server.port);
        peer.handshake();
        ASSERT_EQ(ConnectOf(length).size(), length);
        peer.command(ConnectOf(length));
        EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody())) << length;
        peer.command(CreateStreamCommand());
        EXPECT_EQ(peer.read().type, 20) << length;
    }
}

TEST(WireStandardPeer, IsNotAnsweredByDefaultToACommandThatFillsItsChunks)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CHUNKS_IN);
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(ConnectOf(256));
    // Chunks of another chunk stream are read, so all of the command has been.
    peer.send({.payload = BigEndian(1000, 4), .type = 3, .chunkStream = 2});
    ASSERT_TRUE(server.log.waitFor("Received Protocol control message: ACKNOWLEDGEMENT"));
    EXPECT_EQ(server.log.count("Received Command message: CONNECT"), 0U);
    peer.command(CreateStreamCommand());
    EXPECT_TRUE(server.log.waitFor("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"));
    EXPECT_EQ(server.log.count("3 ERROR: ServeRtmpClient: Error occured while reading RTMP message"), 1U);
}

TEST(WireStandardPeer, IsAnsweredOnItsOwnChunkStream)
{
    TestServer server;
    for (const uint32_t flags : {RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CHUNKS_IN, +RTMP_PLAYERS_CHUNKS_IN}) {
        const bool standard = (flags & RTMP_PLAYERS_CHUNKS_IN) != 0;
        RtmpPlayerSettings(server.server, flags);
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.command(ConnectCommand(), 20);
        EXPECT_EQ(peer.read(6)[4].chunkStream, standard ? 20U : 4U);
        peer.command(CreateStreamCommand(), 63);
        EXPECT_EQ(peer.read().chunkStream, standard ? 63U : 47U);
    }
}

TEST(WireStandardPeer, MaySendMessagesWithoutPayload)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_CHUNKS_IN);
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.send({.payload = {}, .type = 3, .chunkStream = 2});
    peer.socket.send(Hex("c2")); // once more
    peer.send({.payload = {}, .type = 1, .chunkStream = 2});
    peer.command(ConnectCommand());
    EXPECT_EQ(peer.read(6).size(), 6U);
    EXPECT_EQ(server.log.count("Received Protocol control message: ACKNOWLEDGEMENT"), 2U);
    EXPECT_EQ(server.log.count("Client to Server Chunk Size : 128"), 1U);
}

TEST(WireStandardPeer, RepeatsTheExtendedTimestampInEveryChunk)
{
    TestServer server;
    const Bytes time = Hex("01020304");
    const Bytes connect = ConnectCommand(); // 170 bytes
    const Bytes chunks = Join({Hex("03 ffffff 0000aa 14 00000000"), time, Slice(connect, 0, 128), Hex("c3"),
                               time, Slice(connect, 128, 42)});
    const Bytes createStream = Chunks({.payload = CreateStreamCommand(), .headerType = 1});
    {
        RtmpPlayerSettings(server.server, RTMP_PLAYERS_CHUNKS_IN);
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.socket.send(Join({chunks, createStream}));
        EXPECT_TRUE(Same(peer.read(7)[4].payload, ConnectResultBody()));
    }
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CHUNKS_IN);
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.socket.send(chunks);
    EXPECT_TRUE(server.log.waitFor("3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message"))
        << "four bytes of time are taken for payload";
}

TEST(WireStandardPeer, MayAnnounceAnOddChunkSize)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_CHUNKS_IN);
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.setChunkSize(0x80000040);
    peer.outChunkSize = 64;
    peer.send({.payload = Hex("00000000"), .type = 1, .chunkStream = 2});
    peer.command(ConnectCommand());
    EXPECT_EQ(peer.read(6).size(), 6U);
    EXPECT_EQ(server.log.count("Client to Server Chunk Size : 64"), 2U);
}

TEST(WireStandardPeer, MayAbortAMessage)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_CHUNKS_IN);
    ScriptedPeer peer(server.port);
    peer.handshake();
    const Bytes connect = Chunks({.payload = ConnectCommand()});
    const Outgoing abort = {.payload = BigEndian(3, 4), .type = 2, .chunkStream = 2};
    peer.socket.send(Slice(connect, 0, 12 + 128));
    peer.send(abort);
    // The header of what was aborted is there for the next: length and type are not sent again.
    peer.socket.send(Join({Hex("c3"), Slice(connect, 12, connect.size())}));
    EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody()));
    peer.send(abort); // of nothing
    peer.command(CreateStreamCommand());
    EXPECT_EQ(peer.read().type, 20);
}

TEST(WireStandardPeer, AbortsNothingByDefault)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CHUNKS_IN);
    ScriptedPeer peer(server.port);
    peer.handshake();
    const Bytes connect = Chunks({.payload = ConnectCommand()});
    peer.socket.send(Slice(connect, 0, 12 + 128));
    peer.send({.payload = BigEndian(3, 4), .type = 2, .chunkStream = 2});
    peer.socket.send(Slice(connect, 12 + 128, connect.size())); // goes on as if nothing had been said
    EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody()));
}

TEST(WireStandardPeer, MayMixHeadersMessagesAndChunkStreams)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL);
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.handshake(kPlainHandshake);
    const Bytes connect = Chunks({.payload = ConnectOf(256), .chunkStream = 20});
    peer.socket.send(Slice(connect, 0, 12 + 128));
    peer.send({.payload = BigEndian(2500000, 4), .type = 5, .chunkStream = 4}); // not of chunk stream 20
    peer.socket.send(Slice(connect, 12 + 128, connect.size()));
    EXPECT_EQ(peer.read(6).size(), 6U);
    peer.send({.payload = CreateStreamCommand(), .chunkStream = 20, .headerType = 1});
    EXPECT_EQ(peer.read().payload.size(), 29U);
}

// ---------------------------------------------------------------------------------------- acknowledgements

TEST(WireAcknowledgement, ComesWithEveryWindowAlsoInTheMidstOfAMessage)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ACKNOWLEDGE);
    ScriptedPeer peer(server.port);
    peer.handshake();
    // More than a window has come before it is announced.
    peer.send({.payload = BigEndian(1000, 4), .type = 5, .chunkStream = 2});
    EXPECT_EQ(AcknowledgedBytes(peer.read()), kHandshakeBytes + 16);
    // 16 chunks of a message that goes on: a header of 12 bytes, then of 1, and 128 bytes in each.
    const Bytes message = Chunks({.payload = Bytes(128 * 17 + 1), .type = 3, .chunkStream = 5});
    const size_t sixteen = 12 + 15 + 16 * 128;
    peer.socket.send(Slice(message, 0, sixteen));
    const uint32_t first = kHandshakeBytes + 16 + 12 + 7 + 8 * 128; // the first chunk end a window on
    EXPECT_EQ(AcknowledgedBytes(peer.read()), first);
    EXPECT_EQ(AcknowledgedBytes(peer.read()), first + 8 * 129);
    peer.socket.send(Slice(message, sixteen, message.size()));
    peer.command(ConnectCommand());
    const std::vector<Message> replies = peer.read(6);
    EXPECT_TRUE(Same(replies[4].payload, ConnectResultBody()));
    EXPECT_EQ(server.log.count("3 ERROR"), 0U);
}

TEST(WireAcknowledgement, IsNeverSentByDefault)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_ACKNOWLEDGE);
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.send({.payload = BigEndian(1, 4), .type = 5, .chunkStream = 2});
    peer.send({.payload = Bytes(3000), .type = 3, .chunkStream = 2});
    peer.command(ConnectCommand());
    for (const Message &reply : peer.read(6)) {
        EXPECT_NE(reply.type, 3);
    }
}

TEST(WireAcknowledgement, OfEveryChunkDisturbsNoReply)
{
    TestServer server;
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ACKNOWLEDGE);
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.send({.payload = BigEndian(1, 4), .type = 5, .chunkStream = 2});
    EXPECT_EQ(AcknowledgedBytes(peer.read()), kHandshakeBytes + 16);
    const Bytes connect = Chunks({.payload = ConnectCommand()});
    peer.socket.send(connect);
    EXPECT_EQ(AcknowledgedBytes(peer.read()), kHandshakeBytes + 16 + 12 + 128);
    EXPECT_EQ(AcknowledgedBytes(peer.read()), kHandshakeBytes + 16 + connect.size());
    EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody()));
}
