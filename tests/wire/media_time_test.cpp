// Media time as players of RTMP_PLAYERS_TIMELINE see it, and what it costs those beside them: nothing.
#include "rtmpcast/player.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace wire;

namespace {

constexpr uint32_t kTimelineFlags = RTMP_PLAYERS_TIMELINE | RTMP_PLAYERS_CHUNKS_OUT;

ScriptedPeer &ByTheStandard(ScriptedPeer &peer)
{
    peer.chunks.standard = true;
    return peer;
}

// "V 40": type and time of what comes next.
std::string NextTimed(ScriptedPeer &peer)
{
    const Message message = peer.read();
    const std::string type = message.type == 9 ? "V" : message.type == 8 ? "A" : std::to_string(message.type);
    return type + " " + std::to_string(message.timestamp);
}

std::vector<std::string> NextTimed(ScriptedPeer &peer, size_t count)
{
    std::vector<std::string> all;
    while (all.size() < count) {
        all.push_back(NextTimed(peer));
    }
    return all;
}

using TimedTexts = std::vector<std::string>;

const Bytes kTimedKey = VideoFrame(40, 0x65);
const Bytes kTimedInter = VideoFrame(30, 0x41);
const Bytes kTimedSound = Hex("21 00 03");

} // namespace

// Of both senders.
class WireTimeline : public testing::TestWithParam<uint32_t> {
  protected:
    WireTimeline()
    {
        RtmpPlayerSettings(server.server, kTimelineFlags);
    }
    TestServer server;
    RtmpSession *session = server.session("cam", {.mode = GetParam()});
};

TEST_P(WireTimeline, RepliesAndStartSequenceAreAt0)
{
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).created();
    peer.command(PlayCommand("cam"));
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(peer.read().timestamp, 0U);
    }
}

TEST_P(WireTimeline, SoundAndPicturesKeepTheirDistanceOnTheHostsClock)
{
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).playing("cam");
    EXPECT_EQ(SendVideo(session, kTimedKey, 5000), 0);
    EXPECT_EQ(NextTimed(peer), "V 0");
    EXPECT_EQ(SendAudio(session, kTimedSound, 5007), 0);
    EXPECT_EQ(SendAudio(session, kTimedSound, 5030), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 5041), 0);
    EXPECT_EQ(NextTimed(peer, 3), (TimedTexts{"A 7", "A 30", "V 41"}));
    EXPECT_EQ(SendAudio(session, kTimedSound, 5053), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 5079), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"A 53", "V 79"}));
}

// Pictures that are closer to each other than sounds are, and sounds that are closer than pictures.
TEST_P(WireTimeline, NoSoundIsHeldBackWhateverTheRates)
{
    for (const uint64_t step : {16, 400}) {
        ScriptedPeer peer(server.port);
        ByTheStandard(peer).playing("cam");
        uint64_t sound = 1000, sounds = 0;
        for (uint64_t time = 1000; time < 1000 + 40 * step; time += step) {
            for (; sound <= time; sound += 23) {
                EXPECT_EQ(SendAudio(session, kTimedSound, sound), 0);
            }
            EXPECT_EQ(SendVideo(session, kTimedInter, time), 0);
            Message message = peer.read();
            for (; message.type == 8; message = peer.read()) {
                ASSERT_EQ(message.timestamp, 23 * sounds++);
            }
            ASSERT_EQ(message.timestamp, time - 1000);
        }
        EXPECT_EQ(sounds, (40 * step - step) / 23 + 1);
    }
}

TEST_P(WireTimeline, AnUnpauseGoesOnWhereThePauseWas)
{
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).playing("cam");
    EXPECT_EQ(SendVideo(session, kTimedKey, 5000), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 5040), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"V 0", "V 40"}));
    peer.command(PauseCommand(true));
    EXPECT_EQ(NextTimed(peer), "20 40") << "the notice";
    peer.settle();
    EXPECT_EQ(SendVideo(session, kTimedInter, 5080), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 65000), 0);
    peer.command(PauseCommand(false));
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(peer.read().timestamp, 40U);
    }
    peer.settle();
    EXPECT_EQ(SendVideo(session, kTimedKey, 65040), 0);
    const uint32_t first = peer.read().timestamp;
    EXPECT_GE(first, 80U);
    EXPECT_LE(first, GetParam() == RTMP_SENDER_THREADED ? 1040U : 80U)
        << "the threaded sender takes no frames while its first client is paused";
    EXPECT_EQ(SendVideo(session, kTimedInter, 65080), 0);
    EXPECT_EQ(peer.read().timestamp, first + 40);
}

TEST_P(WireTimeline, ARepeatedPlayBeginsAgainAt0)
{
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).playing("cam");
    EXPECT_EQ(SendVideo(session, kTimedKey, 5000), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 5040), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"V 0", "V 40"}));
    peer.command(PlayCommand("cam"));
    EXPECT_EQ(peer.read().timestamp, 40U);
    EXPECT_EQ(peer.read().timestamp, 40U) << "NetStream.Play.Stop";
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(peer.read().timestamp, 0U);
    }
    peer.settle();
    EXPECT_EQ(SendVideo(session, kTimedInter, 5080), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 5120), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"V 0", "V 40"}));
}

