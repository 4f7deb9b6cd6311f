// A wall clock that is set back an hour makes nobody wait for an hour.
#include "delivery/senders/threaded_queue.h"
#include "net/platform.h"
#include "rtmpcast/sender.h"
#include "sender/scripted_fan_out.h"

#include <thread>

namespace {

constexpr time_t kHour = 3600;

// Sets the clock back for whoever reads it from now on.
class WallClock : public testing::Test {
  protected:
    WallClock()
    {
        calls::setWallClockAhead(kHour);
    }
    ~WallClock() override
    {
        calls::setWallClockAhead(0);
    }

    // Whether `wait` returns by itself. `help` ends it where it does not.
    template <typename Wait, typename Help> bool endsByItself(Wait wait, Help help)
    {
        std::atomic<bool> ended{false};
        std::thread waiter([&] {
            wait();
            ended = true;
        });
        const bool byItself = WaitUntil([&] { return ended.load(); }, 5000);
        help();
        waiter.join();
        return byItself;
    }
};

} // namespace

TEST_F(WallClock, SetBackItDoesNotHoldUpTheEndOfASenderThatWaitsForALock)
{
    SenderRig rig;
    RtmpMutex *list = &rig.server.LiveSessionListLock;
    ASSERT_EQ(RtmpMutexLock(list), 0);
    rig.video("one", 1000);
    RtmpMutex *ring = &rig.queue()->VideoBuffer->Lock;
    ASSERT_TRUE(WaitUntil([&] {
        if (pthread_mutex_trylock(ring) != 0) {
            return true;
        }
        pthread_mutex_unlock(ring);
        return false;
    }));
    EXPECT_TRUE(endsByItself([&] { RtmpThreadedQueueReset(&rig.session); },
                             [&] { EXPECT_EQ(RtmpMutexUnlock(list), 0); }));
}

TEST_F(WallClock, SetBackItDoesNotHoldUpASliceOfWaitingForALock)
{
    RtmpMutex lock;
    ASSERT_EQ(RtmpMutexInit(&lock), 0);
    ASSERT_EQ(RtmpMutexLock(&lock), 0);
    int result = 0;
    EXPECT_TRUE(endsByItself([&] { result = RtmpMutexLockSlice(&lock); },
                             [&] { EXPECT_EQ(RtmpMutexUnlock(&lock), 0); }));
    EXPECT_EQ(result, RTMP_WAIT_IS_UP);
}

TEST_F(WallClock, SetBackItDoesNotHoldUpASliceOfWaitingForAnEvent)
{
    RtmpMutex lock;
    pthread_cond_t event;
    ASSERT_EQ(RtmpMutexInit(&lock), 0);
    ASSERT_EQ(RtmpConditionInit(&event), 0);
    int result = 0;
    EXPECT_TRUE(endsByItself(
        [&] {
            ASSERT_EQ(RtmpMutexLock(&lock), 0);
            result = RtmpConditionWaitSlice(&event, &lock);
            EXPECT_EQ(RtmpMutexUnlock(&lock), 0);
        },
        [&] { pthread_cond_broadcast(&event); }));
    EXPECT_EQ(result, RTMP_WAIT_IS_UP);
    pthread_cond_destroy(&event);
}
