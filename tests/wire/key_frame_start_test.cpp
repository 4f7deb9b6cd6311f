// Where pictures and sound begin for players of RTMP_PLAYERS_KEY_FRAME; and key frames in the tags of players
// of RTMP_PLAYERS_DESCRIPTION.
#include "rtmpcast/player.h"
#include "rtmpcast/sender.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace wire;

namespace {

constexpr uint32_t kStartFlags = RTMP_PLAYERS_KEY_FRAME | RTMP_PLAYERS_TIMELINE | RTMP_PLAYERS_CHUNKS_OUT;

const Bytes kStartSound = Hex("21 00 03");

// A picture that tells its number, as a key frame or not.
Bytes StartPicture(uint8_t number, bool isKey = false)
{
    return VideoFrame(30, isKey ? 0x65 : 0x41, number);
}

// "V 3 40": a picture's number and time. "A 7": a sound's time.
std::string ToldPicture(const Message &message)
{
    const std::string time = " " + std::to_string(message.timestamp);
    if (message.type != 9) {
        return (message.type == 8 ? "A" : std::to_string(message.type)) + time;
    }
    const int number = static_cast<uint8_t>(message.payload[10] - 5 * 7);
    return "V " + std::to_string(number) + time;
}

std::vector<std::string> NextTold(ScriptedPeer &peer, size_t count)
{
    std::vector<std::string> all;
    while (all.size() < count) {
        all.push_back(ToldPicture(peer.read()));
    }
    return all;
}

using ToldTexts = std::vector<std::string>;

} // namespace

class WireKeyFrameStart : public testing::TestWithParam<uint32_t> {
  protected:
    WireKeyFrameStart()
    {
        RtmpPlayerSettings(server.server, kStartFlags);
    }
    void play(ScriptedPeer &peer)
    {
        peer.chunks.standard = true;
        peer.playing("cam");
    }
    // A sound, then a picture, each 40 ms behind the last one.
    void send(uint8_t number, bool isKey = false)
    {
        time_ += 40;
        EXPECT_EQ(SendAudio(session, kStartSound, time_ - 10), 0);
        EXPECT_EQ(SendVideo(session, StartPicture(number, isKey), time_), 0);
    }
    TestServer server;
    RtmpSession *session = server.session("cam", {.mode = GetParam()});
    uint64_t time_ = 5000;
};

TEST_P(WireKeyFrameStart, AWhoJoinsInTheMiddleBeginsWithTheNextKeyFrameAtTime0)
{
    ScriptedPeer peer(server.port);
    play(peer);
    send(1);
    send(2);
    send(3, true);
    send(4);
    EXPECT_EQ(NextTold(peer, 3), (ToldTexts{"V 3 0", "A 30", "V 4 40"})) << "and sound behind it";
}

TEST_P(WireKeyFrameStart, ByDefaultTheNextPictureIsTheFirst)
{
    RtmpPlayerSettings(server.server, kStartFlags & ~RTMP_PLAYERS_KEY_FRAME);
    ScriptedPeer peer(server.port);
    play(peer);
    EXPECT_EQ(SendVideo(session, StartPicture(1), 5000), 0);
    EXPECT_EQ(NextTold(peer, 1), (ToldTexts{"V 1 0"}));
}

TEST_P(WireKeyFrameStart, BehindAPauseAKeyFrameComesFirst)
{
    ScriptedPeer peer(server.port);
    play(peer);
    send(1, true);
    send(2);
    EXPECT_EQ(NextTold(peer, 3), (ToldTexts{"V 1 0", "A 30", "V 2 40"}));
    peer.command(PauseCommand(true));
    peer.settle();
    peer.command(PauseCommand(false));
    peer.settle();
    send(3);
    send(4);
    send(5, true);
    send(6);
    EXPECT_EQ(NextTold(peer, 3), (ToldTexts{"V 5 80", "A 110", "V 6 120"}));
}

TEST_P(WireKeyFrameStart, BehindARepeatedPlayAKeyFrameComesFirst)
{
    ScriptedPeer peer(server.port);
    play(peer);
    send(1, true);
    EXPECT_EQ(NextTold(peer, 1), (ToldTexts{"V 1 0"}));
    peer.command(PlayCommand("cam"));
    peer.settle();
    send(2);
    send(3, true);
    send(4);
    EXPECT_EQ(NextTold(peer, 3), (ToldTexts{"V 3 0", "A 30", "V 4 40"}));
}

TEST_P(WireKeyFrameStart, OthersAreServedMeanwhile)
{
    ScriptedPeer first(server.port);
    play(first);
    send(1, true);
    EXPECT_EQ(NextTold(first, 1), (ToldTexts{"V 1 0"}));
    ScriptedPeer second(server.port);
    play(second);
    send(2);
    send(3, true);
    send(4);
    EXPECT_EQ(NextTold(first, 6), (ToldTexts{"A 30", "V 2 40", "A 70", "V 3 80", "A 110", "V 4 120"}));
    EXPECT_EQ(NextTold(second, 3), (ToldTexts{"V 3 0", "A 30", "V 4 40"}));
}

