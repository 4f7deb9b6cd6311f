#include "support/scripted_peer.h"
#include "support/test_server.h"

using namespace wire;

namespace {

using Lines = std::vector<std::string>;

// What the end of a client that never sent a message adds to the log.
Lines RefusedHandshake(const std::string &reason)
{
    return {"6 INFO: ServeRtmpClient: Serve RTMP client thread created",
            "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 0",
            "3 ERROR: PerformHandshake: " + reason,
            "3 ERROR: ServeRtmpClient: Handshaking failed",
            "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
            "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
            "3 ERROR: RemoveRecvPkt: No Rtmp Recv stream packet list",
            "3 ERROR: DestroyRtmpClient: Cannot remove packets in receive packet list",
            "3 ERROR: ServeRtmpClient: Destroying rtmp client failed",
            "3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"};
}

void ExpectGenuineServer(const HandshakeRecord &record)
{
    EXPECT_LE(record.s0[0], 0x7F);
    EXPECT_TRUE(Matches(Slice(record.s1, 4, 4), "03 05 01 01"));
    const size_t offset = DigestOffset(record.s1, 1);
    EXPECT_TRUE(
        Same(Slice(record.s1, offset, 32), PacketDigest(record.s1, offset, ServerKey().substr(0, 36))));
    EXPECT_TRUE(Same(Slice(record.s2, 0, 1504), Slice(record.c1, 0, 1504)));
}

void ExpectSignature(const HandshakeRecord &record, int scheme)
{
    const Bytes digest = Slice(record.c1, DigestOffset(record.c1, scheme), 32);
    const Bytes key = HmacSha256(digest, ServerKey());
    const std::string_view keyText(reinterpret_cast<const char *>(key.data()), key.size());
    EXPECT_TRUE(Same(Slice(record.s2, 1504, 32), HmacSha256(Slice(record.s2, 0, 1504), keyText)));
}

} // namespace

class WireHandshake : public testing::TestWithParam<int> {};

TEST_P(WireHandshake, AcceptsADigestAtEitherPlaceAndSignsItsOwnPackets)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    const HandshakeRecord record = peer.handshake({.scheme = GetParam()});
    ExpectGenuineServer(record);
    ExpectSignature(record, GetParam());
    EXPECT_TRUE(server.log.waitFor(" : 2"));
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}),
              (Lines{"6 INFO: ServeRtmpClient: Serve RTMP client thread created",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 0",
                     "6 INFO: PerformHandshake: Handshake done",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 2"}));
}

INSTANTIATE_TEST_SUITE_P(Schemes, WireHandshake, testing::Values(1, 2));

TEST(WireHandshakeTime, S1CarriesTheServersClock)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    timespec before = {}, after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const HandshakeRecord record = peer.handshake();
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto ms = [](const timespec &t) {
        return static_cast<uint32_t>(static_cast<uint64_t>(t.tv_sec) * 1000 +
                                     static_cast<uint64_t>(t.tv_nsec) / 1000000);
    };
    const uint32_t time = static_cast<uint32_t>(record.s1[0]) << 24 |
                          static_cast<uint32_t>(record.s1[1]) << 16 |
                          static_cast<uint32_t>(record.s1[2]) << 8 | record.s1[3];
    EXPECT_LE(time - ms(before), ms(after) - ms(before));
}

TEST(WireHandshakePieces, BytesMayArriveOneByOne)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    ExpectGenuineServer(peer.handshake({.pieceSize = 1}));
    peer.command(ConnectCommand());
    EXPECT_EQ(peer.read(6).size(), 6U);
}

TEST(WireHandshakeRefusals, AnotherVersionIsRefusedAndShown)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.handshake({.version = 6, .stopAfter = 1});
    ASSERT_TRUE(server.waitForClientsToEnd() && server.log.waitFor("Exiting ServeRtmpClient thread"));
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}),
              RefusedHandshake("RTMP protocol version (6) not supported"));
    EXPECT_FALSE(peer.socket.ends(0)) << "the descriptor stays open";
}

TEST(WireHandshakeRefusals, APlainHandshakeIsRefusedAfterS1)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.handshake({.scheme = 0, .stopAfter = 1537 - 1}); // all but the last byte of C1: no S2 is waited for
    peer.socket.receive(1 + 1536);
    peer.socket.send({0x00});
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}),
              RefusedHandshake("Cannot varify the client digest"));
    EXPECT_FALSE(peer.socket.ends(0)) << "nothing more is sent, and the descriptor stays open";
}

TEST(WireHandshakeRefusals, AC2WithoutTheSignatureIsRefused)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.handshake({.signC2 = false});
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}),
              RefusedHandshake("Client is not a genuine Adobe"));
}

TEST(WireHandshakeRefusals, APeerThatLeavesIsNamedByTheReadThatMissedIt)
{
    struct Row {
        size_t sent;
        const char *line;
    };
    static const Row rows[] = {{0, "Cannot read C0 packet from client"},
                               {1, "Cannot read C1 packet from client"},
                               {1536, "Cannot read C1 packet from client"},
                               {1537, "Cannot read C2 packet from client"},
                               {3072, "Cannot read C2 packet from client"}};
    TestServer server;
    for (const Row &row : rows) {
        server.log.clear();
        ScriptedPeer peer(server.port);
        peer.handshake({.stopAfter = row.sent});
        peer.socket.finish();
        ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread")) << row.sent;
        Lines lines = RefusedHandshake(row.line);
        lines.insert(lines.begin() + 2, "6 INFO: RtmpReadBytes: Connection was closed by peer");
        EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}), lines) << row.sent;
        ASSERT_TRUE(server.waitForClientsToEnd());
    }
}
