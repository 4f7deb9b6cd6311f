// The host's functions, as senders call them: to their end, whatever becomes of the thread, and with no leaf
// lock held.
#include "delivery/senders/threaded_queue.h"
#include "instruments/monitor_records.h"
#include "net/atomic.h"
#include "support/session_rig.h"

#include <atomic>
#include <poll.h>
#include <unistd.h>

namespace {

int SendVideo(SessionRig &rig)
{
    const Bytes frame = Counting(30);
    return RtmpSendData(rig.session, frame.data(), 30, 0, 0, 1000, RTMP_FRAME_VIDEO);
}

// A function of the host that takes a lock of the host's and reaches a cancellation point.
struct LockingHost {
    LockingHost()
    {
        EXPECT_EQ(pipe(gate), 0);
    }
    ~LockingHost()
    {
        close(gate[0]);
        close(gate[1]);
    }
    void work()
    {
        if (worked.exchange(true)) {
            return;
        }
        pthread_mutex_lock(&lock);
        inside = true;
        pollfd entry = {gate[0], POLLIN, 0};
        poll(&entry, 1, 20000);
        pthread_mutex_unlock(&lock);
    }
    void letOut() const
    {
        EXPECT_EQ(write(gate[1], ".", 1), 1);
    }
    bool isUnlocked()
    {
        if (pthread_mutex_trylock(&lock) != 0) {
            return false;
        }
        pthread_mutex_unlock(&lock);
        return true;
    }

    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    int gate[2] = {-1, -1};
    std::atomic<bool> worked{false};
    std::atomic<bool> inside{false};
};

enum class Function { FindPlace, GetSei, IncreaseNalSize, CaptionMessage, Status };

class CancelledSender : public testing::TestWithParam<Function> {
  protected:
    CancelledSender() : rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED), player(rig.addClient())
    {
        const Function working = GetParam();
        rig.session->CcGen->Enabled = working != Function::Status;
        rig.session->CcGen->Mode = working == Function::CaptionMessage ? 1 : 0;
        RtmpBWMSettings(rig.session, 1, 30);
        HostFakes &fakes = HostFakes::get();
        fakes.findCaptionPlace = [this, working](const uint8_t *, int32_t, int32_t *nalSizePos) {
            workIf(working == Function::FindPlace);
            *nalSizePos = 0;
            return 10;
        };
        fakes.getSei = [this, working](uint64_t, uint8_t **bytes, int32_t *length, uint32_t) {
            workIf(working == Function::GetSei);
            *bytes = sei.data();
            *length = static_cast<int32_t>(sei.size());
        };
        fakes.increaseNalSize = [this, working](uint8_t *, int32_t, int32_t) {
            workIf(working == Function::IncreaseNalSize);
        };
        fakes.captionMessage = [this, working](RtmpClient *, uint32_t, uint64_t) {
            workIf(working == Function::CaptionMessage);
            return static_cast<RtmpSendPkt *>(nullptr);
        };
        fakes.status = [this, working] { workIf(working == Function::Status); };
    }
    void workIf(bool isMine)
    {
        if (isMine) {
            host.work();
        }
    }

    Bytes sei = Counting(20);
    LockingHost host;
    SessionRig rig;
    RigClient player;
};

} // namespace

TEST_P(CancelledSender, EndsWhenTheHostsFunctionHasReturned)
{
    ASSERT_EQ(SendVideo(rig), 0);
    ASSERT_TRUE(WaitUntil([&] { return host.inside.load(); }));
    pthread_cancel(rig.session->Queue->ThreadId);
    host.letOut();
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&rig.session->Queue->ThreadRunning) == 0; }));
    EXPECT_TRUE(host.isUnlocked());
    EXPECT_EQ(RtmpThreadedQueueReset(rig.session), 0);
}

INSTANTIATE_TEST_SUITE_P(InEveryFunction, CancelledSender,
                         testing::Values(Function::FindPlace, Function::GetSei, Function::IncreaseNalSize,
                                         Function::CaptionMessage, Function::Status));

namespace {

// Whether the packet monitor's lock was free each time that the host was called.
struct RingLockWatch {
    RtmpMutex *lock;
    std::atomic<int> calls{0};
    std::atomic<int> heldCalls{0};

    void look()
    {
        calls++;
        if (pthread_mutex_trylock(lock) != 0) {
            heldCalls++;
            return;
        }
        pthread_mutex_unlock(lock);
    }
    static void Log(void *context, uint8_t, const char *, va_list)
    {
        static_cast<RingLockWatch *>(context)->look();
    }
};

} // namespace

TEST(PacketMonitor, ReportsToTheHostWithoutItsLock)
{
    SessionRig rig;
    rig.addClient();
    RingLockWatch watch = {&rig.session->Monitor->RingLock};
    HostFakes::get().status = [&] { watch.look(); };
    ASSERT_EQ(SendVideo(rig), 0);
    EXPECT_EQ(watch.calls, 1); // "rtmpUptime"
    EXPECT_EQ(watch.heldCalls, 0);
}

TEST(PacketMonitor, LogsAnOverflowWithoutItsLock)
{
    SessionRig rig;
    rig.addClient();
    RingLockWatch watch = {&rig.session->Monitor->RingLock};
    RtmpLogger logger = {RingLockWatch::Log, &watch};
    rig.server->Logger = &logger;
    const uint8_t byte = 0;
    for (uint64_t i = 0; i < 241; i++) {
        ASSERT_EQ(RtmpSendData(rig.session, &byte, 1, 0, 0, 1000 + i, RTMP_FRAME_AUDIO), 0);
    }
    rig.server->Logger = rig.log.get();
    EXPECT_EQ(watch.calls, 1);
    EXPECT_EQ(watch.heldCalls, 0);
}
