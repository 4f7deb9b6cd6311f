#include "instruments/ring.h"

#include "net/atomic.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

namespace {

struct RingDeleter {
    void operator()(RtmpQueueBuffer *ring) const
    {
        RtmpQueueBufferDestroy(ring);
    }
};
using Ring = std::unique_ptr<RtmpQueueBuffer, RingDeleter>;

Ring MakeRing(uint32_t size)
{
    return Ring(RtmpQueueBufferCreate(size));
}

int AddText(const Ring &ring, const std::string &text, uint64_t timestamp = 0)
{
    return RtmpQueueBufferAdd(ring.get(), RTMP_MSG_VIDEO, reinterpret_cast<const uint8_t *>(text.data()),
                              static_cast<int32_t>(text.size()), 0, 0, timestamp);
}

std::string TextOf(const RtmpQueueBufferItem *item)
{
    return item == nullptr
               ? "(none)"
               : std::string(reinterpret_cast<const char *>(item->Data), static_cast<size_t>(item->Length));
}

std::string TakeText(const Ring &ring)
{
    return TextOf(RtmpQueueBufferTake(ring.get()));
}

int Posts(const Ring &ring)
{
    int value = -1;
    sem_getvalue(&ring->Sem, &value);
    return value;
}

} // namespace

TEST(Ring, MadeForTenAcceptsElevenFramesAndRefusesTheTwelfth)
{
    const Ring ring = MakeRing(10);
    for (int i = 0; i < 11; i++) {
        ASSERT_EQ(AddText(ring, "frame"), QUEUE_BUFFER_OK) << i;
    }
    EXPECT_EQ(AddText(ring, "frame"), QUEUE_BUFFER_FULL);
    EXPECT_EQ(RtmpQueueBufferCount(ring.get()), 11);
    EXPECT_EQ(Posts(ring), 11);
    RtmpQueueBufferFlush(ring.get());
    EXPECT_EQ(RtmpQueueBufferCount(ring.get()), 0);
    EXPECT_EQ(Posts(ring), 0);
    EXPECT_EQ(AddText(ring, "next"), QUEUE_BUFFER_OK);
    EXPECT_EQ(TakeText(ring), "next");
}

TEST(Ring, ItemsComeOutInOrderAroundTheEndOfTheSlots)
{
    const Ring ring = MakeRing(2);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(AddText(ring, "a" + std::to_string(i)), QUEUE_BUFFER_OK);
        ASSERT_EQ(AddText(ring, "b" + std::to_string(i)), QUEUE_BUFFER_OK);
        ASSERT_EQ(TakeText(ring), "a" + std::to_string(i));
        ASSERT_EQ(RtmpQueueBufferRelease(ring.get()), QUEUE_BUFFER_OK);
        ASSERT_EQ(TakeText(ring), "b" + std::to_string(i));
        ASSERT_EQ(RtmpQueueBufferRemove(ring.get()), QUEUE_BUFFER_OK);
    }
    EXPECT_EQ(RtmpQueueBufferTake(ring.get()), nullptr);
    EXPECT_EQ(RtmpQueueBufferRelease(ring.get()), QUEUE_BUFFER_EMPTY);
    EXPECT_EQ(RtmpQueueBufferRemove(ring.get()), QUEUE_BUFFER_EMPTY);
}

TEST(Ring, AnItemCarriesEveryFieldAndACopyOfItsData)
{
    const Ring ring = MakeRing(1);
    uint8_t frame[] = {1, 2, 3};
    ASSERT_EQ(RtmpQueueBufferAdd(ring.get(), RTMP_MSG_AUDIO, frame, 3, 0, 77, 123456789012ULL),
              QUEUE_BUFFER_OK);
    frame[0] = 9;
    const RtmpQueueBufferItem *item = RtmpQueueBufferTake(ring.get());
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->Type, 52U);
    EXPECT_EQ(item->Length, 3);
    EXPECT_EQ(item->Fd, 0);
    EXPECT_EQ(item->MapBase, 77U);
    EXPECT_EQ(item->Timestamp, 123456789012ULL);
    EXPECT_NE(item->Data, frame);
    EXPECT_EQ(item->Data[0], 1);
}

