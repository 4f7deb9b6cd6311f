// The order of sound and pictures on the steady road, as a player sees it.
#include "delivery/steady/sound_order.h"
#include "steady/counted_writes.h"
#include "steady/steady_server.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/wait.h"

using namespace wire;

namespace {

constexpr uint8_t kSound = 8;
constexpr uint8_t kPicture = 9;

struct Seen {
    uint8_t type;
    uint32_t time;
    bool operator==(const Seen &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Seen &seen)
    {
        return out << (seen.type == kSound ? "sound at " : "picture at ") << seen.time;
    }
};

RtmpServiceLimits WaitingFor(uint32_t milliseconds)
{
    RtmpServiceLimits limits = {};
    limits.SoundWaitMilliseconds = milliseconds;
    return limits;
}

// A server whose session has one player.
struct OnePlayer {
    explicit OnePlayer(const RtmpServiceLimits &limits = {}, const SessionSetup &setup = {})
        : server(limits), session(server.session("cam", setup)), peer(server.port)
    {
        peer.chunks.standard = true;
        peer.playing("cam", setup.video && setup.audio ? 7 : 6);
    }

    int picture(uint64_t time, uint8_t nal = kInterNal)
    {
        return SendVideo(session, VideoFrame(50, nal), time);
    }
    int sound(uint64_t time)
    {
        return SendAudio(session, Bytes(30, 0x77), time);
    }
    // What has come since the last call.
    std::vector<Seen> seen()
    {
        std::vector<Seen> all;
        for (const Message &message : peer.settle()) {
            all.push_back({message.type, message.timestamp});
        }
        return all;
    }

    SteadyTestServer server;
    RtmpSession *session;
    ScriptedPeer peer;
};

using Sequence = std::vector<Seen>;

} // namespace

TEST(SoundOrder, SoundGoesInFrontOfTheFirstPictureThatIsNotEarlier)
{
    OnePlayer one;
    one.picture(1000, kKeyNal);
    one.sound(1010);
    one.sound(1031);
    one.sound(1040);
    one.sound(1052);
    EXPECT_EQ(one.seen(), (Sequence{{kPicture, 0}})); // it waits for its picture
    one.picture(1040);
    EXPECT_EQ(one.seen(), (Sequence{{kSound, 10}, {kSound, 31}, {kSound, 40}, {kPicture, 40}}));
    one.picture(1080);
    EXPECT_EQ(one.seen(), (Sequence{{kSound, 52}, {kPicture, 80}}));
}

TEST(SoundOrder, LateSoundGoesInFrontOfTheNextPicture)
{
    OnePlayer one;
    one.picture(1000, kKeyNal);
    one.picture(1040);
    one.sound(1010); // earlier than the last picture
    one.picture(1080);
    EXPECT_EQ(one.seen(), (Sequence{{kPicture, 0}, {kPicture, 40}, {kSound, 10}, {kPicture, 80}}));
}

TEST(SoundOrder, SoundAndThePictureBehindItLeaveInOneWrite)
{
    OnePlayer one;
    one.picture(1000, kKeyNal);
    (void)one.seen();
    const uint64_t before = Writes();
    for (uint64_t i = 1; i <= 50; i++) {
        one.sound(1000 + 40 * i - 30);
        one.sound(1000 + 40 * i - 10);
        one.picture(1000 + 40 * i);
    }
    EXPECT_GE(Writes() - before, 50u); // one player, one sendmsg
    EXPECT_LE(Writes() - before, 52u); // its thread may still be at an answer, and take frames along
    EXPECT_EQ(one.seen().size(), 150u);
}

TEST(SoundOrder, SoundThatHasWaitedLeavesByItself)
{
    OnePlayer one(WaitingFor(100));
    one.picture(1000, kKeyNal);
    (void)one.seen();
    for (uint64_t time = 1020; time <= 1120; time += 20) {
        one.sound(time);
    }
    EXPECT_EQ(one.seen(), Sequence{}); // 100 ms: it may wait for so long
    one.sound(1140);
    EXPECT_EQ(one.seen(), (Sequence{{kSound, 20}}));
    one.sound(1160);
    EXPECT_EQ(one.seen(), (Sequence{{kSound, 40}}));
}

TEST(SoundOrder, ASessionWithoutPicturesSendsSoundAtOnceAndPlayersBeginWithIt)
{
    OnePlayer one({}, {.video = false});
    one.sound(1000);
    one.sound(1021);
    EXPECT_EQ(one.seen(), (Sequence{{kSound, 0}, {kSound, 21}}));
    ScriptedPeer late(one.server.port);
    late.chunks.standard = true;
    late.playing("cam", 6);
    one.sound(1042);
    EXPECT_EQ(one.seen().back(), (Seen{kSound, 42}));
    const std::vector<Message> seen = late.settle();
    ASSERT_GE(seen.size(), 1u);
    EXPECT_EQ(seen[0].type, kSound);
}

