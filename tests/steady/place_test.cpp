// A player's place in the ring: which message it gets next, and under which header (RTMP 1.0, 5.3.1).
#include "steady/place.h"
#include "support/bytes.h"

#include "steady/message_pool.h"
#include "steady/message_ring.h"
#include "steady/shared_header.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t kBody = 0x0102;
constexpr uint32_t kStreamId = 1;

struct StepTaken {
    int length; // of the header of the player's own; 0: none, -1: it does not get the message
    Bytes header;
};

// A ring without a server, and one player's place in it.
class PlaceTest : public testing::Test {
  protected:
    PlaceTest()
    {
        service_.Limits.RingMilliseconds = UINT32_MAX;
        service_.Limits.RingBytes = UINT32_MAX;
        stream_ = NewSteadyStream(&service_, nullptr);
        PlaceAtBeginning(&place_, 0);
    }
    ~PlaceTest() override
    {
        FreeSteadyStream(stream_);
    }
    uint64_t append(enum SteadyKind kind, uint64_t time, bool isStart = false)
    {
        FinishedMessage *message = TakeMessage(stream_, 300);
        message->Kind = static_cast<uint8_t>(kind);
        message->BodyLength = kBody;
        message->Time = time;
        message->IsStart = isStart ? 1 : 0;
        AppendMessage(stream_, message);
        return stream_->Next - 1;
    }
    uint64_t key(uint64_t time)
    {
        return append(STEADY_VIDEO, time, true);
    }
    uint64_t picture(uint64_t time)
    {
        return append(STEADY_VIDEO, time);
    }
    uint64_t sound(uint64_t time)
    {
        return append(STEADY_AUDIO, time);
    }
    // The player takes its next message, which must be there.
    StepTaken step()
    {
        bool restarted = false;
        missed_ = FindPlace(stream_, &place_, joined_, &restarted);
        restarted_ = restarted;
        FinishedMessage *message = nullptr;
        if (ReferMessages(stream_, place_.Next, &message, 1) != 1) {
            ADD_FAILURE() << "no message for the player";
            return {-2, {}};
        }
        uint8_t header[kOwnHeaderMost] = {};
        const int length = StepOver(&place_, message, kStreamId, header);
        DropMessage(stream_, message);
        return {length, Bytes(header, header + (length > 0 ? length : 0))};
    }
    bool hasNext()
    {
        bool restarted = false;
        (void)FindPlace(stream_, &place_, joined_, &restarted);
        return place_.Next != kNoMessage && place_.Next >= stream_->First && place_.Next < stream_->Next;
    }
    void forgetUpTo(uint64_t number) // the ring lets go of what stands in front of it
    {
        while (stream_->First < number) {
            TrimTo(number);
        }
    }
    void TrimTo(uint64_t number)
    {
        const uint64_t start = stream_->Start;
        stream_->Start = kNoMessage;
        TrimRing(stream_, number);
        stream_->Start = start != kNoMessage && start >= number ? start : kNoMessage;
    }
    static Bytes First(uint8_t chunkStream, uint32_t time, uint8_t type)
    {
        return Join({{chunkStream}, BigEndian(time, 3), Hex("000102"), {type}, Hex("01000000")});
    }
    static Bytes Again(uint8_t chunkStream, uint32_t delta, uint8_t type)
    {
        return Join({{static_cast<uint8_t>(0x40 | chunkStream)}, BigEndian(delta, 3), Hex("000102"), {type}});
    }

    SteadyService service_ = {};
    SteadyStream *stream_ = nullptr;
    SteadyPlace place_ = {};
    uint64_t joined_ = 0;
    uint64_t missed_ = 0;
    bool restarted_ = false;
};

} // namespace

// fmt:2 chunk stream:6  timestamp:24  length:24  type:8  stream id:32 (little-endian)
TEST(SharedHeader, AFirstHeaderHasTimeLengthTypeAndMessageStream)
{
    uint8_t header[kOwnHeaderMost];
    PutFirstHeader(header, STEADY_VIDEO, 0x00ABCDEF, 0x123456, 0x01020304);
    EXPECT_EQ(Bytes(header, header + sizeof header), Hex("1C 123456 ABCDEF 09 04030201"));
    PutFirstHeader(header, STEADY_AUDIO, 1, 0, 1);
    EXPECT_EQ(Bytes(header, header + sizeof header), Hex("1D 000000 000001 08 01000000"));
}

TEST(SharedHeader, ASharedHeaderHasDifferenceLengthAndType)
{
    uint8_t header[kSharedHeaderSize];
    PutSharedHeader(header, STEADY_VIDEO, 0xFFFFFF, 40);
    EXPECT_EQ(Bytes(header, header + sizeof header), Hex("5C 000028 FFFFFF 09"));
    PutSharedHeader(header, STEADY_AUDIO, 2, 23);
    EXPECT_EQ(Bytes(header, header + sizeof header), Hex("5D 000017 000002 08"));
}

