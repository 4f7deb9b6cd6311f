// Ends of the sender thread: at every point of its loop, however it is ended.
#include "delivery/senders/threaded_queue.h"
#include "instruments/ring.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "rtmpcast/media.h"
#include "rtmpcast/sender.h"
#include "sender/scripted_fan_out.h"

#include <algorithm>
#include <functional>
#include <random>
#include <thread>

namespace {

FanOut &fanOut()
{
    return FanOut::get();
}

// Where the sender is when it is ended; each brings it there and returns once it is.
struct Point {
    const char *name;
    std::function<void(SenderRig &)> reach;
    bool holdsListLock; // the test does
};

bool WaitForLockHeld(RtmpMutex *lock)
{
    return WaitUntil([&] {
        if (pthread_mutex_trylock(lock) != 0) {
            return true;
        }
        pthread_mutex_unlock(lock);
        return false;
    });
}

std::vector<Point> Points()
{
    return {
        {"just started", [](SenderRig &rig) { rig.audio("audio", 1000); }, false},
        {"waiting for a frame",
         [](SenderRig &rig) {
             rig.video("one", 1000);
             ASSERT_TRUE(fanOut().waitForSent(1));
             ASSERT_TRUE(WaitUntil([&] { return RtmpQueueBufferCount(rig.queue()->VideoBuffer) == 0; }));
             ASSERT_TRUE(WaitUntil([&] { return rig.locksAreFree(); }));
         },
         false},
        {"waiting for the session list",
         [](SenderRig &rig) {
             ASSERT_EQ(RtmpMutexLock(&rig.server.LiveSessionListLock), 0);
             rig.video("one", 1000);
             ASSERT_TRUE(WaitForLockHeld(&rig.queue()->VideoBuffer->Lock));
         },
         true},
        {"sending audio",
         [](SenderRig &rig) {
             fanOut().hold();
             rig.audio("audio", 1000);
             rig.video("video", 1000);
             ASSERT_TRUE(fanOut().waitForCallInside());
         },
         false},
        {"sending video",
         [](SenderRig &rig) {
             fanOut().hold();
             rig.video("video", 1000);
             ASSERT_TRUE(fanOut().waitForCallInside());
         },
         false},
        {"sending what a flush discarded",
         [](SenderRig &rig) {
             fanOut().hold();
             rig.video("video", 1000);
             ASSERT_TRUE(fanOut().waitForCallInside());
             for (int i = 0; i < 20; i++) {
                 rig.video("more", 1000);
             }
         },
         false},
        {"already ended by a failed send",
         [](SenderRig &rig) {
             fanOut().failOn("bad");
             rig.video("bad", 1000);
             ASSERT_TRUE(rig.waitForEnd());
         },
         false},
        {"wherever it is",
         [](SenderRig &rig) {
             for (uint64_t i = 0; i < 5; i++) {
                 rig.audio("audio", 1000 + i * 10);
                 rig.video("video", 1000 + i * 10);
             }
         },
         false},
    };
}

void ExpectEnded(SenderRig &rig)
{
    EXPECT_EQ(rig.queue()->ThreadRunning, 0);
    EXPECT_EQ(rig.queue()->ThreadId, 0U);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->VideoBuffer), 0);
    EXPECT_EQ(RtmpQueueBufferCount(rig.queue()->AudioBuffer), 0);
}

void ExpectWorking(SenderRig &rig)
{
    fanOut().reset();
    rig.first.State = CLIENT_STATE_PLAY_DONE;
    rig.audio("after", 5000);
    rig.video("after", 5000);
    ASSERT_TRUE(fanOut().waitForSent(2));
    EXPECT_EQ(fanOut().texts(), (std::vector<std::string>{"A after 0", "V after 0"}));
}

