// Frames as players see them: tags, chunks, deltas, the order of audio and video, and who gets them.
#include "support/produced.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

using namespace wire;

namespace {

// header, FLV tag, frame: cut at the chunk size, with separators.
Bytes FrameBytes(const std::string &header, const std::string &tag, const Bytes &frame, size_t chunkSize,
                 uint8_t separator)
{
    const Bytes body = Join({Hex(tag), frame});
    Bytes bytes = Hex(header);
    for (size_t at = 0; at < body.size(); at += chunkSize) {
        if (at > 0) {
            bytes.push_back(separator);
        }
        Append(bytes, Slice(body, at, chunkSize));
    }
    return bytes;
}

std::string VideoHeader(uint32_t delta, size_t frameLength)
{
    return "45" + ToHex(BigEndian(delta, 3)) + ToHex(BigEndian(frameLength + 5, 3)) + "09";
}

std::string AudioHeader(uint32_t delta, size_t frameLength)
{
    return "46" + ToHex(BigEndian(delta, 3)) + ToHex(BigEndian(frameLength + 2, 3)) + "08";
}

const char kKey[] = "17 01 000000";
const char kInter[] = "27 01 000000";

// Of an ordinary frame.
const char *OrdinaryTag()
{
    return OrdinaryNal() == 0x65 ? kKey : kInter;
}

} // namespace

class WireFrameLengths : public testing::TestWithParam<int> {};

// The FLV tag of five bytes counts towards the first chunk.
TEST_P(WireFrameLengths, AVideoFrameIsCutWithItsTag)
{
    const size_t chunkSize = 200;
    TestServer server(static_cast<int>(chunkSize));
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const size_t length = static_cast<size_t>(GetParam());
    const Bytes frame = VideoFrame(length);
    EXPECT_EQ(SendVideo(session, frame, 1000), 0);
    const Message message = peer.read();
    EXPECT_TRUE(Same(message.raw, FrameBytes(VideoHeader(0, length), OrdinaryTag(), frame, chunkSize, 0xC5)));
    EXPECT_EQ(message.chunks, (length + 5 + chunkSize - 1) / chunkSize);
    EXPECT_TRUE(peer.settle().empty()) << "and nothing behind it";
}

INSTANTIATE_TEST_SUITE_P(AroundTheChunkSize, WireFrameLengths,
                         testing::Values(5, 194, 195, 196, 200, 394, 395, 396, 600, 595, 100000));

TEST(WireFrames, ADefaultChunkSizeOf4096CutsAtItsEdge)
{
    TestServer server(0);
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(4091), 1000), 0);
    EXPECT_EQ(peer.read().chunks, 1U);
    EXPECT_EQ(SendVideo(session, VideoFrame(4092), 1040), 0);
    const Message longer = peer.read();
    EXPECT_EQ(longer.chunks, 2U);
    EXPECT_TRUE(Same(Slice(longer.raw, 8 + 4096, 2), {0xC5, VideoFrame(4092).back()}));
}

TEST(WireFrames, MoreChunksThanOneWriteTakesArriveWhole)
{
    TestServer server(4);
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const Bytes frame = VideoFrame(5000, 0x65);
    EXPECT_EQ(SendVideo(session, frame, 1000), 0);
    const Message message = peer.read();
    EXPECT_TRUE(Same(message.payload, Join({Hex(kKey), frame})));
    EXPECT_EQ(message.chunks, 1252U);
}