TEST(SoundOrder, NewcomersBeginWithSoundWhereNoPictureHasComeForLong)
{
    OnePlayer one(WaitingFor(100));
    one.picture(1000, kKeyNal);
    const auto join = [&](ScriptedPeer &peer) {
        peer.chunks.standard = true;
        peer.created();
        peer.command(PlayCommand("cam"));
        peer.read(7);
        return peer.read();
    };
    for (uint64_t time = 1020; time <= 6020; time += 20) {
        one.sound(time);
    }
    ScriptedPeer early(one.server.port);
    EXPECT_EQ(join(early).type, kPicture); // five seconds: the last key frame still counts
    for (uint64_t time = 6040; time <= 6400; time += 20) {
        one.sound(time);
    }
    ScriptedPeer late(one.server.port);
    const Message first = join(late);
    EXPECT_EQ(first.type, kSound);
    EXPECT_EQ(first.timestamp, 0u);
    // When there are pictures again, who began with sound needs a key frame.
    HostFakes::get().keyFramesWanted.clear();
    one.picture(6440);
    EXPECT_EQ(HostFakes::get().keyFramesWanted().size(), 1u);
}

TEST(SoundOrder, AHostsClockThatIsSetBackMovesBothOnByOneFrame)
{
    OnePlayer one;
    one.picture(5000, kKeyNal);
    one.sound(5010);
    one.picture(5040);
    one.picture(100); // an hour or a minute, it is all the same
    one.sound(110);
    one.picture(140);
    EXPECT_EQ(
        one.seen(),
        (Sequence{
            {kPicture, 0}, {kSound, 10}, {kPicture, 40}, {kPicture, 80}, {kSound, 90}, {kPicture, 120}}));
}

// The caption generator is asked for the time since the picture before.
TEST(SoundOrder, CaptionsAreToldTheTimeBetweenPictures)
{
    HostFakes::get().reset();
    std::vector<uint32_t> deltas;
    HostFakes::get().findCaptionPlace = [](const uint8_t *, int32_t, int32_t *) { return 0; };
    HostFakes::get().getSei = [&](uint64_t, uint8_t **, int32_t *, uint32_t delta) {
        deltas.push_back(delta);
    };
    OnePlayer one;
    one.session->CcGen->Enabled = 1;
    one.picture(1000, kKeyNal);
    one.sound(1010);
    one.picture(1040);
    one.picture(1073);
    EXPECT_EQ(deltas, (std::vector<uint32_t>{0, 40, 33}));
    HostFakes::get().reset();
}

TEST(SoundOrder, ParkedSoundIsBoundedAndNothingOfItIsLost)
{
    OnePlayer one(WaitingFor(UINT32_MAX));
    one.picture(1000, kKeyNal);
    (void)one.seen();
    for (uint64_t i = 1; i <= 600; i++) {
        one.sound(1000 + i);
    }
    const Sequence seen = one.seen();
    ASSERT_GT(seen.size(), 0u); // what there was no room for has left
    EXPECT_EQ(seen.front(), (Seen{kSound, 1}));
    one.picture(2000);
    const Sequence rest = one.seen();
    EXPECT_EQ(seen.size() + rest.size(), 601u);
    EXPECT_EQ(rest.back(), (Seen{kPicture, 1000}));
}

TEST(SoundOrder, LargeSoundIsBoundedByItsBytes)
{
    OnePlayer one(WaitingFor(UINT32_MAX));
    one.picture(1000, kKeyNal);
    (void)one.seen();
    for (uint64_t i = 1; i <= 5; i++) {
        ASSERT_EQ(SendAudio(one.session, Bytes(400000, 0x77), 1000 + i), 0);
    }
    for (uint32_t i = 1; i <= 3; i++) { // two of them are below a MiB, and wait
        EXPECT_EQ(one.peer.read().timestamp, i);
    }
    EXPECT_EQ(one.seen(), Sequence{});
}

TEST(SoundOrder, FramesAreKeptForWhoJoinsWhileNobodyIsConnected)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    EXPECT_EQ(SendVideo(session, VideoFrame(50, kKeyNal), 1000), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(SendAudio(session, Bytes(30, 0x77), 1010), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(SendVideo(session, VideoFrame(50, kInterNal), 1040), RTMP_ERR_NO_CLIENT);
    ScriptedPeer peer(server.port);
    peer.chunks.standard = true;
    peer.created();
    peer.command(PlayCommand("cam"));
    peer.read(7);
    const std::vector<Message> seen = peer.read(3);
    EXPECT_EQ(seen[0].type, kPicture);
    EXPECT_EQ(seen[1].type, kSound);
    EXPECT_EQ(seen[1].timestamp, 10u);
    EXPECT_EQ(seen[2].timestamp, 40u);
}

TEST(SoundOrder, NoSoundIsOverdueWhereNoneWaits)
{
    ParkedSound none = {};
    EXPECT_EQ(TakeOverdueSound(&none, 0), nullptr);
}

TEST(SoundOrder, SoundFromInFrontOfThePictureThatAPlayerBeginsWithIsNotSent)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    EXPECT_EQ(SendVideo(session, VideoFrame(50, kKeyNal), 1000), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(SendAudio(session, Bytes(30, 0x77), 990), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(SendAudio(session, Bytes(30, 0x77), 1010), RTMP_ERR_NO_CLIENT);
    EXPECT_EQ(SendVideo(session, VideoFrame(50, kInterNal), 1040), RTMP_ERR_NO_CLIENT);
    ScriptedPeer peer(server.port);
    peer.chunks.standard = true;
    peer.created();
    peer.command(PlayCommand("cam"));
    peer.read(7);
    Sequence seen;
    for (const Message &message : peer.read(3)) {
        seen.push_back({message.type, message.timestamp});
    }
    EXPECT_EQ(seen, (Sequence{{kPicture, 0}, {kSound, 10}, {kPicture, 40}}));
}
