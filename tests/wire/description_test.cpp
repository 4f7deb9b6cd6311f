// The description of the media on a real socket: with RTMP_PLAYERS_DESCRIPTION well-formed, without it exact.
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace amf0;
using namespace wire;

namespace {

// x264's, High 4.0, 1920x1080 of 1088 lines.
const Bytes kSps = Hex("67 64 00 28 AC D9 40 78 02 27 E5 C0 44 00 00 03 00 04 00 00 03 00 C8 3C");
const Bytes kPps = Hex("68 EB E3 CB 22 C0"); // x264's: longer than four bytes
const Bytes kRecord = Join({Hex("17 00 000000  01 640028 FF E1 0018"), kSps, Hex("01 0006"), kPps});

// As x264 begins a stream: 3-byte start codes between parameter sets, SEI and picture.
const Bytes kStreamStart =
    Join({Hex("00000001"), kSps, Hex("000001"), kPps, Hex("000001 0605FF"), Hex("000001 65888400")});
const Bytes kStrict = Join({Hex("00000001"), kSps, Hex("00000001"), kPps, Hex("00000001")});

Value OnMetaData()
{
    return Values({String("onMetaData"), EcmaArray({{"width", Number(1920)},
                                                    {"height", Number(1080)},
                                                    {"videocodecid", Number(7)},
                                                    {"avclevel", Number(40)},
                                                    {"avcprofile", Number(100)},
                                                    {"videodatarate", Number(4000)},
                                                    {"audiosamplerate", Number(48000)},
                                                    {"audiochannels", Number(2)},
                                                    {"stereo", Boolean(true)},
                                                    {"audiocodecid", Number(10)}})});
}

Bytes ExactMetaData()
{
    return Hex("02 000A 'onMetaData' 03"
               "0005 'width' 00 409E000000000000"
               "0006 'height' 00 4091000000000000" // 1088
               "000C 'videocodecid' 00 401C000000000000"
               "0008 'avclevel' 00 4044000000000000"
               "000A 'avcprofile' 00 4059000000000000"
               "000D 'videodatarate' 00 40AF400000000000"
               "000F 'audiosamplerate' 00 40E7700000000000"
               "0006 'stereo'"
               "000C 'audiocodecid' 00 4024000000000000 000009 0000");
}

int Register(RtmpSession *session, const Bytes &config)
{
    const Bytes aac = Hex("1190");
    const VideoMediaInfo video = {7, 4000000, {}, static_cast<int32_t>(config.size()), config.data()};
    const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(aac.size()), aac.data()};
    return RtmpAddMediaInfo(session, &video, &audio);
}

// What a player of the session is told of its media.
void ExpectDescription(const TestServer &server, const Bytes &metaData, const Bytes &record)
{
    ScriptedPeer peer(server.port);
    const std::vector<Message> sent = peer.playing("cam");
    EXPECT_TRUE(Sent(sent[4], "45" + Fields(metaData, "12"), metaData));
    EXPECT_TRUE(Sent(sent[5], "45 000000 " + ToHex(BigEndian(record.size(), 3)) + " 09 ", record));
    EXPECT_TRUE(Same(sent[6].payload, Hex("AF00 1190")));
}

} // namespace

TEST(WireDescription, IsWellFormedWithTheFlag)
{
    TestServer server;
    EXPECT_EQ(RtmpPlayerSettings(server.server, RTMP_PLAYERS_DESCRIPTION), 0);
    ASSERT_EQ(Register(server.session("cam", {.media = false}), kStreamStart), 0);
    ExpectDescription(server, OnMetaData().bytes, kRecord + Hex("FD F8 F8 00"));
}

TEST(WireDescription, IsExactWithoutTheFlag)
{
    TestServer server;
    RtmpSession *session = server.session("cam", {.media = false});
    EXPECT_EQ(RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_DESCRIPTION), 0);
    EXPECT_EQ(RtmpPlayerSettings(server.server, RTMP_PLAYERS_EXACT), 0);
    ASSERT_EQ(Register(session, kStrict), 0);
    ExpectDescription(server, ExactMetaData(), kRecord);
    EXPECT_EQ(Register(session, Join({Hex("000001"), kSps, Hex("000001"), kPps})), RTMP_ERR_VIDEO_INFO);
}

TEST(WireDescription, OfMediaRegisteredBeforeTheSettingIsExact)
{
    TestServer server;
    RtmpSession *session = server.session("cam", {.media = false});
    ASSERT_EQ(Register(session, kStrict), 0);
    EXPECT_EQ(RtmpPlayerSettings(server.server, RTMP_PLAYERS_DESCRIPTION), 0);
    ExpectDescription(server, ExactMetaData(), kRecord);
    ASSERT_EQ(Register(session, kStrict), 0); // once more, and players to come get it whole
    ExpectDescription(server, OnMetaData().bytes, kRecord + Hex("FD F8 F8 00"));
}

// A connection keeps what it was accepted with, and the exact bodies are made from the strict form.
TEST(WireDescription, OfAConnectionFromBeforeTheSettingIsExact)
{
    TestServer server;
    RtmpSession *session = server.session("cam", {.media = false});
    ScriptedPeer early(server.port);
    early.created();
    EXPECT_EQ(RtmpPlayerSettings(server.server, RTMP_PLAYERS_DESCRIPTION), 0);
    ASSERT_EQ(Register(session, kStreamStart), 0);
    early.command(PlayCommand("cam"));
    const std::vector<Message> sent = early.read(7);
    EXPECT_TRUE(Same(sent[4].payload, ExactMetaData()));
    EXPECT_TRUE(Same(sent[5].payload, kRecord));
    ExpectDescription(server, OnMetaData().bytes, kRecord + Hex("FD F8 F8 00"));
}
