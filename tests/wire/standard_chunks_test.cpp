// Chunks for players of RTMP_PLAYERS_CHUNKS_OUT, read as RTMP 1.0 has them; and what such a reader makes of
// the default.
#include "rtmpcast/player.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace wire;

namespace {

// A player that reads by the standard, served with these rules.
struct StandardPlayer {
    StandardPlayer(TestServer &server, uint32_t flags) : peer(Connect(server, flags))
    {
        peer.chunks.standard = true;
    }
    static uint16_t Connect(TestServer &server, uint32_t flags)
    {
        RtmpPlayerSettings(server.server, flags);
        return server.port;
    }
    ScriptedPeer peer;
};

// Bytes that are told apart wherever they are cut.
Bytes PatternBytes(size_t length, size_t number)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(number * 31 + i * 7 + i / 251);
    }
    return bytes;
}

// The same as a picture that is no key frame.
Bytes InterPicture(size_t length, size_t number)
{
    Bytes frame = PatternBytes(length, number);
    if (length > 4) {
        frame[4] = 0x41;
    }
    return frame;
}

Bytes InterBody(const Bytes &frame)
{
    return ::Join({Hex("27 01 000000"), frame});
}

} // namespace

class WireStandardChunks : public testing::TestWithParam<int> {};

// Among the lengths are those of the sequence headers, against which the default decides.
TEST_P(WireStandardChunks, FramesOfEveryLengthArriveAsTheyWere)
{
    TestServer server(GetParam());
    RtmpSession *session = server.session();
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.playing("cam");
    size_t sounds = 0;
    for (size_t number = 0; number < 3 * 300; ++number) {
        const uint64_t time = 1000 + number * 40;
        EXPECT_EQ(SendAudio(session, PatternBytes(number / 3 + 1, number), time - 20), 0);
        EXPECT_EQ(SendVideo(session, InterPicture(number / 3 + 1, number), time), 0);
        Message message = player.peer.read();
        for (; message.type == 8; message = player.peer.read(), ++sounds) {
            ASSERT_TRUE(Same(message.payload, Join({Hex("af 01"), PatternBytes(sounds / 3 + 1, sounds)})));
        }
        ASSERT_EQ(message.type, 9);
        ASSERT_TRUE(Same(message.payload, InterBody(InterPicture(number / 3 + 1, number))));
    }
    EXPECT_GE(sounds, 3 * 300U - 1);
}

INSTANTIATE_TEST_SUITE_P(AtChunkSizes, WireStandardChunks, testing::Values(128, 1001, 4096));

// One frame a second of a picture that does not change: as long as the sequence header, and with another
// length in between.
TEST(WireStandardPicture, AsLongAsTheSequenceHeaderArrivesAsItWas)
{
    TestServer server;
    RtmpSession *session = server.session();
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.playing("cam");
    const size_t still = AvcHeaderBody().size() - 5;
    uint64_t time = 1000;
    for (const size_t length : {still + 80, still, still, still + 80, still}) {
        EXPECT_EQ(SendVideo(session, VideoFrame(length), time), 0);
        EXPECT_TRUE(Same(player.peer.read().payload, InterBody(VideoFrame(length))));
        time += 1000;
    }
}

// Sound has a chunk stream of its own, where its sequence header is the first message.
static void SendThreeSounds(RtmpSession *session)
{
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);
    EXPECT_EQ(SendAudio(session, PatternBytes(50, 1), 1001), 0);
    EXPECT_EQ(SendAudio(session, PatternBytes(2, 2), 1002), 0); // as long as the sequence header
    EXPECT_EQ(SendAudio(session, PatternBytes(60, 3), 1003), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 61000), 0);
}

TEST(WireStandardSound, AsLongAsTheSequenceHeaderIsGarbledByTheDefault)
{
    TestServer server;
    RtmpSession *session = server.session();
    StandardPlayer player(server, RTMP_PLAYERS_EXACT);
    player.peer.playing("cam");
    SendThreeSounds(session);
    player.peer.read();
    EXPECT_TRUE(Same(player.peer.read().payload, Join({Hex("af 01"), PatternBytes(50, 1)})));
    const Message garbled = player.peer.read();
    EXPECT_EQ(garbled.payload.size(), 52U) << "the length of the frame before";
    EXPECT_TRUE(Same(Slice(garbled.payload, 2, 2), PatternBytes(2, 2)));
    EXPECT_EQ(garbled.payload[4], 0x46) << "the next one's header, taken for sound";
}

TEST(WireStandardSound, AsLongAsTheSequenceHeaderArrivesAsItWas)
{
    TestServer server;
    RtmpSession *session = server.session();
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.playing("cam");
    SendThreeSounds(session);
    player.peer.read();
    EXPECT_TRUE(Same(player.peer.read().payload, Join({Hex("af 01"), PatternBytes(50, 1)})));
    EXPECT_TRUE(Same(player.peer.read().payload, Join({Hex("af 01"), PatternBytes(2, 2)})));
    EXPECT_TRUE(Same(player.peer.read().payload, Join({Hex("af 01"), PatternBytes(60, 3)})));
    EXPECT_EQ(player.peer.read().type, 9);
}

