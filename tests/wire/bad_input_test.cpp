// Peers that send what they should not, or stop in the middle: each loses its own connection, and a player
// beside them notices nothing.
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <algorithm>
#include <memory>
#include <random>

using namespace wire;

namespace {

// A player that must go on receiving frames whatever the others do.
class Watched {
  public:
    Watched() : session_(server.session("cam")), watcher_(server.port)
    {
        watcher_.playing("cam");
        server.log.clear();
    }
    // One more frame reaches the player.
    void expectFrame()
    {
        time_ += 40;
        const Bytes frame = VideoFrame(64, OrdinaryNal(), static_cast<uint8_t>(time_ / 40));
        EXPECT_EQ(SendVideo(session_, frame, time_), 0);
        EXPECT_TRUE(Same(Slice(watcher_.read().payload, 5, 64), frame));
    }
    // Lets the server keep up with `count` connections: its backlog is short, and a full one costs a second.
    void keepPace(size_t count)
    {
        EXPECT_TRUE(server.log.waitForAtLeast("Exiting ServeRtmpClient thread", count < 8 ? 0 : count - 7));
    }
    // Everybody but the player has gone, with `reason` in the log once for each of `count`.
    void expectGone(const std::string &reason, size_t count)
    {
        EXPECT_TRUE(server.log.waitForCount("Exiting ServeRtmpClient thread", count))
            << server.log.count("Exiting ServeRtmpClient thread") << " of " << count;
        EXPECT_EQ(server.log.count(reason), count) << reason;
    }

    TestServer server;

  private:
    RtmpSession *session_;
    ScriptedPeer watcher_;
    uint64_t time_ = 1000;
};

Bytes RandomBytes(std::mt19937 &generator, size_t count)
{
    Bytes bytes(count);
    for (uint8_t &byte : bytes) {
        byte = static_cast<uint8_t>(generator());
    }
    return bytes;
}

// Every form of a chunk's header: type, basic header, timestamp with and without extension.
std::vector<Outgoing> EveryHeaderForm()
{
    static const uint32_t chunkStreams[] = {0, 5, 70, 500}; // by bytes of the basic header
    std::vector<Outgoing> forms;
    for (int type = 0; type < 4; ++type) {
        for (int basic = 1; basic < 4; ++basic) {
            for (const uint32_t time : {0x10U, 0x1000000U}) {
                if (type < 3 || time == 0x10U) {
                    forms.push_back({.payload = {0, 0, 0, 1},
                                     .type = 3,
                                     .chunkStream = chunkStreams[basic],
                                     .headerType = type,
                                     .basicForm = basic,
                                     .timestamp = time});
                }
            }
        }
    }
    return forms;
}

} // namespace

TEST(WireBadInput, HandshakesCutAnywhere)
{
    Watched watched;
    std::vector<size_t> cuts = {0, 1, 2, 1535, 1536, 1537, 1538, 3071, 3072};
    for (size_t cut = 3; cut < 3072; cut += 29) {
        cuts.push_back(cut);
    }
    size_t peers = 0;
    for (const size_t cut : cuts) {
        ScriptedPeer peer(watched.server.port);
        peer.handshake({.seed = static_cast<uint32_t>(cut), .stopAfter = cut});
        peer.socket.finish();
        watched.keepPace(++peers);
    }
    watched.expectGone("3 ERROR: ServeRtmpClient: Handshaking failed", cuts.size());
    watched.expectFrame();
}

TEST(WireBadInput, HandshakesOfRandomBytes)
{
    Watched watched;
    std::mt19937 generator(20240607);
    constexpr size_t kPeers = 150;
    for (size_t i = 0; i < kPeers; ++i) {
        ScriptedPeer peer(watched.server.port);
        Bytes bytes = RandomBytes(generator, generator() % 4000);
        if (i % 2 == 0 && !bytes.empty()) {
            bytes[0] = 3;
        }
        peer.socket.send(bytes);
        peer.socket.finish();
        watched.keepPace(i + 1);
    }
    watched.expectGone("3 ERROR: ServeRtmpClient: Handshaking failed", kPeers);
    watched.expectFrame();
}

TEST(WireBadInput, ASignedHandshakeWithOneBitTurned)
{
    Watched watched;
    constexpr size_t kPeers = 40;
    std::mt19937 generator(7);
    for (size_t i = 0; i < kPeers; ++i) {
        ScriptedPeer peer(watched.server.port);
        HandshakeRecord record = peer.handshake({.scheme = i % 2 == 0 ? 1 : 2, .stopAfter = 1537});
        Bytes c2 = RandomBytes(generator, 1536);
        const Bytes key = HmacSha256(Slice(record.s1, DigestOffset(record.s1, 1), 32), PlayerKey());
        const Bytes signature = HmacSha256(
            Slice(c2, 0, 1504), std::string_view(reinterpret_cast<const char *>(key.data()), key.size()));
        std::copy(signature.begin(), signature.end(), c2.end() - 32);
        c2[generator() % 1536] ^= static_cast<uint8_t>(1 << generator() % 8);
        peer.socket.send(c2);
        peer.socket.finish();
    }
    watched.expectGone("3 ERROR: PerformHandshake: Client is not a genuine Adobe", kPeers);
    watched.expectFrame();
}