TEST(Ring, AFrameWithAFileIsReferencedNotCopied)
{
    const Ring ring = MakeRing(1);
    const uint8_t frame[] = {1, 2, 3};
    ASSERT_EQ(RtmpQueueBufferAdd(ring.get(), RTMP_MSG_VIDEO, frame, 3, 1, 5, 6), QUEUE_BUFFER_OK);
    const RtmpQueueBufferItem *item = RtmpQueueBufferTake(ring.get());
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->Data, frame);
    EXPECT_EQ(item->Buffer, nullptr);
    EXPECT_EQ(RtmpQueueBufferRelease(ring.get()), QUEUE_BUFFER_OK);
}

TEST(Ring, ATakenItemStaysInTheRingUntilItIsReleased)
{
    const Ring ring = MakeRing(3);
    AddText(ring, "one");
    AddText(ring, "two");
    EXPECT_EQ(TakeText(ring), "one");
    EXPECT_EQ(TakeText(ring), "one");
    EXPECT_EQ(RtmpQueueBufferCount(ring.get()), 2);
    EXPECT_EQ(RtmpQueueBufferRelease(ring.get()), QUEUE_BUFFER_OK);
    EXPECT_EQ(TakeText(ring), "two");
}

TEST(Ring, SlotsKeepTheirBuffersBetweenUses)
{
    const Ring ring = MakeRing(1);
    const uint8_t *first[2] = {};
    for (int i = 0; i < 2; i++) {
        AddText(ring, std::string(5000, 'x'));
        first[i] = RtmpQueueBufferTake(ring.get())->Data;
        RtmpQueueBufferRelease(ring.get());
    }
    EXPECT_NE(first[0], first[1]);
    for (int i = 0; i < 10; i++) {
        AddText(ring, std::string(static_cast<size_t>(1 + i * 500), 'y'));
        EXPECT_EQ(RtmpQueueBufferTake(ring.get())->Data, first[i % 2]);
        RtmpQueueBufferRelease(ring.get());
    }
}

TEST(Ring, ASlotsBufferOutlivesAReferencedFrame)
{
    const Ring ring = MakeRing(0);
    const uint8_t mapped[4] = {};
    AddText(ring, "copy");
    const uint8_t *buffer = RtmpQueueBufferTake(ring.get())->Data;
    RtmpQueueBufferRelease(ring.get());
    RtmpQueueBufferAdd(ring.get(), RTMP_MSG_VIDEO, mapped, 4, 7, 0, 0);
    EXPECT_EQ(RtmpQueueBufferTake(ring.get())->Data, mapped);
    RtmpQueueBufferRelease(ring.get());
    AddText(ring, "copy");
    EXPECT_EQ(RtmpQueueBufferTake(ring.get())->Data, buffer);
}

TEST(Ring, ResetAndFlushFreeTheBuffers)
{
    const Ring ring = MakeRing(3);
    for (void (*empty)(RtmpQueueBuffer *) : {RtmpQueueBufferReset, RtmpQueueBufferFlush}) {
        AddText(ring, "one");
        AddText(ring, "two");
        RtmpQueueBufferRelease(ring.get());
        empty(ring.get());
        for (int i = 0; i < ring->Size; i++) {
            EXPECT_EQ(ring->Items[i].Buffer, nullptr);
            EXPECT_EQ(ring->Items[i].Data, nullptr);
            EXPECT_EQ(ring->Items[i].Length, 0);
        }
        EXPECT_EQ(ring->Count, 0);
        EXPECT_EQ(ring->ReadPos, 0);
        EXPECT_EQ(ring->WritePos, 0);
        EXPECT_EQ(Posts(ring), 0);
    }
}

TEST(Ring, TheItemBeingSentOutlivesAFlush)
{
    const Ring ring = MakeRing(3);
    AddText(ring, "sending");
    AddText(ring, "waiting");
    const RtmpQueueBufferItem *item = RtmpQueueBufferTake(ring.get());
    RtmpQueueBufferFlush(ring.get());
    for (int i = 0; i < 4; i++) {
        AddText(ring, "newer" + std::to_string(i)); // every slot, the one that was being sent from included
    }
    EXPECT_EQ(TextOf(item), "sending");
    EXPECT_EQ(RtmpQueueBufferRelease(ring.get()), QUEUE_BUFFER_OK);
    EXPECT_EQ(RtmpQueueBufferCount(ring.get()), 4);
    EXPECT_EQ(TakeText(ring), "newer0");
}

