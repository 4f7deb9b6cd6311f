// The ring of finished messages and the pool of their buffers.
#include "steady/message_pool.h"
#include "steady/message_ring.h"

#include <gtest/gtest.h>

#include <set>

namespace {

class MessageRing : public testing::Test {
  protected:
    void open(uint32_t milliseconds, uint32_t bytes)
    {
        service_.Limits.RingMilliseconds = milliseconds;
        service_.Limits.RingBytes = bytes;
        stream_ = NewSteadyStream(&service_, nullptr);
    }
    ~MessageRing() override
    {
        FreeSteadyStream(stream_);
    }
    FinishedMessage *append(uint64_t time, bool isStart = false, uint32_t length = 100,
                            enum SteadyKind kind = STEADY_VIDEO)
    {
        FinishedMessage *message = TakeMessage(stream_, length);
        message->Kind = static_cast<uint8_t>(kind);
        message->Time = time;
        message->IsStart = isStart ? 1 : 0;
        AppendMessage(stream_, message);
        return message;
    }
    uint64_t held() const
    {
        return stream_->Next - stream_->First;
    }

    SteadyService service_ = {};
    SteadyStream *stream_ = nullptr;
};

constexpr uint32_t kAny = UINT32_MAX;

} // namespace

TEST_F(MessageRing, MessagesAreNumberedAndKnowWhatCameBeforeThem)
{
    open(kAny, kAny);
    EXPECT_EQ(append(0)->PreviousOfKind, kNoMessage);
    EXPECT_EQ(append(5, false, 100, STEADY_AUDIO)->PreviousOfKind, kNoMessage);
    const FinishedMessage *picture = append(40);
    EXPECT_EQ(picture->Number, 2u);
    EXPECT_EQ(picture->PreviousOfKind, 0u);
    EXPECT_EQ(picture->Pictures, 2u);
    const FinishedMessage *sound = append(28, false, 100, STEADY_AUDIO);
    EXPECT_EQ(sound->PreviousOfKind, 1u);
    EXPECT_EQ(sound->Pictures, 2u);
}

TEST_F(MessageRing, ItHoldsAsManyMillisecondsAsItsLimitSays)
{
    open(1000, kAny);
    for (uint64_t time = 0; time <= 3000; time += 100) {
        append(time);
    }
    EXPECT_EQ(held(), 11u);                 // 2000 to 3000
    append(2950, false, 100, STEADY_AUDIO); // late sound shortens nothing
    EXPECT_EQ(held(), 12u);
}

TEST_F(MessageRing, ItHoldsAsManyBytesAsItsLimitSays)
{
    open(kAny, 1000);
    for (uint64_t time = 0; time < 100; time++) {
        append(time);
    }
    EXPECT_EQ(held(), 10u);
    EXPECT_EQ(stream_->Bytes, 1000u);
    append(100, false, 950);
    EXPECT_EQ(held(), 1u);
    EXPECT_EQ(stream_->Bytes, 950u);
}

TEST_F(MessageRing, TheNewestMessageStaysHoweverLongItIs)
{
    open(kAny, 1000);
    append(0);
    append(40, true, 5000);
    EXPECT_EQ(held(), 1u);
    EXPECT_EQ(stream_->Start, 1u);
    append(1000000, false, 5000);
    EXPECT_EQ(held(), 1u);
    EXPECT_EQ(stream_->Start, kNoMessage); // the key frame has left
}

TEST_F(MessageRing, TheOldestMakesRoomWhereAllSlotsAreTaken)
{
    open(100, kAny); // the fewest slots
    const uint32_t slots = stream_->SlotCount;
    for (uint32_t i = 0; i < slots; i++) {
        append(1, i == 0);
    }
    EXPECT_EQ(held(), slots);
    EXPECT_EQ(stream_->Start, 0u);
    append(1);
    EXPECT_EQ(held(), slots);
    EXPECT_EQ(stream_->First, 1u);
    EXPECT_EQ(stream_->Start, kNoMessage);
    EXPECT_EQ(stream_->Bytes, slots * 100u);
}

TEST_F(MessageRing, ThereAreSlotsForTheMillisecondsOfTheLimit)
{
    open(60000, kAny);
    EXPECT_GE(stream_->SlotCount, 60u * 110); // pictures at 60 a second, sound at 47
    EXPECT_EQ(stream_->SlotCount & (stream_->SlotCount - 1), 0u);
    FreeSteadyStream(stream_);
    open(kAny, kAny);
    EXPECT_LE(stream_->SlotCount, 65536u);
}

TEST_F(MessageRing, WhatNoPlayerNeedsLeavesButFromTheLastKeyFrameOn)
{
    open(kAny, kAny);
    append(0, true);
    append(40);
    append(80, true);
    append(120);
    TrimRing(stream_, kNoMessage);
    EXPECT_EQ(stream_->First, 2u);
    TrimRing(stream_, 3); // a newcomer needs it
    EXPECT_EQ(stream_->First, 2u);
    append(160, true);
    TrimRing(stream_, 3); // and one player the one before
    EXPECT_EQ(stream_->First, 3u);
    TrimRing(stream_, 1); // out of it already
    EXPECT_EQ(stream_->First, 3u);
}

