// The threaded sender on real sockets: what players get, and its ends while a player takes nothing.
#include "delivery/senders/threaded_queue.h"

#include "delivery/write/socket_writer.h"
#include "instruments/ring.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "rtmpcast/rtmpcast.h"
#include "support/produced.h"
#include "support/session_rig.h"

#include <atomic>
#include <chrono>
#include <random>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// Two sessions and more with the threaded sender. Peers read nothing by themselves: the kernel's buffers are
// all there is.
class ThreadedSender : public testing::Test {
  protected:
    ThreadedSender()
    {
        signal(SIGUSR1, [](int) {});
    }
    void TearDown() override
    {
        while (!players_.empty()) {
            leave(players_.back());
        }
        if (rig_.server != nullptr) {
            testing::internal::CaptureStdout(); // the log of the end
            EXPECT_EQ(RtmpServerDestroy(rig_.server), 0);
            produced::CapturedStdout();
        }
        rig_.server = nullptr;
        rig_.session = nullptr;
    }
    RigClient join(RtmpSession *session)
    {
        players_.push_back(rig_.addClientTo(session));
        return players_.back();
    }
    void leave(RigClient player)
    {
        std::erase_if(players_, [&](const RigClient &each) { return each.client == player.client; });
        rig_.removeClient(player.client);
    }
    int video(RtmpSession *session, size_t size, uint64_t timestamp)
    {
        Bytes frame(size, 0x5A);
        frame[4] = 0x65; // IDR
        return RtmpSendData(session, frame.data(), static_cast<int32_t>(size), 0, 0, timestamp,
                            RTMP_FRAME_VIDEO);
    }
    int audio(RtmpSession *session, size_t size, uint64_t timestamp)
    {
        const Bytes frame(size, 0xA5);
        return RtmpSendData(session, frame.data(), static_cast<int32_t>(size), 0, 0, timestamp,
                            RTMP_FRAME_AUDIO);
    }
    // Fills the player's socket until the sender is stuck inside a write.
    void stall(RtmpSession *session)
    {
        for (uint64_t i = 0; i < 10; i++) {
            ASSERT_EQ(video(session, 300000, 1000 + i), 0);
        }
        ASSERT_TRUE(isStuck(session));
    }
    // The ring's count stays where it is, above 0, while the sender holds its locks.
    testing::AssertionResult isStuck(RtmpSession *session)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        int32_t previous = -1;
        auto since = std::chrono::steady_clock::now();
        Patience patience;
        while (std::chrono::steady_clock::now() < deadline) {
            const int32_t count = RtmpQueueBufferCount(session->Queue->VideoBuffer);
            if (count != previous) {
                previous = count;
                since = std::chrono::steady_clock::now();
            }
            if (count > 0 && std::chrono::steady_clock::now() - since > std::chrono::milliseconds(200)) {
                return testing::AssertionSuccess();
            }
            patience.pause();
        }
        return testing::AssertionFailure() << "the sender went on";
    }
    void expectLocksFree(RtmpSession *session)
    {
        for (RtmpMutex *lock :
             {&rig_.server->LiveSessionListLock, &session->ClientListLock, &session->MemberLock}) {
            ASSERT_EQ(pthread_mutex_trylock(lock), 0);
            pthread_mutex_unlock(lock);
        }
    }
    SessionRig rig_{
        RigSetup{.chunkSize = 128, .senderMode = RTMP_SENDER_THREADED, .interval = 0, .queue = 20}};
    CaptureLogger &log_ = rig_.log;
    RtmpSession *const session_ = rig_.session;
    std::vector<RigClient> players_;
};

} // namespace