// The exact player's every header is checked by the strict reader.
TEST(WireStandardPlayer, AnExactPlayerBesideGetsItsExactHeaders)
{
    TestServer server(200);
    RtmpSession *session = server.session();
    StandardPlayer cured(server, RTMP_PLAYERS_CHUNKS_OUT);
    cured.peer.playing("cam");
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_EXACT);
    ScriptedPeer exact(server.port);
    exact.playing("cam");
    const size_t still = AvcHeaderBody().size() - 5;
    struct Row {
        size_t length;
        int exact; // type 1 behind the status that its chunk stream began with
        int standard;
    };
    const Row rows[] = {{500, 1, 1}, {still, 1, 1}, {still, 1, 3}, {still, 1, 3}, {500, 1, 1}, {500, 1, 3}};
    uint64_t time = 1000;
    for (const Row &row : rows) {
        EXPECT_EQ(SendVideo(session, VideoFrame(row.length), time), 0);
        const Message strict = exact.read();
        const Message standard = cured.peer.read();
        EXPECT_EQ(strict.headerType, row.exact);
        EXPECT_EQ(standard.headerType, row.standard);
        EXPECT_TRUE(Same(strict.payload, InterBody(VideoFrame(row.length))));
        EXPECT_TRUE(Same(standard.payload, strict.payload));
        time += 40;
    }
}

TEST(WireStandardPlayer, AnExtendedTimeIsRepeatedInEveryFurtherChunk)
{
    TestServer server(200);
    RtmpSession *session = server.session();
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(1000), 1000), 0);
    const Message first = player.peer.read();
    for (const uint64_t time : {uint64_t{0x1000 + 0xFFFFFF}, uint64_t{0x1000 + 2 * 0xFFFFFF}}) {
        EXPECT_EQ(SendVideo(session, VideoFrame(1000), time), 0);
        const Message far = player.peer.read();
        EXPECT_EQ(far.headerType, 2) << "an extended delta is said again";
        EXPECT_TRUE(far.extended);
        EXPECT_EQ(far.chunks, 6U);
        EXPECT_EQ(far.raw.size(), 1 + 3 + 4 + 5 * 5 + 1005U);
        EXPECT_TRUE(Same(far.payload, InterBody(VideoFrame(1000))));
    }
    EXPECT_EQ(SendVideo(session, VideoFrame(1000), 0x1000 + 2 * 0xFFFFFF + 40), 0);
    const Message next = player.peer.read();
    EXPECT_FALSE(next.extended);
    EXPECT_EQ(next.raw.size(), 1 + 3 + 5 + 1005U);
    EXPECT_EQ(next.timestamp - first.timestamp, 0x1000 - 1000 + 2 * 0xFFFFFFU + 40);
}

TEST(WireStandardPlayer, AFrameInAFileIsCutTheSameWay)
{
    TestServer server(200);
    RtmpSession *session = server.session();
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.playing("cam");
    const size_t size = 4096;
    const int file = memfd_create("frames", 0);
    ASSERT_EQ(ftruncate(file, size), 0);
    void *map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(map, MAP_FAILED);
    const Bytes frame = VideoFrame(1000);
    memcpy(map, frame.data(), frame.size());
    const uint64_t base = reinterpret_cast<uint64_t>(map);
    uint64_t time = 1000;
    for (const size_t length : {1000UL, 40UL, 1000UL, 999UL}) {
        EXPECT_EQ(RtmpSendData(session, static_cast<uint8_t *>(map), static_cast<int32_t>(length), file, base,
                               time, 0),
                  0);
        const Message message = player.peer.read();
        EXPECT_TRUE(Same(message.payload, InterBody(Slice(frame, 0, length))));
        EXPECT_EQ(message.extended, time > 0xFFFFFF);
        time += 0xFFFFFF;
    }
    munmap(map, size);
    close(file);
}

TEST(WireStandardReplies, AFailedConnectIsToldOnChunkStream3)
{
    TestServer server;
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.connected();
    player.peer.command(amf0::Values({amf0::String("nonsense"), amf0::Number(2), amf0::Null()}).bytes);
    const Message failed = player.peer.read();
    EXPECT_EQ(failed.chunkStream, 3U);
    EXPECT_EQ(failed.stream, 0U);
    EXPECT_TRUE(Same(failed.payload, Status("error", "NetConnection.Connect.Failed", "Connection failed")));
}

TEST(WireStandardReplies, APingResponseHasAFullHeaderAtTime0AndTheNextMessageFollowsIt)
{
    TestServer server;
    server.session();
    StandardPlayer player(server, RTMP_PLAYERS_CHUNKS_OUT);
    player.peer.playing("cam");
    for (int i = 0; i < 2; ++i) {
        player.peer.pingRequest(0x12345);
        const Message pong = player.peer.read();
        EXPECT_EQ(pong.headerType, 0);
        EXPECT_EQ(pong.timestamp, 0U);
        EXPECT_TRUE(Same(pong.payload, Hex("0007 00012345")));
    }
}