TEST_P(WireTimeline, APlayBehindAPauseBeginsAt0)
{
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).playing("cam");
    EXPECT_EQ(SendVideo(session, kTimedKey, 5000), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 5040), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"V 0", "V 40"}));
    peer.command(PauseCommand(true));
    peer.read();
    peer.command(PlayCommand("cam"));
    peer.settle();
    EXPECT_EQ(SendVideo(session, kTimedKey, 6000), 0);
    EXPECT_EQ(NextTimed(peer), "V 0");
}

TEST_P(WireTimeline, AHostsClockThatIsSetBackMakesNoStep)
{
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).playing("cam");
    for (const uint64_t time : {500000, 500040, 100, 140}) {
        EXPECT_EQ(SendVideo(session, kTimedInter, time), 0);
    }
    EXPECT_EQ(NextTimed(peer, 4), (TimedTexts{"V 0", "V 40", "V 40", "V 80"}));
    EXPECT_EQ(SendAudio(session, kTimedSound, 150), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 180), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"A 90", "V 120"}));
}

// 0xFFFFFF ms are 4 hours and 40 minutes. Behind an unpause all headers are full ones.
TEST_P(WireTimeline, TimesThatNeedFourBytesAreRepeatedInEveryChunk)
{
    server.server->ConfiguredChunkSize = 10;
    ScriptedPeer peer(server.port);
    ByTheStandard(peer).playing("cam");
    EXPECT_EQ(SendVideo(session, kTimedKey, 1000), 0);
    EXPECT_EQ(SendVideo(session, kTimedInter, 1000 + 0xFFFFFF), 0);
    EXPECT_EQ(NextTimed(peer, 2), (TimedTexts{"V 0", "V 16777215"}));
    peer.command(PauseCommand(true));
    peer.command(PauseCommand(false));
    size_t repeated = 0;
    for (const Message &reply : peer.read(8)) {
        EXPECT_EQ(reply.timestamp, 0xFFFFFFU);
        repeated +=
            reply.headerType == 0 && reply.extended ? reply.chunks - 1 : 0; // the reader compares them
    }
    EXPECT_GT(repeated, 20U);
    peer.settle();
    EXPECT_EQ(SendVideo(session, kTimedKey, 1000 + 0xFFFFFF + 40), 0);
    const Message message = peer.read();
    EXPECT_EQ(message.timestamp, 0xFFFFFFU + 40);
    EXPECT_FALSE(message.extended) << "its header has a delta";
}

// The strict reader knows the exact choice of headers. Order and times are those of a session without others.
TEST_P(WireTimeline, AnExactPlayerBesideIsServedAsIfItWereAlone)
{
    ScriptedPeer timed(server.port);
    ByTheStandard(timed).playing("cam");
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_EXACT);
    ScriptedPeer exact(server.port);
    const std::vector<Message> start = exact.playing("cam");
    const uint32_t video = start[5].timestamp, audio = start[6].timestamp;
    ASSERT_EQ(start[5].type, 9);
    ASSERT_EQ(start[6].type, 8);
    ASSERT_LT(audio - video, 10U);
    EXPECT_EQ(SendVideo(session, kTimedKey, 5000), 0);
    EXPECT_EQ(NextTimed(exact), "V " + std::to_string(video));
    EXPECT_EQ(NextTimed(timed), "V 0");
    for (uint64_t time = 5000; time < 5400; time += 40) {
        EXPECT_EQ(SendAudio(session, kTimedSound, time + 7), 0);
        EXPECT_EQ(SendVideo(session, kTimedKey, time + 40), 0);
    }
    EXPECT_EQ(SendVideo(session, kTimedKey, 65000), 0); // brings what sound is left
    uint32_t videos = 0, audios = 0;
    while (videos + audios < 20) {
        const Message strict = exact.read();
        const Message standard = timed.read();
        const bool isVideo = strict.type == 9;
        const uint32_t since = 40 * (isVideo ? ++videos : audios++);
        EXPECT_EQ(strict.timestamp, (isVideo ? video : audio) + since);
        EXPECT_EQ(standard.timestamp, since + (isVideo ? 0 : 7));
        EXPECT_TRUE(Same(standard.payload, strict.payload));
    }
    EXPECT_EQ(videos, 10U);
    EXPECT_EQ(NextTimed(exact), "V " + std::to_string(video + 60000));
    EXPECT_EQ(NextTimed(timed), "V 60000");
}

TEST_P(WireTimeline, ByDefaultTheFirstFrameHasTheTimeOfItsSequenceHeader)
{
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_TIMELINE & ~RTMP_PLAYERS_KEY_FRAME);
    ScriptedPeer peer(server.port);
    peer.chunks.standard = true;
    const std::vector<Message> start = peer.playing("cam");
    EXPECT_EQ(SendVideo(session, kTimedKey, 5000), 0);
    EXPECT_EQ(SendVideo(session, kTimedKey, 5040), 0);
    EXPECT_EQ(peer.read().timestamp, start[5].timestamp);
    EXPECT_EQ(peer.read().timestamp, start[5].timestamp + 40);
}

INSTANTIATE_TEST_SUITE_P(OfBothSenders, WireTimeline, testing::Values(0U, uint32_t{RTMP_SENDER_THREADED}),
                         [](const testing::TestParamInfo<uint32_t> &info) {
                             return info.param == RTMP_SENDER_THREADED ? "threaded" : "monitor";
                         });
