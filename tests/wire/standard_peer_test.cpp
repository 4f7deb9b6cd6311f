// Peers that speak RTMP 1.0 as it is written, in front of the default and of a server that allows them.
#include "rtmpcast/player.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace wire;

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