// The same bytes, whether they are gathered from memory or sent from the file that also holds them.
TEST(WireFrames, AFrameInAFileLooksTheSame)
{
    TestServer server(700);
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const size_t offset = 4096, size = 100000;
    const int file = memfd_create("frames", 0);
    ASSERT_EQ(ftruncate(file, offset + size), 0);
    void *map = mmap(nullptr, offset + size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(map, MAP_FAILED);
    uint8_t *place = static_cast<uint8_t *>(map) + offset;
    const uint64_t base = reinterpret_cast<uint64_t>(map);
    uint64_t time = 1000;
    for (const size_t length : {1UL, 694UL, 695UL, 696UL, 1395UL, 1396UL, 50000UL}) {
        const Bytes frame = VideoFrame(std::max<size_t>(length, 5), 0x65);
        memcpy(place, frame.data(), length);
        EXPECT_EQ(RtmpSendData(session, place, static_cast<int32_t>(length), file, base, time, 0), 0);
        EXPECT_TRUE(Same(peer.read().raw,
                         FrameBytes(VideoHeader(time == 1000 ? 0 : 40, length), length < 5 ? kInter : kKey,
                                    Slice(frame, 0, length), 700, 0xC5)));
        time += 40;
    }
    const Bytes sound(1400, 0xAF);
    memcpy(place + 60000, sound.data(), sound.size());
    EXPECT_EQ(RtmpSendData(session, place + 60000, 1400, file, base, 1000, 1), 0);
    EXPECT_EQ(RtmpSendData(session, place, 50000, file, base, time + 60000, 0), 0);
    EXPECT_TRUE(Same(peer.read().raw, FrameBytes(AudioHeader(0, 1400), "af 01", sound, 700, 0xC6)));
    EXPECT_EQ(peer.read().type, 9);
    munmap(map, offset + size);
    close(file);
}

TEST(WireFrames, TheFirstNalUnitMakesAKeyFrame)
{
    struct Row {
        uint8_t nalHeader;
        const char *tag;
    };
    static const Row rows[] = {{0x65, kKey},   {0x67, kKey},   {0x68, kKey},
                               {0x41, kInter}, {0x06, kInter}, {0x09, kInter}};
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    uint64_t time = 1000;
    for (const Row &row : rows) {
        const Bytes frame = VideoFrame(30, row.nalHeader);
        EXPECT_EQ(SendVideo(session, frame, time), 0);
        EXPECT_TRUE(Same(peer.read().raw,
                         FrameBytes(VideoHeader(time == 1000 ? 0 : 40, 30), row.tag, frame, 4096, 0xC5)));
        time += 40;
    }
}

TEST(WireFrames, AFrameShorterThanANalHeaderIsAnInterFrame)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    for (size_t length = 1; length < 5; ++length) {
        EXPECT_EQ(SendVideo(session, Bytes(length, 0x65), 1000), 0);
        EXPECT_TRUE(Same(peer.read().payload, Join({Hex(kInter), Bytes(length, 0x65)})));
    }
}

TEST(WireFrames, TimesFollowTheFramesNotTheClock)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    const uint32_t start = peer.playing("cam")[5].timestamp; // the AVC header's
    uint32_t sum = 0;
    uint64_t time = 5000000;
    for (const uint32_t delta : {0U, 33U, 33U, 0U, 100000U, 0xFFFFFEU}) {
        time += delta;
        sum += delta;
        EXPECT_EQ(SendVideo(session, VideoFrame(20), time), 0);
        const Message message = peer.read();
        EXPECT_EQ(message.field, delta);
        EXPECT_FALSE(message.extended);
        EXPECT_EQ(message.timestamp, start + sum);
    }
}

TEST(WireFrames, DeltasThatDoNotFitAreExtended)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(6), 1000), 0);
    peer.read();
    EXPECT_EQ(SendVideo(session, VideoFrame(6), 1000 + 0xFFFFFF), 0);
    EXPECT_TRUE(Matches(Slice(peer.read().raw, 0, 12), "45 ffffff 00000b 09 00ffffff"));
    EXPECT_EQ(SendVideo(session, VideoFrame(6), 1000 + 0xFFFFFF + 0x1234567), 0);
    EXPECT_TRUE(Matches(Slice(peer.read().raw, 0, 12), "45 ffffff 00000b 09 01234567"));
}