TEST_F(ThreadedSender, FramesReachThePlayerInterleaved)
{
    const RigClient player = join(session_);
    EXPECT_EQ(audio(session_, 3, 1000), 0);
    EXPECT_EQ(video(session_, 6, 1000), 0);
    // chunk stream 6, full header: time, length 5, type 8, stream 1; AF 01 and the frame
    const Bytes first = ReadBytes(player.peer, 12 + 5);
    ASSERT_EQ(first.size(), 17U);
    EXPECT_EQ(first[0], 0x06);
    EXPECT_EQ(Bytes(first.begin() + 4, first.end()),
              (Bytes{0, 0, 5, 8, 1, 0, 0, 0, 0xAF, 0x01, 0xA5, 0xA5, 0xA5}));
    // chunk stream 5: length 11, type 9; 17 01 00 00 00 and the access unit
    const Bytes second = ReadBytes(player.peer, 12 + 11);
    ASSERT_EQ(second.size(), 23U);
    EXPECT_EQ(second[0], 0x05);
    EXPECT_EQ(Bytes(second.begin() + 4, second.end()),
              (Bytes{0, 0, 11, 9, 1, 0, 0, 0, 0x17, 0x01, 0, 0, 0, 0x5A, 0x5A, 0x5A, 0x5A, 0x65, 0x5A}));
}

TEST_F(ThreadedSender, AFailedSendToOneIsSentToTheOthersAndClosesTheQueue)
{
    const RigClient gone = join(session_);
    const RigClient there = join(session_);
    shutdown(gone.peer, SHUT_RDWR);
    EXPECT_EQ(video(session_, 6, 1000), 0);
    EXPECT_EQ(ReadBytes(there.peer, 23).size(), 23U);
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&session_->Queue->ThreadRunning) == 0; }));
    EXPECT_EQ(video(session_, 6, 1033), 0);
    EXPECT_EQ(ClientStateOf(gone.client), CLIENT_STATE_CLOSED);
    EXPECT_TRUE(log_.contains("6 INFO: RtmpThreadedQueueSendData: The Sender thread exited"));
    expectLocksFree(session_);
}

TEST_F(ThreadedSender, ResetAndCloseDoNotWaitForAPlayerThatTakesNothing)
{
    for (int (*end)(RtmpSession *) : {RtmpThreadedQueueReset, RtmpThreadedQueueClose}) {
        const RigClient player = join(session_);
        stall(session_);
        EXPECT_EQ(end(session_), 0);
        EXPECT_EQ(session_->Queue->ThreadRunning, 0);
        expectLocksFree(session_);
        leave(player);
        EXPECT_EQ(RtmpThreadedQueueReset(session_), 0);
    }
    const RigClient player = join(session_);
    EXPECT_EQ(video(session_, 6, 5000), 0);
    EXPECT_EQ(ReadBytes(player.peer, 23).size(), 23U);
}

TEST_F(ThreadedSender, AResetDoesNotWaitForAFileThatAPlayerDoesNotTake)
{
    constexpr size_t kSize = 4 << 20;
    const int fd = memfd_create("frame", 0);
    ASSERT_GE(fd, 1);
    ASSERT_EQ(ftruncate(fd, kSize), 0);
    void *mapped = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    const RigClient player = join(session_);
    ASSERT_EQ(RtmpSendData(session_, static_cast<uint8_t *>(mapped), kSize, fd,
                           reinterpret_cast<uintptr_t>(mapped), 1000, RTMP_FRAME_VIDEO),
              0);
    ASSERT_TRUE(isStuck(session_));
    EXPECT_EQ(RtmpThreadedQueueReset(session_), 0);
    expectLocksFree(session_);
    leave(player);
    munmap(mapped, kSize);
    close(fd);
}