TEST_P(WireKeyFrameStart, AnExactPlayerBesideWaitsForNothing)
{
    ScriptedPeer waiting(server.port);
    play(waiting);
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_EXACT);
    ScriptedPeer exact(server.port);
    exact.playing("cam");
    EXPECT_EQ(SendVideo(session, StartPicture(1), 5000), 0);
    const Message first = exact.read();
    EXPECT_TRUE(Same(first.payload, Join({Hex("27 01 000000"), StartPicture(1)})));
    EXPECT_EQ(SendVideo(session, StartPicture(2, true), 5040), 0);
    EXPECT_TRUE(Same(exact.read().payload, Join({Hex("17 01 000000"), StartPicture(2, true)})));
    EXPECT_EQ(NextTold(waiting, 1), (ToldTexts{"V 2 0"}));
}

// The times of who begins say nothing about the order of sound and pictures for who has played for a minute.
TEST_P(WireKeyFrameStart, AnExactPlayerKeepsItsSoundWhenAnotherBegins)
{
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_EXACT);
    ScriptedPeer exact(server.port);
    exact.playing("cam");
    EXPECT_EQ(SendVideo(session, StartPicture(1, true), 5000), 0);
    EXPECT_EQ(exact.read().type, 9);
    time_ = 65000;
    send(2);
    EXPECT_EQ(exact.read().type, 8);
    EXPECT_EQ(exact.read().type, 9);
    RtmpPlayerSettings(server.server, kStartFlags);
    ScriptedPeer beginner(server.port);
    play(beginner);
    for (uint8_t number = 3; number < 10; ++number) {
        send(number, number % 4 == 0);
        EXPECT_EQ(exact.read().type, 8) << int{number};
        EXPECT_EQ(exact.read().type, 9) << int{number};
    }
}

TEST_P(WireKeyFrameStart, ASessionOfSoundAloneWaitsForNothing)
{
    RtmpSession *radio = server.session("radio", {.video = false, .mode = GetParam()});
    ScriptedPeer peer(server.port);
    peer.chunks.standard = true;
    peer.playing("radio", 6);
    EXPECT_EQ(SendAudio(radio, kStartSound, 5000), 0);
    EXPECT_EQ(SendVideo(radio, StartPicture(1), 5000), 0); // without which no sound leaves
    EXPECT_EQ(NextTold(peer, 1), (ToldTexts{"A 0"}));
}

// A delimiter and SEI in front of an IDR slice; parameter sets in front of another.
TEST_P(WireKeyFrameStart, AnIdrSliceIsFoundBehindOtherNalUnits)
{
    const Bytes hidden = Hex("00000002 0910 00000003 060501 00000003 658801");
    const Bytes none = Hex("00000002 6742 00000002 68CE 00000003 418801");
    RtmpPlayerSettings(server.server, kStartFlags | RTMP_PLAYERS_DESCRIPTION);
    ScriptedPeer told(server.port);
    play(told);
    RtmpPlayerSettings(server.server, kStartFlags);
    ScriptedPeer untold(server.port);
    play(untold);
    RtmpPlayerSettings(server.server, RTMP_PLAYERS_EXACT);
    ScriptedPeer exact(server.port);
    exact.playing("cam");
    EXPECT_EQ(SendVideo(session, none, 5000), 0); // no key frame, whatever it begins with
    EXPECT_EQ(SendVideo(session, hidden, 5040), 0);
    EXPECT_EQ(SendVideo(session, none, 5080), 0);
    for (ScriptedPeer *peer : {&told, &untold, &exact}) {
        const char *kKeyTag = "17 01 000000", *kInterTag = "27 01 000000";
        const bool isTold = peer == &told;
        if (peer == &exact) {
            EXPECT_TRUE(Same(peer->read().payload, Join({Hex(kKeyTag), none})));
        }
        EXPECT_TRUE(Same(peer->read().payload, Join({Hex(isTold ? kKeyTag : kInterTag), hidden})));
        EXPECT_TRUE(Same(peer->read().payload, Join({Hex(isTold ? kInterTag : kKeyTag), none})));
    }
}

INSTANTIATE_TEST_SUITE_P(OfBothSenders, WireKeyFrameStart,
                         testing::Values(0U, uint32_t{RTMP_SENDER_THREADED}),
                         [](const testing::TestParamInfo<uint32_t> &info) {
                             return info.param == RTMP_SENDER_THREADED ? "threaded" : "monitor";
                         });

