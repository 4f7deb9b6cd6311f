#include "message/timeline.h"

#include "message/header_fields.h"
#include "message_fixture.h"
#include "net/limits.h"
#include "rtmpcast/player.h"

namespace {

struct PlacedFrame {
    uint64_t time;
    uint64_t delta = 40;
    bool leads = true;
};

std::vector<uint64_t> PlaceAll(RtmpClient *client, const std::vector<PlacedFrame> &frames)
{
    std::vector<uint64_t> times;
    for (const PlacedFrame &frame : frames) {
        const RtmpFrameTime time = {frame.time, frame.delta, static_cast<uint8_t>(frame.leads ? 1 : 0)};
        times.push_back(PlaceOnTimeline(client, &time));
    }
    return times;
}

using PlacedTimes = std::vector<uint64_t>;

constexpr bool kIsNoPicture = false;

} // namespace

TEST(Timeline, BeginsAt0AndFollowsTheHostsClock)
{
    RtmpClient client = {};
    EXPECT_EQ(PlaceAll(&client,
                       {{5000}, {5040}, {5053, 23, kIsNoPicture}, {5076, 23, kIsNoPicture}, {5080}, {65080}}),
              (PlacedTimes{0, 40, 53, 76, 80, 60080}));
    EXPECT_EQ(client.TimelineTime, 60080U);
    BeginTimeline(&client);
    EXPECT_EQ(client.TimelineTime, 0U);
    EXPECT_EQ(PlaceAll(&client, {{70000}, {70040}}), (PlacedTimes{0, 40}));
}

TEST(Timeline, SoundALittleOlderThanThePictureInFrontOfItKeepsItsTime)
{
    RtmpClient client = {};
    EXPECT_EQ(PlaceAll(&client, {{5000}, {4990, 23, kIsNoPicture}, {5040}, {5013, 23, kIsNoPicture}}),
              (PlacedTimes{0, 0, 40, 13}))
        << "and nothing is earlier than the first frame";
}

TEST(Timeline, GoesOnBehindAPauseWithTheDeltaOfTheNextFrame)
{
    RtmpClient client = {};
    PlaceAll(&client, {{5000}, {5040}});
    InterruptTimeline(&client);
    EXPECT_EQ(client.TimelineTime, 40U);
    EXPECT_EQ(PlaceAll(&client, {{90000, 40}, {90023, 23, kIsNoPicture}, {90040}}),
              (PlacedTimes{80, 103, 120}));
    InterruptTimeline(&client);
    EXPECT_EQ(PlaceAll(&client, {{95000, 4960}}), (PlacedTimes{120 + kLongestFrameMs}))
        << "where nobody got frames meanwhile, the pause is in the delta";
}

TEST(Timeline, AClockThatIsSetBackIsFollowedWithoutAStep)
{
    RtmpClient client = {};
    EXPECT_EQ(PlaceAll(&client, {{500000}, {500040}, {100}, {140}, {163, 23, kIsNoPicture}}),
              (PlacedTimes{0, 40, 40, 80, 103}));
    EXPECT_EQ(PlaceAll(&client, {{0x1FFFFFFF0}}), (PlacedTimes{103})) << "so far ahead it counts as older";
}

TEST(Timeline, AClockOf32BitsThatBeginsAgainIsFollowedWithoutAStep)
{
    RtmpClient client = {};
    EXPECT_EQ(PlaceAll(&client, {{0xFFFFFFD8}, {0}, {40}}), (PlacedTimes{0, 0, 40}));
}

TEST(Timeline, SoundFromAnotherClockHasTheTimeOfWhatWasSentLast)
{
    RtmpClient client = {};
    EXPECT_EQ(
        PlaceAll(&client, {{1000000}, {50, 23, kIsNoPicture}, {1000040}, {90, 23, kIsNoPicture}, {1000080}}),
        (PlacedTimes{0, 0, 40, 40, 80}));
    BeginTimeline(&client);
    EXPECT_EQ(
        PlaceAll(&client, {{50}, {1000000, 23, kIsNoPicture}, {90}, {1000040, 23, kIsNoPicture}, {130}}),
        (PlacedTimes{0, 0, 40, 40, 80}));
}

TEST(Timeline, AGapInThePicturesIsAGap)
{
    RtmpClient client = {};
    EXPECT_EQ(PlaceAll(&client, {{1000}, {3601000}, {0x7FFFFFFF}}),
              (PlacedTimes{0, 3600000, 0x7FFFFFFF - 1000}));
}

class TimelineReplies : public MessageTest {};

TEST_F(TimelineReplies, HaveTheTimeOfTheLastFrame)
{
    client.PlayerFlags = RTMP_PLAYERS_TIMELINE;
    client.TimelineTime = 0x01000000;
    RtmpSendPkt reply = {};
    reply.ChunkStreamId = 4;
    SetTimestamp(&reply, 777);
    ASSERT_EQ(StampReply(&client, &reply, RTMP_MSG_PAUSE), 0);
    EXPECT_EQ(reply.Timestamp, 0x01000000U);
    EXPECT_EQ(ToHex(reply.HdrTimestamp, 3), "FF FF FF");
    EXPECT_EQ(ToHex(reply.ExtTimestamp, 4), "01 00 00 00");
    ASSERT_EQ(StampReply(&client, &reply, RTMP_MSG_PING_RESPONSE), 0);
    EXPECT_EQ(reply.Timestamp, 0x01000000U);
    EXPECT_EQ(ToHex(reply.HdrTimestamp, 3), "00 00 00") << "a ping response says 0";
    EXPECT_EQ(ToHex(reply.ExtTimestamp, 4), "00 00 00 00");
}

TEST_F(TimelineReplies, AreStampedByTheClockOfTheConnectionByDefault)
{
    client.TimelineTime = 1234;
    RtmpSendPkt reply = {};
    SetTimestamp(&reply, 777);
    ASSERT_EQ(StampReply(&client, &reply, RTMP_MSG_PAUSE), 0);
    EXPECT_EQ(reply.Timestamp, 777U);
}