TEST(Ring, AFlushedItemIsReleasedAfterASecondFlushToo)
{
    const Ring ring = MakeRing(1);
    AddText(ring, "sending");
    const RtmpQueueBufferItem *item = RtmpQueueBufferTake(ring.get());
    RtmpQueueBufferFlush(ring.get());
    AddText(ring, "lost");
    RtmpQueueBufferFlush(ring.get());
    AddText(ring, "kept");
    EXPECT_EQ(TextOf(item), "sending");
    EXPECT_EQ(RtmpQueueBufferRelease(ring.get()), QUEUE_BUFFER_OK);
    EXPECT_EQ(TakeText(ring), "kept");
}

TEST(Ring, WhatAConsumerLeftBehindIsFreed)
{
    // Leak and address sanitizers watch.
    const Ring ring = MakeRing(1);
    AddText(ring, "taken by a consumer that ended");
    RtmpQueueBufferTake(ring.get());
    RtmpQueueBufferFlush(ring.get());
    AddText(ring, "next");
    EXPECT_EQ(TakeText(ring), "next");
    RtmpQueueBufferFlush(ring.get());
    RtmpQueueBufferReset(ring.get());
    EXPECT_EQ(RtmpQueueBufferTake(ring.get()), nullptr);
    AddText(ring, "last");
    RtmpQueueBufferTake(ring.get());
    RtmpQueueBufferFlush(ring.get());
}

TEST(Ring, AnItemWhoseSendingHadBegunIsNotSentAgain)
{
    const Ring ring = MakeRing(3);
    AddText(ring, "one");
    AddText(ring, "two");
    sem_wait(&ring->Sem);
    ASSERT_NE(RtmpQueueBufferTake(ring.get()), nullptr);
    RtmpQueueBufferBeginSend(ring.get());
    RtmpQueueBufferRecover(ring.get());
    EXPECT_EQ(Posts(ring), 1);
    EXPECT_EQ(TakeText(ring), "two");
}

TEST(Ring, AnItemThatWasOnlyTakenGetsItsPostBack)
{
    const Ring ring = MakeRing(3);
    AddText(ring, "one");
    AddText(ring, "two");
    sem_wait(&ring->Sem);
    ASSERT_NE(RtmpQueueBufferTake(ring.get()), nullptr);
    RtmpQueueBufferRecover(ring.get());
    EXPECT_EQ(Posts(ring), 2);
    EXPECT_EQ(TakeText(ring), "one");
}

TEST(Ring, WhatAFlushTookFromTheSenderIsFreedAndNothingElseIsDropped)
{
    const Ring ring = MakeRing(3);
    AddText(ring, "one");
    ASSERT_NE(RtmpQueueBufferTake(ring.get()), nullptr);
    RtmpQueueBufferBeginSend(ring.get());
    RtmpQueueBufferFlush(ring.get());
    AddText(ring, "two");
    RtmpQueueBufferRecover(ring.get());
    EXPECT_EQ(Posts(ring), 1);
    EXPECT_EQ(TakeText(ring), "two");
}

TEST(Ring, NoRingAndNoFrameAreAnswered)
{
    const Ring ring = MakeRing(1);
    const uint8_t byte = 1;
    EXPECT_EQ(RtmpQueueBufferAdd(nullptr, RTMP_MSG_VIDEO, &byte, 1, 0, 0, 0), 1);
    EXPECT_EQ(RtmpQueueBufferAdd(ring.get(), RTMP_MSG_VIDEO, nullptr, 1, 0, 0, 0), 1);
    EXPECT_EQ(RtmpQueueBufferAdd(ring.get(), RTMP_MSG_VIDEO, &byte, -1, 0, 0, 0), 1);
    EXPECT_EQ(RtmpQueueBufferTake(nullptr), nullptr);
    EXPECT_EQ(RtmpQueueBufferRelease(nullptr), 1);
    EXPECT_EQ(RtmpQueueBufferRemove(nullptr), 1);
    RtmpQueueBufferReset(nullptr);
    RtmpQueueBufferFlush(nullptr);
    RtmpQueueBufferDestroy(nullptr);
    EXPECT_EQ(RtmpQueueBufferCount(ring.get()), 0);
}

TEST(Ring, ASizeOfZeroHoldsOneFrame)
{
    const Ring ring = MakeRing(0);
    ASSERT_NE(ring, nullptr);
    EXPECT_EQ(AddText(ring, "one"), QUEUE_BUFFER_OK);
    EXPECT_EQ(AddText(ring, "two"), QUEUE_BUFFER_FULL);
    RtmpQueueBufferFlush(ring.get());
    EXPECT_EQ(AddText(ring, "three"), QUEUE_BUFFER_OK);
    EXPECT_EQ(TakeText(ring), "three");
}