TEST_F(ThreadedSender, ASenderOfFilesIsCancelledAtAnyMoment)
{
    constexpr size_t kSize = 200000;
    const int fd = memfd_create("frame", 0);
    ASSERT_GE(fd, 1);
    ASSERT_EQ(ftruncate(fd, kSize), 0);
    void *mapped = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    // A player whose frame is ended in the middle is ended with it; another one joins.
    RigClient player = join(session_);
    std::atomic<uint64_t> received = 0;
    const auto readToEnd = [&received](int peer) {
        std::vector<uint8_t> sink(65536);
        ssize_t got;
        while ((got = recv(peer, sink.data(), sink.size(), 0)) > 0) {
            received += static_cast<uint64_t>(got);
        }
    };
    std::thread reader(readToEnd, player.peer);
    // At least 300 rounds, and as many more as it takes until a frame has been ended in its middle, and one
    // has not.
    int ended = 0;
    std::mt19937 random(7);
    uint64_t round = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto hasSeenBoth = [&] { return ended > 0 && round > static_cast<uint64_t>(ended); };
    for (; round < 300 || (!hasSeenBoth() && std::chrono::steady_clock::now() < deadline); round++) {
        const uint64_t before = received;
        for (uint64_t i = 0; i < 3; i++) {
            ASSERT_EQ(RtmpSendData(session_, static_cast<uint8_t *>(mapped), kSize, fd,
                                   reinterpret_cast<uintptr_t>(mapped), 1000 + round * 10 + i,
                                   RTMP_FRAME_VIDEO),
                      0);
        }
        if (round % 3 == 0) { // in the midst of a frame, as a rule
            ASSERT_TRUE(WaitUntil([&] { return received > before; }));
        }
        for (uint32_t spins = random() % 100000; spins > 0 && round % 3 != 0; spins--) {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        ASSERT_EQ(RtmpThreadedQueueReset(session_), 0);
        ASSERT_EQ(session_->Queue->ThreadRunning, 0);
        ASSERT_NO_FATAL_FAILURE(expectLocksFree(session_));
        if (player.client->MessageState == MESSAGE_CUT) {
            ended++;
            reader.join();
            leave(player);
            player = join(session_);
            reader = std::thread(readToEnd, player.peer);
        }
    }
    shutdown(player.client->Socket, SHUT_RDWR);
    reader.join();
    EXPECT_TRUE(hasSeenBoth()) << ended << " of " << round;
    munmap(mapped, kSize);
    close(fd);
}

TEST_F(ThreadedSender, TheProducerNeverWaitsForAStalledPlayer)
{
    join(session_);
    stall(session_);
    for (uint64_t i = 0; i < 2000; i++) {
        ASSERT_EQ(video(session_, 1000, 2000 + i), 0);
        ASSERT_EQ(audio(session_, 100, 2000 + i), 0);
    }
    EXPECT_GT(log_.count("Flushing Video Buffer"), 0U);
    EXPECT_GT(log_.count("Flushing Audio Buffer"), 0U);
    ASSERT_EQ(RtmpThreadedQueueReset(session_), 0);
}

TEST_F(ThreadedSender, ASessionIsDestroyedWhileItsSenderWaitsForTheSessionList)
{
    for (int round = 0; round < 10; round++) {
        RtmpSession *other = rig_.addSession("other");
        const RigClient stalled = join(session_);
        const RigClient waiting = join(other);
        stall(session_); // holds the session list
        ASSERT_EQ(video(other, 6, 1000), 0);
        ASSERT_TRUE(isStuck(other));
        leave(waiting);
        std::thread destroyer([&] { EXPECT_EQ(RtmpSessionDestroy(other), 0); });
        // The destroyer gets the list once the stalled sender is stopped; the waiting one never does.
        EXPECT_EQ(RtmpThreadedQueueReset(session_), 0);
        destroyer.join();
        leave(stalled);
    }
}

// Its own sender is stuck in a write, with the session list locked.
TEST_F(ThreadedSender, ASessionIsDestroyedWhileItsSenderIsStuckInAWrite)
{
    RtmpSession *session = rig_.addSession("stuck");
    const RigClient player = join(session);
    stall(session);
    std::thread destroyer([&] { EXPECT_EQ(RtmpSessionDestroy(session), 0); });
    ASSERT_TRUE(
        log_.waitFor("Sending SIGUSR1 to Client Thread")); // it has the list, and waits for the client
    leave(player);
    destroyer.join();
    EXPECT_EQ(ValidateRtmpSessionHandle(rig_.server, session), -1);
}

// The sender of a session that is destroyed later holds the list that the first one needs.
TEST_F(ThreadedSender, AServerIsDestroyedWhileASenderIsStuckInAWrite)
{
    RtmpSession *session = rig_.addSession("stuck"); // behind "live" in the list
    const RigClient player = join(session);
    stall(session);
    testing::internal::CaptureStdout(); // the log of the end
    std::thread destroyer([&] {
        EXPECT_EQ(RtmpServerDestroy(rig_.server), 0);
        rig_.server = nullptr;
    });
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&session->Queue->ThreadRunning) == 0; }));
    leave(player); // a session waits for its clients
    destroyer.join();
    produced::CapturedStdout();
}