// FFFFFF would announce the extended field (RTMP 1.0, 5.3.1.3).
TEST(SharedHeader, ATimeNeverAnnouncesTheExtendedField)
{
    uint8_t header[kOwnHeaderMost];
    PutSharedHeader(header, STEADY_VIDEO, 1, 0xFFFFFF);
    EXPECT_EQ(Bytes(header, header + kSharedHeaderSize), Hex("5C FFFFFE 000001 09"));
    PutFirstHeader(header, STEADY_VIDEO, 1, UINT64_MAX, 1);
    EXPECT_EQ(Bytes(header, header + sizeof header), Hex("1C FFFFFE 000001 09 01000000"));
}

TEST(SharedHeader, AContinuationIsTheChunkStreamAlone)
{
    EXPECT_EQ(ContinuationOf(STEADY_VIDEO), 0xDC);
    EXPECT_EQ(ContinuationOf(STEADY_AUDIO), 0xDD);
}

TEST_F(PlaceTest, TheFirstMessageOfEachKindHasAWholeHeaderAndTimeBeginsAtZero)
{
    key(5000);
    sound(5007);
    picture(5040);
    sound(5030);
    EXPECT_EQ(step().header, First(28, 0, 9));
    EXPECT_EQ(step().header, First(29, 7, 8));
    EXPECT_EQ(step().length, 0); // the shared header does
    EXPECT_EQ(step().length, 0);
    EXPECT_EQ(TimeOnTimeline(&place_), 40u);
}

TEST_F(PlaceTest, ANewcomerBeginsWithTheNewestKeyFrame)
{
    key(0);
    picture(40);
    const uint64_t newest = key(80);
    sound(81);
    step();
    EXPECT_EQ(place_.Next, newest + 1);
    EXPECT_FALSE(restarted_);
    EXPECT_EQ(missed_, 0u);
}

TEST_F(PlaceTest, WithoutAKeyFrameInTheRingItWaitsForTheNextAndTheHostIsAskedForOne)
{
    picture(0);
    sound(5);
    EXPECT_FALSE(hasNext());
    EXPECT_EQ(stream_->KeyFrameWanted, 1);
    key(40);
    EXPECT_EQ(stream_->KeyFrameWanted, 0); // here it is
    EXPECT_EQ(step().header, First(28, 0, 9));
}

TEST_F(PlaceTest, AKeyFrameInFrontOfTheJoinIsNoneToBeginWithWhereThereIsNoBurst)
{
    key(0);
    picture(40);
    joined_ = stream_->Next;
    EXPECT_FALSE(hasNext());
    const uint64_t next = key(80);
    step();
    EXPECT_EQ(place_.Next, next + 1);
}

TEST_F(PlaceTest, SoundFromInFrontOfTheBeginningIsLeftOut)
{
    key(5000);
    sound(4990);
    sound(5013);
    sound(5036);
    EXPECT_EQ(step().header, First(28, 0, 9));
    EXPECT_EQ(step().length, STEP_SKIPPED);
    EXPECT_EQ(step().header, First(29, 13, 8));
    EXPECT_EQ(step().length, 0);
}

// What the player sees of a fall: a difference as long as the gap, on the same timeline.
TEST_F(PlaceTest, APlayerThatFellOutGoesOnAtAKeyFrameWithItsOwnHeader)
{
    key(1000);
    sound(1010);
    step();
    step();
    picture(1040);
    sound(1033);
    picture(1080);
    const uint64_t next = key(3000);
    sound(3003);
    picture(3040);
    forgetUpTo(next);
    EXPECT_EQ(step().header, Again(28, 2000, 9));
    EXPECT_TRUE(restarted_);
    EXPECT_EQ(missed_, 3u);
    EXPECT_EQ(step().header, Again(29, 1993, 8));
    EXPECT_FALSE(restarted_);
    EXPECT_EQ(step().length, 0);
}

TEST_F(PlaceTest, APlayerThatFellOutWhereNoKeyFrameIsWaitsAndTheHostIsAsked)
{
    key(0);
    step();
    picture(40);
    const uint64_t kept = picture(80);
    forgetUpTo(kept);
    EXPECT_FALSE(hasNext());
    EXPECT_EQ(stream_->KeyFrameWanted, 1);
    key(120);
    EXPECT_EQ(step().header, Again(28, 120, 9));
    EXPECT_EQ(missed_, 2u);
}

// What it got last is in front of the fall, but nothing of the kind has been lost since.
TEST_F(PlaceTest, SoundGoesOnUnderTheSharedHeaderWhereOnlyPicturesWereLost)
{
    key(0);
    sound(5);
    step();
    step();
    picture(40);
    const uint64_t next = key(80);
    sound(90);
    forgetUpTo(next);
    EXPECT_EQ(step().header, Again(28, 80, 9));
    EXPECT_EQ(step().length, 0);
}