class SenderEnd : public testing::TestWithParam<size_t> {
  protected:
    // `end` is called with the session list locked when the sender waits for it, as RtmpSessionDestroy calls
    // it.
    void endAtPoint(int times, const std::function<void(SenderRig &)> &end)
    {
        const Point point = Points()[GetParam()];
        SCOPED_TRACE(point.name);
        SenderRig rig;
        ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
        for (int i = 0; i < times; i++) {
            point.reach(rig);
            end(rig);
            if (point.holdsListLock) {
                ASSERT_EQ(RtmpMutexUnlock(&rig.server.LiveSessionListLock), 0);
            }
            ASSERT_TRUE(rig.locksAreFree());
            ExpectEnded(rig);
            ExpectWorking(rig);
            RtmpThreadedQueueReset(&rig.session);
            fanOut().reset();
        }
    }
};

} // namespace

TEST_P(SenderEnd, ByAReset)
{
    endAtPoint(30, [](SenderRig &rig) { RtmpThreadedQueueReset(&rig.session); });
}

TEST_P(SenderEnd, ByAClose)
{
    endAtPoint(30, [](SenderRig &rig) {
        RtmpThreadedQueueClose(&rig.session);
        EXPECT_EQ(rig.queue()->Closed, 1);
        EXPECT_EQ(rig.video("closed", 2000), 0);
        EXPECT_EQ(rig.first.State, 13U);
        StoreShared(&rig.queue()->Closed, uint8_t{0});
    });
}

TEST_P(SenderEnd, ByADestroy)
{
    endAtPoint(30, [](SenderRig &rig) {
        RtmpThreadedQueueDestroy(&rig.session);
        EXPECT_EQ(rig.queue(), nullptr);
        ASSERT_EQ(RtmpThreadedQueueInit(&rig.session, 10, 10), 0);
    });
}