TEST(WireFrames, AudioWaitsForVideoAndGoesInFrontOfIt)
{
    TestServer server(100);
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const Bytes first(150, 0xA1), second(98, 0xA2);
    EXPECT_EQ(SendVideo(session, VideoFrame(50), 1000), 0);
    EXPECT_EQ(peer.read().type, 9);
    EXPECT_EQ(SendAudio(session, first, 1010), 0);
    EXPECT_EQ(SendAudio(session, second, 1033), 0);
    EXPECT_TRUE(peer.settle().empty()) << "audio alone stays where it is";
    EXPECT_EQ(SendVideo(session, VideoFrame(50), 61000), 0); // both are due long before
    EXPECT_TRUE(Same(peer.read().raw, FrameBytes(AudioHeader(0, 150), "af 01", first, 100, 0xC6)));
    EXPECT_TRUE(Same(peer.read().raw, FrameBytes(AudioHeader(23, 98), "af 01", second, 100, 0xC6)));
    EXPECT_TRUE(
        Same(peer.read().raw, FrameBytes(VideoHeader(60000, 50), OrdinaryTag(), VideoFrame(50), 100, 0xC5)));
}

TEST(WireFrames, OnlyAudioThatIsStrictlyEarlierGoesWithAVideoFrame)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 100000), 0);
    EXPECT_EQ(SendAudio(session, {1, 2, 3}, 100000), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 160000), 0);
    peer.read(); // the first frame
    const Message audio = peer.read();
    const Message video = peer.read();
    ASSERT_EQ(audio.type, 8);
    ASSERT_EQ(video.type, 9);
    ASSERT_GT(video.timestamp + 100, audio.timestamp);
    // Both clocks are known now: the next audio is to meet the next video frame exactly.
    const uint32_t apart = video.timestamp + 100 - audio.timestamp;
    EXPECT_EQ(SendAudio(session, {4, 5, 6}, 100000 + apart), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 160100), 0);
    EXPECT_EQ(peer.read().type, 9);
    EXPECT_TRUE(peer.settle().empty()) << "not earlier, so parked";
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 160101), 0);
    EXPECT_TRUE(Same(peer.read().payload, Hex("af01 040506")));
    EXPECT_EQ(peer.read().type, 9);
}

// The first message of the audio chunk stream, the AAC header of four bytes, stays the one that headers are
// shortened against.
TEST(WireFrames, AudioAsLongAsItsSequenceHeaderGetsAShorterHeader)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);
    EXPECT_EQ(SendAudio(session, {0xD1, 0xD2}, 1010), 0);
    EXPECT_EQ(SendAudio(session, {0xD3, 0xD4}, 1033), 0);
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 61000), 0);
    peer.read();
    EXPECT_TRUE(Matches(peer.read().raw, "c6 af01 d1d2"));
    EXPECT_TRUE(Matches(peer.read().raw, "86 000017 af01 d3d4"));
}

TEST(WireFrames, NobodyWaitsForAKeyFrame)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer first(server.port);
    first.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(20, 0x65), 1000), 0);
    ScriptedPeer late(server.port);
    late.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(20, 0x41), 1040), 0);
    EXPECT_TRUE(Matches(Slice(late.read().payload, 0, 5), kInter));
    EXPECT_EQ(first.read(2).size(), 2U);
}

TEST(WireFrames, APausedPlayerMissesWhatThePlayerBesideItGets)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer paused(server.port), playing(server.port), joining(server.port);
    paused.playing("cam");
    playing.playing("cam");
    joining.created();
    paused.command(PauseCommand(true));
    paused.read();
    for (uint64_t time = 1000; time < 1400; time += 40) {
        EXPECT_EQ(SendVideo(session, VideoFrame(300, OrdinaryNal(), static_cast<uint8_t>(time)), time), 0);
        EXPECT_TRUE(Same(Slice(playing.read().payload, 5, 300),
                         VideoFrame(300, OrdinaryNal(), static_cast<uint8_t>(time))));
    }
    EXPECT_TRUE(paused.settle().empty());
    joining.command(PlayCommand("cam"));
    EXPECT_EQ(joining.read(7)[6].type, 8) << "no frame in front of the start";
}