TEST_F(MessageRing, WithoutAKeyFrameNothingIsHeldThatNoPlayerNeeds)
{
    open(kAny, kAny);
    append(0);
    append(40);
    TrimRing(stream_, 1);
    EXPECT_EQ(held(), 1u);
    TrimRing(stream_, kNoMessage);
    EXPECT_EQ(held(), 0u);
    EXPECT_EQ(stream_->Bytes, 0u);
    append(80, true);
    EXPECT_EQ(held(), 1u);
    EXPECT_EQ(stream_->Start, 2u);
}

TEST_F(MessageRing, AnEmptiedRingHasNothingToBeginWith)
{
    open(kAny, kAny);
    append(0, true);
    append(40);
    EmptyRing(stream_);
    EXPECT_EQ(held(), 0u);
    EXPECT_EQ(stream_->Bytes, 0u);
    EXPECT_EQ(stream_->Start, kNoMessage);
    FinishedMessage *none = nullptr;
    EXPECT_EQ(ReferMessages(stream_, 0, &none, 1), 0u);
    EXPECT_EQ(append(80)->Number, 3u); // numbers go on, behind one that no message gets
}

TEST_F(MessageRing, MessagesAreReferredToFromAnyPlaceInTheRingAndFromNoneOutside)
{
    open(kAny, kAny);
    for (uint64_t i = 0; i < 5; i++) {
        append(40 * i);
    }
    TrimRing(stream_, 1);
    FinishedMessage *messages[8] = {};
    EXPECT_EQ(ReferMessages(stream_, 0, messages, 8), 0u);
    EXPECT_EQ(ReferMessages(stream_, 5, messages, 8), 0u);
    EXPECT_EQ(ReferMessages(stream_, kNoMessage, messages, 8), 0u);
    EXPECT_EQ(ReferMessages(stream_, 1, messages, 8), 4u);
    EXPECT_EQ(messages[0]->Number, 1u);
    EXPECT_EQ(messages[3]->Number, 4u);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(messages[i]->References, 2u);
        DropMessage(stream_, messages[i]);
    }
    EXPECT_EQ(ReferMessages(stream_, 3, messages, 1), 1u);
    EXPECT_EQ(messages[0]->Number, 3u);
    DropMessage(stream_, messages[0]);
}

TEST_F(MessageRing, AReferenceOutlivesItsSlot)
{
    open(kAny, kAny);
    FinishedMessage *message = append(0);
    message->Bytes[99] = 0xA5;
    FinishedMessage *mine = nullptr;
    ASSERT_EQ(ReferMessages(stream_, 0, &mine, 1), 1u);
    EmptyRing(stream_);
    FinishedMessage *other = TakeMessage(stream_, 100); // its buffer is still in use
    EXPECT_NE(other, mine);
    EXPECT_EQ(mine->References, 1u);
    EXPECT_EQ(mine->Bytes[99], 0xA5);
    DropMessage(stream_, mine);
    DropMessage(stream_, other);
}

// ------------------------------------------------------------------------------------ the pool

TEST_F(MessageRing, BuffersAreUsedAgain)
{
    open(kAny, kAny);
    FinishedMessage *first = TakeMessage(stream_, 3000);
    DropMessage(stream_, first);
    EXPECT_EQ(TakeMessage(stream_, 2100), first); // of the same size class
    EXPECT_EQ(first->Length, 2100u);
    EXPECT_EQ(first->References, 1u);
    FinishedMessage *smaller = TakeMessage(stream_, 100);
    EXPECT_NE(smaller, first);
    DropMessage(stream_, first);
    DropMessage(stream_, smaller);
}

// A second of frames goes round and round: no memory is asked for any more.
TEST_F(MessageRing, InSteadyStateNoBufferIsNew)
{
    open(1000, kAny);
    std::set<const FinishedMessage *> seen;
    const auto second = [&](uint64_t from) {
        for (uint64_t i = 0; i < 25; i++) {
            seen.insert(append(from + 40 * i, i == 0, i == 0 ? 40000 : 9000));
            seen.insert(append(from + 40 * i + 5, false, 400, STEADY_AUDIO));
        }
    };
    second(0);
    second(1000);
    second(2000);
    const size_t before = seen.size();
    for (uint64_t from = 3000; from < 60000; from += 1000) {
        second(from);
    }
    EXPECT_EQ(seen.size(), before);
}

TEST_F(MessageRing, ThePoolKeepsNoMoreThanTwoMegabytes)
{
    open(kAny, kAny);
    for (int i = 0; i < 100; i++) {
        append(0, false, 100000);
    }
    EmptyRing(stream_);
    EXPECT_GT(stream_->FreeBytes, 0u);
    EXPECT_LE(stream_->FreeBytes, 2u << 20);
}

// The longest message, cut into chunks of one byte, is longer than the last class has room for.
TEST_F(MessageRing, AMessageLongerThanEveryClassIsHeldAllTheSame)
{
    open(kAny, kAny);
    constexpr uint32_t kLongest = 8 + 2 * 0xFFFFFF;
    for (int i = 0; i < 2; i++) {
        FinishedMessage *message = append(0, true, kLongest);
        message->Bytes[0] = 1;
        message->Bytes[kLongest - 1] = 2;
        EmptyRing(stream_);
    }
    EXPECT_EQ(stream_->FreeBytes, 0u);
    FinishedMessage *shorter = TakeMessage(stream_, 0xFFFFFF);
    shorter->Bytes[0xFFFFFE] = 3;
    DropMessage(stream_, shorter);
}
