// The listener of RTMP over TLS.
#include "steady_tls/tls_peer.h"
#include "support/wire_replies.h"

using namespace wire;

namespace {

constexpr uint8_t kKey = 0x65;

// A player behind a TLS connection.
struct TlsPlayer {
    explicit TlsPlayer(uint16_t port) : tls(port), peer(tls.takePlain()) {}
    ~TlsPlayer()
    {
        peer.socket.leave();
    }
    TlsPeer tls;
    ScriptedPeer peer;
};

} // namespace

TEST(SteadyTls, APlayerGetsItsFrames)
{
    TlsServer server;
    RtmpSession *session = server.session();
    TlsPlayer player(server.tlsPort);
    player.peer.playing("cam");
    ScriptedPeer plain(server.port);
    plain.playing("cam");
    for (uint64_t i = 0; i < 20; i++) {
        ASSERT_EQ(SendVideo(session, VideoFrame(50000 + i, kKey), 1000 + 40 * i), 0);
    }
    for (uint64_t i = 0; i < 20; i++) {
        const Message overTls = player.peer.read();
        EXPECT_EQ(overTls.payload, plain.read().payload);
        EXPECT_EQ(overTls.timestamp, 40 * i);
    }
    EXPECT_EQ(server.accepted, 1);
    EXPECT_EQ(server.ended, 0);
    player.peer.socket.leave();
    EXPECT_TRUE(WaitUntil([&] { return server.ended == 1; }));
}

TEST(SteadyTls, TheHandshakeHasATimeLimit)
{
    RtmpServiceLimits limits = {};
    limits.HandshakeMilliseconds = 100;
    TlsServer server(limits);
    ByteSocket silent(server.tlsPort);
    EXPECT_TRUE(silent.ends());
    EXPECT_TRUE(server.log.waitForCount("leaves: its handshake took too long", 1));
    EXPECT_EQ(server.accepted, 0);
}

TEST(SteadyTls, TheLimitGoesOnBehindTlsHandshake)
{
    RtmpServiceLimits limits = {};
    limits.HandshakeMilliseconds = 500;
    TlsServer server(limits);
    TlsPlayer player(server.tlsPort); // TLS, and nothing of RTMP
    EXPECT_TRUE(player.peer.socket.ends());
    EXPECT_TRUE(server.log.waitForCount("leaves: its handshake took too long", 1));
}

TEST(SteadyTls, APeerThatSpeaksNoTlsIsRefused)
{
    TlsServer server;
    ScriptedPeer peer(server.tlsPort);
    EXPECT_THROW(peer.handshake(), PeerError);
    EXPECT_TRUE(server.log.waitFor("6 INFO: ServeSteadily: No TLS with 127.0.0.1"));
    EXPECT_EQ(server.accepted, 0);
}

TEST(SteadyTls, ARefusalIsReadBeforeTheEnd)
{
    TlsServer server;
    server.session();
    TlsPlayer player(server.tlsPort);
    player.peer.created();
    player.peer.command(PlayCommand("nobody"));
    EXPECT_EQ(player.peer.read().type, 20);
    EXPECT_EQ(player.peer.read().type, 20);
    EXPECT_TRUE(player.peer.socket.ends());
    EXPECT_TRUE(player.tls.gotNotice());
}

TEST(SteadyTls, LimitsOfConnectionsHoldForIt)
{
    RtmpServiceLimits limits = {};
    limits.MostClients = 1;
    TlsServer server(limits);
    ScriptedPeer first(server.port);
    first.connected();
    ByteSocket second(server.tlsPort);
    EXPECT_TRUE(second.ends());
    EXPECT_TRUE(server.log.waitFor("turned away: 1 clients are connected"));
}

// One in the handshake of TLS, one that plays, and one that takes nothing.
TEST(SteadyTls, TheServerEndsAtOnce)
{
    uint64_t best = UINT64_MAX;
    for (int i = 0; i < 5 && best > 100; i++) {
        TlsServer server;
        RtmpSession *session = server.session();
        ByteSocket silent(server.tlsPort);
        TlsPlayer player(server.tlsPort);
        player.peer.playing("cam");
        for (uint64_t frame = 0; frame < 20; frame++) {
            ASSERT_EQ(SendVideo(session, VideoFrame(500000, kKey), 1000 + 40 * frame), 0);
        }
        const uint64_t begun = MonotonicMs();
        ASSERT_EQ(server.destroy(), 0);
        best = std::min(best, MonotonicMs() - begun);
        EXPECT_TRUE(silent.ends());
    }
    EXPECT_LE(best, 100u);
}

TEST(SteadyTls, APortThatIsTakenLeavesTheServerAsItWas)
{
    TestServer server;
    TestServer other;
    const size_t descriptors = OpenDescriptors();
    const size_t threads = RunningThreads();
    RtmpServiceLimits limits = {};
    limits.TlsPort = other.port;
    EXPECT_EQ(RtmpServiceSettings(server.server, &limits), RTMP_ERR_BIND);
    EXPECT_TRUE(server.log.contains("3 ERROR: RtmpServiceSettings: Cannot bind the socket of TLS to port"));
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads; }));
    EXPECT_EQ(RtmpServiceSettings(server.server, nullptr), 0); // it is not on the steady road yet
    EXPECT_EQ(RtmpServiceSettings(server.server, nullptr), RTMP_ERR_INVALID_ARGUMENT);
}