TEST_F(PlaceTest, MediaTimeGoesOnOverAPauseAsIfNothingHadHappened)
{
    key(1000);
    sound(1010);
    step();
    step();
    PlaceAtBeginning(&place_, 1);
    key(61000);
    sound(61020);
    picture(61040);
    EXPECT_EQ(step().header, Again(28, 10 + 33, 9)); // one frame behind the sound at 10
    EXPECT_EQ(step().header, Again(29, 33 + 20, 8));
    EXPECT_EQ(step().length, 0);
    EXPECT_EQ(TimeOnTimeline(&place_), 10u + 33 + 40);
}

// The key frame that it goes on with may be older than the pause.
TEST_F(PlaceTest, APauseWithoutANewerKeyFrameRepeatsTheOneThatIsHeld)
{
    key(1000);
    picture(1040);
    step();
    step();
    PlaceAtBeginning(&place_, 1);
    EXPECT_EQ(step().header, Again(28, 33, 9));
    EXPECT_EQ(step().length, 0);
    EXPECT_EQ(TimeOnTimeline(&place_), 40u + 33 + 40);
}

TEST_F(PlaceTest, AKindThatHadNotBegunBeforeThePauseBeginsBehindIt)
{
    key(1000);
    step();
    PlaceAtBeginning(&place_, 1);
    key(9000);
    sound(9007);
    EXPECT_EQ(step().header, Again(28, 33, 9));
    EXPECT_EQ(step().header, First(29, 40, 8));
}

TEST_F(PlaceTest, ARepeatedPlayBeginsAtZeroWithWholeHeaders)
{
    key(1000);
    sound(1010);
    step();
    step();
    PlaceAtBeginning(&place_, 0);
    key(2000);
    sound(2005);
    EXPECT_EQ(step().header, First(28, 0, 9));
    EXPECT_EQ(step().header, First(29, 5, 8));
}

// Sound that is a little late behind an unpause would otherwise be told as a difference of 0, and be ahead of
// the pictures from then on; a little more with every pause.
TEST_F(PlaceTest, PausesDoNotMoveSoundAgainstThePictures)
{
    uint64_t now = 100000;
    uint64_t sent[STEADY_KINDS] = {}; // the player's clocks, as its headers tell
    for (int pause = 0; pause < 50; pause++, now += 10000) {
        key(now);
        sound(now - 60);
        sound(now + 3);
        picture(now + 40);
        sound(now + 26);
        for (int i = 0; i < 5; i++) {
            const StepTaken each = step();
            const FinishedMessage *message = stream_->Slots[place_.Next - 1];
            if (each.length > 0) {
                const uint64_t field = each.header[1] << 16 | each.header[2] << 8 | each.header[3];
                sent[message->Kind] = (each.length == kOwnHeaderMost ? 0 : sent[message->Kind]) + field;
            } else if (each.length == 0) {
                sent[message->Kind] += message->Time - stream_->Slots[message->PreviousOfKind]->Time;
            }
        }
        EXPECT_EQ(sent[STEADY_VIDEO], sent[STEADY_AUDIO] + 14) << pause; // now + 40, now + 26
        PlaceAtBeginning(&place_, 1);
    }
}

// 16,777,214 ms are what the field holds: 4 hours 39 minutes.
TEST_F(PlaceTest, ADifferenceThatDoesNotFitIsToldByTheNextHeaderToo)
{
    key(0);
    sound(0);
    step();
    step();
    const uint64_t later = 20000000;
    sound(20);
    const uint64_t next = key(later);
    sound(later + 10);
    sound(later + 33);
    sound(later + 56);
    forgetUpTo(next);
    EXPECT_EQ(step().length, 0);
    EXPECT_EQ(step().header, Again(29, 0xFFFFFE, 8));
    EXPECT_EQ(step().header, Again(29, later + 33 - 0xFFFFFE, 8));
    EXPECT_EQ(step().length, 0);
}

TEST_F(PlaceTest, SoundThatBeginsAfterFiveHoursOfPicturesFindsTheirTime)
{
    key(0);
    step();
    const uint64_t later = 18000000;
    place_.LastOfKind[STEADY_VIDEO] = kOtherMessage; // headers of its own until it is there
    key(later);
    picture(later + 40);
    picture(later + 80);
    sound(later + 90);
    sound(later + 113);
    sound(later + 136);
    EXPECT_EQ(step().header, Again(28, 0xFFFFFE, 9));
    EXPECT_EQ(step().header, Again(28, later + 40 - 0xFFFFFE, 9));
    EXPECT_EQ(step().length, 0);
    EXPECT_EQ(step().header, First(29, 0xFFFFFE, 8));
    EXPECT_EQ(step().header, Again(29, later + 113 - 0xFFFFFE, 8));
    EXPECT_EQ(step().length, 0);
}

// Half a session's messages of the other kind in between change nothing.
TEST_F(PlaceTest, EachKindIsToldFromTheMessageBeforeItOfTheSameKind)
{
    key(0);
    step();
    for (uint64_t i = 1; i < 100; i++) {
        picture(40 * i);
        EXPECT_EQ(step().length, 0);
    }
    sound(4000);
    EXPECT_EQ(step().header, First(29, 4000, 8));
    picture(4000);
    EXPECT_EQ(step().length, 0);
}