TEST(Ring, SizesNearTheEndOfTheirTypesAreRefused)
{
    for (const uint32_t size : {0x7FFFFFFEU, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(RtmpQueueBufferCreate(size), nullptr) << size;
    }
}

TEST(RingItem, ResetFreesAnOwnedCopyAndZeroesEveryField)
{
    RtmpQueueBufferItem from = {};
    uint8_t data[3] = {1, 2, 3};
    from.Type = RTMP_MSG_AUDIO;
    from.Data = data;
    from.Length = 3;
    from.MapBase = 4;
    from.Timestamp = 5;
    RtmpQueueBufferItem item = {};
    ASSERT_EQ(RtmpQueueBufferItemCopy(&item, &from), QUEUE_BUFFER_OK);
    EXPECT_EQ(item.Type, 52U);
    EXPECT_EQ(item.Length, 3);
    EXPECT_EQ(item.MapBase, 4U);
    EXPECT_EQ(item.Timestamp, 5U);
    EXPECT_NE(item.Data, from.Data);
    EXPECT_EQ(memcmp(item.Data, data, 3), 0);
    RtmpQueueBufferItemReset(&item);
    const RtmpQueueBufferItem zero = {};
    EXPECT_EQ(memcmp(&item, &zero, sizeof zero), 0);
}

TEST(RingItem, ACopyOfAReferenceIsAReference)
{
    uint8_t data[3] = {1, 2, 3};
    RtmpQueueBufferItem from = {};
    from.Data = data;
    from.Length = 3;
    from.Fd = 8;
    RtmpQueueBufferItem item = {};
    ASSERT_EQ(RtmpQueueBufferItemCopy(&item, &from), QUEUE_BUFFER_OK);
    EXPECT_EQ(item.Data, data);
    EXPECT_EQ(item.Fd, 8);
    EXPECT_EQ(item.Buffer, nullptr);
}

TEST(RingItem, ANullArgumentIsAnswered)
{
    RtmpQueueBufferItem item = {};
    EXPECT_EQ(RtmpQueueBufferItemCopy(nullptr, &item), 1);
    EXPECT_EQ(RtmpQueueBufferItemCopy(&item, nullptr), 1);
    EXPECT_EQ(RtmpQueueBufferItemCopy(&item, &item), 0); // an empty slot
}

// One producer that adds and flushes, one consumer that takes, looks at every byte and releases. What comes
// out is whole and never older than what came out before.
TEST(RingThreads, FlushesNeverTearAnItemNorDropANewerOne)
{
    const Ring ring = MakeRing(4);
    constexpr uint32_t kFrames = 60000;
    std::atomic<bool> done{false};
    std::atomic<uint64_t> seen{0};
    std::thread consumer([&] {
        uint64_t previous = 0;
        while (!done || RtmpQueueBufferCount(ring.get()) > 0) {
            const RtmpQueueBufferItem *item = RtmpQueueBufferTake(ring.get());
            if (item == nullptr) {
                std::this_thread::yield();
                continue;
            }
            ASSERT_GT(item->Timestamp, previous);
            previous = item->Timestamp;
            for (int32_t i = 0; i < item->Length; i++) {
                ASSERT_EQ(item->Data[i], static_cast<uint8_t>(item->Timestamp));
            }
            RtmpQueueBufferRelease(ring.get());
            seen++;
        }
        EXPECT_EQ(previous, kFrames); // the last one is never flushed
    });
    uint32_t flushes = 0;
    for (uint32_t n = 1; n <= kFrames; n++) {
        const std::vector<uint8_t> frame(1 + n % 700, static_cast<uint8_t>(n));
        const int32_t length = static_cast<int32_t>(frame.size());
        while (RtmpQueueBufferAdd(ring.get(), RTMP_MSG_VIDEO, frame.data(), length, 0, 0, n) != 0) {
            RtmpQueueBufferFlush(ring.get());
            flushes++;
        }
    }
    done = true;
    consumer.join();
    EXPECT_GT(flushes, 0U);
    EXPECT_GT(seen, 0U);
    EXPECT_EQ(RtmpQueueBufferCount(ring.get()), 0);
}