class WireKeyFrameBreaks : public testing::Test {
  protected:
    WireKeyFrameBreaks()
    {
        RtmpPlayerSettings(server.server, kStartFlags);
    }
    void play(ScriptedPeer &peer)
    {
        peer.chunks.standard = true;
        peer.playing("cam");
    }
    void sendNumbered(uint32_t number, bool isKey)
    {
        Bytes frame = VideoFrame(60000, isKey ? 0x65 : 0x41);
        frame[5] = static_cast<uint8_t>(number >> 8);
        frame[6] = static_cast<uint8_t>(number);
        EXPECT_EQ(SendVideo(session, frame, 1000 + number), 0);
    }
    static uint32_t NumberIn(const Message &message)
    {
        return message.payload[10] * 256U + message.payload[11];
    }
    TestServer server;
    RtmpSession *session = server.session("cam", {.mode = RTMP_SENDER_THREADED});
};

// A player that reads nothing until the queue has been flushed. Every tenth picture is a key frame.
TEST_F(WireKeyFrameBreaks, BehindAFlushAKeyFrameComesFirst)
{
    constexpr uint32_t kFrames = 400;
    ScriptedPeer peer(server.port);
    play(peer);
    for (uint32_t number = 0; number < kFrames; ++number) {
        sendNumbered(number, number % 10 == 0);
    }
    EXPECT_TRUE(server.log.contains(": Flushing Video Buffer"));
    std::vector<Message> messages;
    for (std::vector<Message> more = peer.settle(); !more.empty(); more = peer.settle()) {
        messages.insert(messages.end(), more.begin(), more.end());
    }
    sendNumbered(kFrames, false); // in case that the last flush took all behind it
    sendNumbered(kFrames + 1, true);
    sendNumbered(kFrames + 2, false);
    do {
        messages.push_back(peer.read());
    } while (NumberIn(messages.back()) != kFrames + 2);
    uint32_t expected = 0, breaks = 0;
    for (const Message &message : messages) {
        const uint32_t number = NumberIn(message);
        if (number != expected) {
            EXPECT_EQ(message.payload[9], 0x65) << number << " behind " << expected - 1;
            ++breaks;
        }
        EXPECT_EQ(message.timestamp, number) << "time goes on over the gap";
        expected = number + 1;
    }
    EXPECT_GT(breaks, 0U);
}

TEST_F(WireKeyFrameBreaks, BehindAResetAKeyFrameComesFirst)
{
    ScriptedPeer peer(server.port);
    play(peer);
    EXPECT_EQ(SendVideo(session, StartPicture(1, true), 5000), 0);
    EXPECT_EQ(SendVideo(session, StartPicture(2), 5040), 0);
    EXPECT_EQ(NextTold(peer, 2), (ToldTexts{"V 1 0", "V 2 40"}));
    EXPECT_EQ(RtmpThreadedQueueReset(session), 0);
    EXPECT_EQ(SendVideo(session, StartPicture(3), 5080), 0);
    EXPECT_EQ(SendVideo(session, StartPicture(4, true), 5120), 0);
    EXPECT_EQ(NextTold(peer, 1), (ToldTexts{"V 4 120"}));
}

// KEPT: while the first of the list is paused, nobody gets frames.
TEST_F(WireKeyFrameBreaks, BehindThePauseOfTheFirstPlayerAKeyFrameComesFirstForAll)
{
    ScriptedPeer first(server.port), second(server.port);
    play(first);
    play(second);
    EXPECT_EQ(SendVideo(session, StartPicture(1, true), 5000), 0);
    EXPECT_EQ(NextTold(second, 1), (ToldTexts{"V 1 0"}));
    first.command(PauseCommand(true));
    first.settle();
    EXPECT_EQ(SendVideo(session, StartPicture(2), 5040), 0);
    first.command(PauseCommand(false));
    first.settle();
    EXPECT_EQ(SendVideo(session, StartPicture(3), 5080), 0);
    EXPECT_EQ(SendVideo(session, StartPicture(4, true), 5120), 0);
    EXPECT_EQ(NextTold(second, 1), (ToldTexts{"V 4 120"}));
}

// A picture goes on without the sounds that were lost.
TEST_F(WireKeyFrameBreaks, BehindAFlushOfSoundAlonePicturesGoOn)
{
    RtmpSession *small = server.session("small", {.mode = RTMP_SENDER_THREADED, .queue = 3});
    ScriptedPeer peer(server.port);
    peer.chunks.standard = true;
    peer.playing("small");
    EXPECT_EQ(SendVideo(small, StartPicture(1, true), 5000), 0);
    EXPECT_EQ(NextTold(peer, 1), (ToldTexts{"V 1 0"}));
    for (uint64_t time = 5001; time <= 5005; ++time) {
        EXPECT_EQ(SendAudio(small, kStartSound, time), 0);
    }
    EXPECT_TRUE(server.log.contains(": Flushing Audio Buffer"));
    EXPECT_EQ(SendVideo(small, StartPicture(2), 5040), 0);
    EXPECT_EQ(NextTold(peer, 1), (ToldTexts{"V 2 40"}));
}