TEST(WireFrames, SessionsDoNotMix)
{
    TestServer server;
    RtmpSession *one = server.session("one");
    RtmpSession *two = server.session("two");
    ScriptedPeer a(server.port), b(server.port);
    a.playing("one");
    b.playing("two");
    EXPECT_EQ(SendVideo(one, VideoFrame(20, OrdinaryNal(), 1), 1000), 0);
    EXPECT_EQ(SendVideo(two, VideoFrame(20, OrdinaryNal(), 2), 1000), 0);
    EXPECT_TRUE(Same(Slice(a.read().payload, 5, 20), VideoFrame(20, OrdinaryNal(), 1)));
    EXPECT_TRUE(Same(Slice(b.read().payload, 5, 20), VideoFrame(20, OrdinaryNal(), 2)));
    EXPECT_TRUE(a.settle().empty());
    EXPECT_TRUE(b.settle().empty());
}

TEST(WireFrames, AKilledPlayerCostsTheOthersNothing)
{
    TestServer server;
    RtmpSession *session = server.session();
    ScriptedPeer victim(server.port), survivor(server.port);
    victim.playing("cam");
    survivor.playing("cam");
    victim.socket.reset();
    for (uint64_t time = 1000; time < 3000; time += 40) {
        const int result = SendVideo(session, VideoFrame(300), time);
        EXPECT_TRUE(result == 0 || result == -1) << result;
        EXPECT_EQ(survivor.read().type, 9);
    }
    EXPECT_TRUE(
        server.log.waitFor("6 INFO: DestroyRtmpClient: Removed client; No. of connected clients : 1"));
    EXPECT_EQ(SendVideo(session, VideoFrame(300), 3000), 0);
}

// Half of a frame's bytes do not fit into the socket: the call waits, and the frame arrives whole.
TEST(WireFrames, ASlowPlayerGetsEveryByte)
{
    TestServer server(128);
    RtmpSession *session = server.session();
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const Bytes frame = VideoFrame(8000000, 0x65);
    int result = 1;
    std::thread sender([&] { result = SendVideo(session, frame, 1000); });
    const Message message = peer.read();
    sender.join();
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(Same(Slice(message.payload, 5, frame.size()), frame));
}

TEST(WireSendData, TellsItsFailuresApart)
{
    TestServer server;
    RtmpSession *bare = server.session("bare", {.media = false});
    RtmpSession *ready = server.session("ready");
    const Bytes frame = VideoFrame(20);
    EXPECT_EQ(SendVideo(bare, frame, 1), RTMP_ERR_NO_MEDIA_INFO);
    EXPECT_EQ(SendVideo(ready, frame, 1), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(RtmpSendData(ready, frame.data(), 20, 0, 0, 1, 0x100000001), RTMP_ERR_NO_CLIENT)
        << "the low 32 bits count";
    testing::internal::CaptureStdout();
    EXPECT_EQ(RtmpSendData(nullptr, frame.data(), 20, 0, 0, 1, 0), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpSendData(ready, nullptr, 20, 0, 0, 1, 0), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpSendData(ready, frame.data(), 0, 0, 0, 1, 0), RTMP_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(RtmpSendData(bare, frame.data(), 20, 0, 0, 1, 2), RTMP_ERR_INVALID_ARGUMENT);
    const std::string line = "RTMPWriter: ERROR: RtmpSendData: Invalid input arguments\n";
    EXPECT_EQ(produced::CapturedStdout(), line + line + line + line);
    EXPECT_EQ(server.log.count("ERROR"), 0U) << "the other two are not logged";
}

TEST(WireSendData, WithoutASenderFailsAndSaysSo)
{
    TestServer server;
    RtmpSession *session = server.session("cam", {.sender = false});
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const size_t errors = server.log.count("3 ERROR: ");
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), -1);
    EXPECT_GT(server.log.count("3 ERROR: "), errors);
    EXPECT_TRUE(peer.settle().empty());
}