INSTANTIATE_TEST_SUITE_P(AtEveryPoint, SenderEnd, testing::Range(size_t{0}, Points().size()),
                         [](const testing::TestParamInfo<size_t> &info) {
                             std::string name = Points()[info.param].name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

// What RtmpSessionDestroy does to a sender that waits for the lock that it holds.
TEST(SenderThread, ADestroyWithTheSessionListLockedDoesNotWaitForIt)
{
    for (int i = 0; i < 20; i++) {
        SenderRig rig;
        ASSERT_EQ(RtmpMutexLock(&rig.server.LiveSessionListLock), 0);
        rig.video("one", 1000);
        if (i % 2 == 0) {
            ASSERT_TRUE(WaitForLockHeld(&rig.queue()->VideoBuffer->Lock));
        }
        RtmpThreadedQueueDestroy(&rig.session);
        ASSERT_EQ(RtmpMutexUnlock(&rig.server.LiveSessionListLock), 0);
        EXPECT_EQ(fanOut().count(), 0U);
    }
}

TEST(SenderThread, AStalledSendNeverHoldsUpTheProducer)
{
    SenderRig rig(10, 10);
    fanOut().hold();
    rig.video("stalled", 1000);
    ASSERT_TRUE(fanOut().waitForCallInside());
    for (uint64_t i = 0; i < 10000; i++) {
        ASSERT_EQ(rig.video("video", 1000 + i), 0); // flushes included
        ASSERT_EQ(rig.audio("audio", 1000 + i), 0);
    }
    EXPECT_EQ(fanOut().count(), 0U);
}

TEST(SenderThread, ALateEndOfTheSessionListLockIsWaitedFor)
{
    SenderRig rig;
    ASSERT_EQ(RtmpMutexLock(&rig.server.LiveSessionListLock), 0);
    rig.video("one", 1000);
    ASSERT_TRUE(WaitForLockHeld(&rig.queue()->VideoBuffer->Lock));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(
        WaitUntil([&] { return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(50); }));
    EXPECT_EQ(fanOut().count(), 0U); // many slices later
    ASSERT_EQ(RtmpMutexUnlock(&rig.server.LiveSessionListLock), 0);
    ASSERT_TRUE(fanOut().waitForSent(1));
}

TEST(SenderThread, CancelledAtRandomManyTimesItLeavesNothingBehind)
{
    SenderRig rig(4, 4);
    ASSERT_EQ(RtmpThreadedQueueBWMInit(&rig.session, 1, 30), 0);
    std::mt19937 random(20240607);
    for (int round = 0; round < 400; round++) {
        const int frames = static_cast<int>(random() % 12);
        for (int i = 0; i < frames; i++) {
            const uint64_t timestamp =
                1000 + static_cast<uint64_t>(round) * 100 + static_cast<uint64_t>(i) * 5;
            ASSERT_EQ(rig.audio(std::string(random() % 3000 + 1, 'a'), timestamp), 0);
            ASSERT_EQ(rig.video(std::string(random() % 3000 + 1, 'v'), timestamp), 0);
        }
        for (uint32_t spins = random() % 3000; spins > 0; spins--) {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        switch (random() % 3) {
        case 0:
            RtmpThreadedQueueReset(&rig.session);
            break;
        case 1:
            RtmpThreadedQueueClose(&rig.session);
            RtmpThreadedQueueReset(&rig.session);
            break;
        default:
            RtmpThreadedQueueDestroy(&rig.session);
            ASSERT_EQ(RtmpThreadedQueueInit(&rig.session, 4, 4), 0);
            break;
        }
        ASSERT_TRUE(rig.locksAreFree());
        ExpectEnded(rig);
    }
    ExpectWorking(rig);
}

TEST(SenderThread, TwoSessionsOfOneServerTakeTurns)
{
    SenderRig rig(50, 2000);
    RtmpSession other = {};
    RtmpClient player = {};
    player.State = CLIENT_STATE_PLAY_DONE;
    other.Server = &rig.server;
    other.SenderMode = RTMP_SENDER_THREADED;
    other.ClientListHead = &player;
    ASSERT_EQ(RtmpMutexInit(&other.MemberLock), 0);
    ASSERT_EQ(RtmpThreadedQueueInit(&other, 50, 2000), 0);
    constexpr uint64_t kFrames = 1000;
    std::thread producer([&] {
        for (uint64_t i = 0; i < kFrames; i++) {
            const uint8_t frame[] = "other";
            EXPECT_EQ(RtmpThreadedQueueSendData(&other, frame, 5, 0, 0, 1000 + i, RTMP_FRAME_VIDEO), 0);
        }
    });
    for (uint64_t i = 0; i < kFrames; i++) {
        EXPECT_EQ(rig.video("mine", 1000 + i), 0);
    }
    producer.join();
    EXPECT_TRUE(fanOut().waitForSent(2 * kFrames));
    RtmpThreadedQueueDestroy(&other);
    EXPECT_EQ(RtmpMutexDestroy(&other.MemberLock), 0);
}

// Players come, go and pause while frames are offered.
TEST(SenderThread, TheFirstClientMayChangeAtAnyTime)
{
    SenderRig rig(4, 4);
    std::atomic<bool> done{false};
    std::thread players([&] {
        for (int i = 0; !done; i++) {
            RtmpClient *client = new RtmpClient{};
            client->State = i % 3 == 0 ? CLIENT_STATE_PAUSE_DONE : CLIENT_STATE_PLAY_DONE;
            (void)RtmpMutexLock(&rig.session.MemberLock);
            RtmpClient *old = rig.session.ClientListHead;
            rig.session.ClientListHead = i % 5 == 0 ? nullptr : client;
            (void)RtmpMutexUnlock(&rig.session.MemberLock);
            if (old != &rig.first) {
                delete old;
            }
            if (i % 5 == 0) {
                delete client;
            }
        }
    });
    for (uint64_t i = 0; i < 3000; i++) {
        EXPECT_EQ(rig.video("video", 1000 + i), 0);
        if (i % 100 == 0) {
            RtmpThreadedQueueClose(&rig.session);
        } else if (i % 100 == 50) {
            RtmpThreadedQueueReset(&rig.session);
        }
    }
    done = true;
    players.join();
    (void)RtmpMutexLock(&rig.session.MemberLock); // the sender's thread may still be looking
    RtmpClient *last = rig.session.ClientListHead;
    rig.session.ClientListHead = nullptr;
    (void)RtmpMutexUnlock(&rig.session.MemberLock);
    if (last != &rig.first) {
        delete last;
    }
}
