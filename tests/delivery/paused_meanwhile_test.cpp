// A frame on its way to a player that is paused by another thread meanwhile.
#include "net/client_state.h"
#include "net/platform.h"
#include "support/session_rig.h"

#include <thread>

namespace {

// Somebody sleeps until this mutex is free: the C library notes it in the mutex.
bool IsAwaited(const RtmpMutex *mutex)
{
    return __atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED) > 1;
}

} // namespace

TEST(FrameUnderWay, DoesNotFollowTheAnswerToAPauseThatItWaitedFor)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    const RigClient other = rig.addClient();
    const Bytes frame = Hex("00000004 65 AABBCC");
    RtmpMutex *held = HoldForWriting(player.client); // as whoever writes the answer
    std::thread host([&] {
        EXPECT_EQ(RtmpSendData(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0, 1000,
                               RTMP_FRAME_VIDEO),
                  0);
    });
    EXPECT_TRUE(WaitUntil([held] { return IsAwaited(held); }));
    SetClientState(player.client, CLIENT_STATE_PAUSE_DONE);
    EXPECT_EQ(RtmpMutexUnlock(held), 0);
    host.join();
    EXPECT_TRUE(DrainBytes(player.peer).empty());
    const Bytes came = DrainBytes(other.peer);
    ASSERT_GE(came.size(), frame.size());
    EXPECT_TRUE(Same(Slice(came, came.size() - frame.size(), frame.size()), frame));
}