TEST(WireBadInput, EveryHeaderFormIsReadWhenItIsWhole)
{
    Watched watched;
    size_t heard = 0;
    for (const Outgoing &form : EveryHeaderForm()) {
        ScriptedPeer peer(watched.server.port);
        peer.handshake();
        Outgoing first = form; // what shorter headers inherit from
        first.headerType = 0;
        peer.send(first);
        peer.send(form);
        heard += 2;
        ASSERT_TRUE(watched.server.log.waitForCount("message: ACKNOWLEDGEMENT", heard))
            << "type " << form.headerType << ", basic header of " << form.basicForm;
    }
    watched.expectFrame();
}

TEST(WireBadInput, EveryHeaderFormCutAtEveryByte)
{
    Watched watched;
    size_t peers = 0;
    for (const Outgoing &form : EveryHeaderForm()) {
        Outgoing first = form;
        first.headerType = 0;
        const Bytes before = Chunks(first);
        const Bytes bytes = Chunks(form);
        for (size_t cut = 0; cut < bytes.size(); ++cut) {
            ScriptedPeer peer(watched.server.port);
            peer.handshake();
            peer.socket.send(Join({before, Slice(bytes, 0, cut)}));
            peer.socket.finish();
            watched.keepPace(++peers);
        }
    }
    watched.expectGone("3 ERROR: ReadRtmpMessage: Reading bytes failed", peers);
    watched.expectFrame();
}

TEST(WireBadInput, ShortHeadersOfUnknownChunkStreams)
{
    Watched watched;
    size_t peers = 0;
    for (const int type : {2, 3}) {
        for (const uint32_t chunkStream : {3U, 13U}) {
            ScriptedPeer peer(watched.server.port);
            peer.connected();
            peer.send(
                {.payload = {1}, .chunkStream = chunkStream == 3 ? 6 : chunkStream, .headerType = type});
            ++peers;
            ASSERT_TRUE(watched.server.log.waitForCount("Exiting ServeRtmpClient thread", peers));
        }
    }
    watched.expectGone("3 ERROR: ReadRtmpMessage: Getting payload header size failed", peers);
    watched.expectFrame();
}

TEST(WireBadInput, AMessageWithoutPayloadEndsTheConnection)
{
    Watched watched;
    size_t peers = 0;
    for (const uint8_t type : {3, 8, 20, 0}) {
        ScriptedPeer peer(watched.server.port);
        peer.handshake();
        peer.send({.payload = {}, .type = type});
        peer.socket.finish();
        ++peers;
    }
    watched.expectGone("3 ERROR: ReadRtmpMessage: Reading bytes failed", peers);
    watched.expectFrame();
}

TEST(WireBadInput, LengthsThatLie)
{
    Watched watched;
    static const char *lies[] = {
        "03 000000 ffffff 14 00000000 02", // 16 MB announced, one byte sent
        "02 000000 000004 01 00000000 ffffffff 03 000000 ffffff 14 00000000 02", // and chunks of 4 GB
        "02 000000 000004 01 00000000 00000000 03 000000 000010 14 00000000 02", // chunks of nothing
        "03 000000 000005 14 00000000 02 ffff 63 6f",        // a name longer than the message
        "03 000000 00000b 14 00000000 02 0007 'connect' 00", // a number without its bytes
    };
    size_t peers = 0;
    for (const char *lie : lies) {
        ScriptedPeer peer(watched.server.port);
        peer.handshake();
        peer.socket.send(Hex(lie));
        peer.socket.finish();
        ++peers;
    }
    watched.expectGone("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread", peers);
    watched.expectFrame();
}

TEST(WireBadInput, ConnectCutAtEveryByteOfItsValues)
{
    Watched watched;
    const Bytes whole = ConnectCommand();
    size_t peers = 0;
    for (size_t length = 1; length <= whole.size(); ++length) {
        ScriptedPeer peer(watched.server.port);
        peer.handshake();
        peer.command(Slice(whole, 0, length));
        peer.socket.finish();
        ++peers;
    }
    watched.expectGone("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread", peers);
    watched.expectFrame();
}

TEST(WireBadInput, RandomBytesBehindAGoodHandshake)
{
    Watched watched;
    std::mt19937 generator(99);
    constexpr size_t kPeers = 200;
    for (size_t i = 0; i < kPeers; ++i) {
        ScriptedPeer peer(watched.server.port);
        peer.created();
        try {
            for (int part = 0; part < 4; ++part) {
                peer.socket.send(RandomBytes(generator, 1 + generator() % 300));
            }
            peer.socket.finish();
        } catch (const PeerError &) {
            // refused already
        }
    }
    watched.expectGone("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread", kPeers);
    watched.expectFrame();
}

TEST(WireBadInput, CommandsWithOneByteChanged)
{
    Watched watched;
    std::mt19937 generator(1234);
    static const Bytes commands[] = {ConnectCommand(), CreateStreamCommand(), PlayCommand("cam"),
                                     PauseCommand(true), DeleteStreamCommand()};
    constexpr size_t kPeers = 200;
    for (size_t i = 0; i < kPeers; ++i) {
        ScriptedPeer peer(watched.server.port);
        peer.handshake();
        try {
            for (const Bytes &command : commands) {
                Bytes changed = command;
                changed[generator() % changed.size()] = static_cast<uint8_t>(generator());
                peer.command(changed);
            }
            peer.socket.finish();
        } catch (const PeerError &) {
            // refused already
        }
    }
    EXPECT_TRUE(watched.server.log.waitFor([&] {
        return watched.server.log.count("Exiting ServeRtmpClient thread") +
                   watched.server.log.count("Exiting Server RtmpClient thread") ==
               kPeers;
    }));
    watched.expectFrame();
}
