// A destroy that fails half way: the session goes on as if it had not been asked, and no thread is left that
// nobody will join.
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/client.h"
#include "support/calls.h"
#include "support/session_rig.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool IsDetached()
{
    pthread_attr_t attributes;
    int state = -1;
    EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
    EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &state), 0);
    pthread_attr_destroy(&attributes);
    return state == PTHREAD_CREATE_DETACHED;
}

int SendVideo(RtmpSession *session, uint64_t timestamp)
{
    const Bytes frame = Counting(100);
    return RtmpSendData(session, frame.data(), 100, 0, 0, timestamp, RTMP_FRAME_VIDEO);
}

} // namespace

TEST(FailingEnding, AThreadClaimedByADestroyThatThenFailsIsDetached)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    SessionRig rig;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    RtmpClient *client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
    ASSERT_EQ(AddClientInSession(rig.session, client), 0);
    SetClientState(client, CLIENT_STATE_PLAY_DONE);

    // The thread writes its last line once the destroy has failed.
    struct Watched {
        std::atomic<bool> reads = false, destroyed = false;
        std::atomic<int> detached = -1;
    } watched;
    const auto onLine = [](void *context, uint8_t, const char *format, va_list) {
        Watched *each = static_cast<Watched *>(context);
        if (strstr(format, "Serving RTMP Client") != nullptr) {
            each->reads = true;
        } else if (strstr(format, "Exiting ServeRtmpClient thread") != nullptr) {
            EXPECT_TRUE(WaitUntil([&] { return each->destroyed.load(); }));
            each->detached = IsDetached();
        }
    };
    RtmpLogger logger = {onLine, &watched};
    __atomic_store_n(&rig.server->Logger, &logger, __ATOMIC_SEQ_CST);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, client), 0);
    ASSERT_TRUE(WaitUntil([&] { return watched.reads.load(); }));
    {
        const FailingCall failing(Call::MutexUnlock, 1, &rig.session->ClientListLock);
        EXPECT_EQ(RtmpSessionDestroy(rig.session), -77);
    }
    watched.destroyed = true;
    EXPECT_TRUE(WaitUntil([&] { return watched.detached != -1; }));
    EXPECT_EQ(watched.detached, 1);
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&rig.server->Holders) == 1; }));
    __atomic_store_n(&rig.server->Logger, rig.log.get(), __ATOMIC_SEQ_CST);
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    close(ends[0]);
    close(ends[1]);
}

TEST(FailingEnding, AClientWithoutAThreadStaysInASessionWhoseDestroyFails)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    {
        const FailingCall failing(Call::MutexUnlock, 1, &rig.session->ClientListLock);
        EXPECT_EQ(RtmpSessionDestroy(rig.session), -77);
    }
    EXPECT_EQ(rig.session->ClientCount, 1);
    EXPECT_EQ(player.client->Session, rig.session);
    EXPECT_EQ(SendVideo(rig.session, 10), 0);
    EXPECT_EQ(ReadBytes(player.peer, 12 + 5 + 100).size(), 12U + 5 + 100);
}

TEST(FailingEnding, FramesFlowOnAfterADestroyThatCouldNotLock)
{
    SessionRig rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendVideo(rig.session, 10), 0);
    const size_t length = 12 + 5 + 100;
    ASSERT_EQ(ReadBytes(player.peer, length).size(), length);
    RtmpMutex *const locks[] = {&rig.server->LiveSessionListLock, &rig.session->ClientListLock};
    uint64_t timestamp = 20;
    for (const RtmpMutex *lock : locks) {
        {
            const FailingCall failing(Call::MutexLock, 1, lock);
            EXPECT_EQ(RtmpSessionDestroy(rig.session), -78);
        }
        rig.log.clear();
        EXPECT_EQ(SendVideo(rig.session, timestamp += 10), 0);
        EXPECT_GT(ReadBytes(player.peer, 105).size(), 100U);
        DrainBytes(player.peer);
        EXPECT_FALSE(rig.log.contains("The Sender thread exited"));
        EXPECT_EQ(ClientStateOf(player.client), CLIENT_STATE_PLAY_DONE);
    }
}
