// The threaded sender on real sockets: what players get, and its ends while a player takes nothing.
#include "delivery/senders/threaded_queue.h"

#include "delivery/write/socket_writer.h"
#include "instruments/ring.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "rtmpcast/rtmpcast.h"
#include "state/client.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"

#include <atomic>
#include <chrono>
#include <poll.h>
#include <random>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using Bytes = std::vector<uint8_t>;

// 1280x720 Constrained Baseline, level 3.1; and AAC LC, 44.1 kHz, stereo.
const Bytes kVideoConfig = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40,
                            0x16, 0xE8, 0x40, 0, 0,    0,    1,    0x68, 0xCE, 0x3C, 0x80};
const Bytes kAudioConfig = {0x12, 0x10};

// One connection that plays, without its serve thread; the peer's end is the test's.
struct Player {
    RtmpClient *client;
    int socket;
    int peer;
};

class ThreadedSender : public testing::Test {
  protected:
    void SetUp() override
    {
        HostFakes::get().reset();
        signal(SIGUSR1, [](int) {});
        server_ = RtmpServerCreate(log_.get(), "ANY", 0, 0, 0, 0, nullptr);
        ASSERT_NE(server_, nullptr);
        session_ = makeSession("live");
    }
    void TearDown() override
    {
        while (!players_.empty()) {
            leave(players_.back());
        }
        if (server_ != nullptr) {
            testing::internal::CaptureStdout(); // the log of the end
            EXPECT_EQ(RtmpServerDestroy(server_), 0);
            testing::internal::GetCapturedStdout();
        }
    }
    RtmpSession *makeSession(const char *name)
    {
        RtmpSession *session = RtmpSessionCreate(server_, name, nullptr);
        EXPECT_EQ(RtmpSenderSettings(session, RTMP_SENDER_THREADED, 0, 0, 1, 255, 0, 20, 20), 0);
        const VideoMediaInfo video = {
            7, 0, {0, 0, 0}, static_cast<int32_t>(kVideoConfig.size()), kVideoConfig.data()};
        const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(kAudioConfig.size()), kAudioConfig.data()};
        EXPECT_EQ(RtmpAddMediaInfo(session, &video, &audio), 0);
        return session;
    }
    // The peer reads nothing by itself: the kernel's buffers are all there is.
    Player &join(RtmpSession *session)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        RtmpClient *client = CreateNewRtmpClient(server_, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
        EXPECT_EQ(AddClientInSession(session, client), 0);
        client->StreamId = 1;
        client->StatusChunkStreamId = 5;
        client->AudioChunkStreamId = 6;
        SetClientState(client, CLIENT_STATE_PLAY_DONE);
        players_.push_back({client, ends[0], ends[1]});
        return players_.back();
    }
    void leave(const Player &player)
    {
        close(player.peer);
        FreeClientRecord(player.client);
        close(player.socket);
        for (size_t i = 0; i < players_.size(); i++) {
            if (players_[i].client == player.client) {
                players_.erase(players_.begin() + static_cast<ptrdiff_t>(i));
                return;
            }
        }
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
        Backoff backoff;
        while (std::chrono::steady_clock::now() < deadline) {
            const int32_t count = RtmpQueueBufferCount(session->Queue->VideoBuffer);
            if (count != previous) {
                previous = count;
                since = std::chrono::steady_clock::now();
            }
            if (count > 0 && std::chrono::steady_clock::now() - since > std::chrono::milliseconds(200)) {
                return testing::AssertionSuccess();
            }
            backoff.pause();
        }
        return testing::AssertionFailure() << "the sender went on";
    }
    void expectLocksFree(RtmpSession *session)
    {
        for (RtmpMutex *lock :
             {&server_->LiveSessionListLock, &session->ClientListLock, &session->MemberLock}) {
            ASSERT_EQ(pthread_mutex_trylock(lock), 0);
            pthread_mutex_unlock(lock);
        }
    }
    Bytes read(const Player &player, size_t size)
    {
        Bytes out;
        while (out.size() < size) {
            struct pollfd ready = {player.peer, POLLIN, 0};
            uint8_t buffer[65536];
            const size_t wanted = std::min(sizeof buffer, size - out.size());
            const ssize_t got = poll(&ready, 1, 20000) == 1 ? recv(player.peer, buffer, wanted, 0) : -1;
            if (got <= 0) {
                break;
            }
            out.insert(out.end(), buffer, buffer + got);
        }
        return out;
    }

    CaptureLogger log_;
    RtmpServer *server_ = nullptr;
    RtmpSession *session_ = nullptr;
    std::vector<Player> players_;
};

} // namespace

TEST_F(ThreadedSender, FramesReachThePlayerInterleaved)
{
    const Player player = join(session_);
    EXPECT_EQ(audio(session_, 3, 1000), 0);
    EXPECT_EQ(video(session_, 6, 1000), 0);
    // chunk stream 6, full header: time, length 5, type 8, stream 1; AF 01 and the frame
    const Bytes first = read(player, 12 + 5);
    ASSERT_EQ(first.size(), 17U);
    EXPECT_EQ(first[0], 0x06);
    EXPECT_EQ(Bytes(first.begin() + 4, first.end()),
              (Bytes{0, 0, 5, 8, 1, 0, 0, 0, 0xAF, 0x01, 0xA5, 0xA5, 0xA5}));
    // chunk stream 5: length 11, type 9; 17 01 00 00 00 and the access unit
    const Bytes second = read(player, 12 + 11);
    ASSERT_EQ(second.size(), 23U);
    EXPECT_EQ(second[0], 0x05);
    EXPECT_EQ(Bytes(second.begin() + 4, second.end()),
              (Bytes{0, 0, 11, 9, 1, 0, 0, 0, 0x17, 0x01, 0, 0, 0, 0x5A, 0x5A, 0x5A, 0x5A, 0x65, 0x5A}));
}

TEST_F(ThreadedSender, AFailedSendToOneIsSentToTheOthersAndClosesTheQueue)
{
    Player gone = join(session_);
    const Player there = join(session_);
    shutdown(gone.peer, SHUT_RDWR);
    EXPECT_EQ(video(session_, 6, 1000), 0);
    EXPECT_EQ(read(there, 23).size(), 23U);
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&session_->Queue->ThreadRunning) == 0; }));
    EXPECT_EQ(video(session_, 6, 1033), 0);
    EXPECT_EQ(ClientStateOf(gone.client), CLIENT_STATE_CLOSED);
    EXPECT_TRUE(log_.contains("6 INFO: RtmpThreadedQueueSendData: The Sender thread exited"));
    expectLocksFree(session_);
}

TEST_F(ThreadedSender, ResetAndCloseDoNotWaitForAPlayerThatTakesNothing)
{
    for (int (*end)(RtmpSession *) : {RtmpThreadedQueueReset, RtmpThreadedQueueClose}) {
        const Player player = join(session_);
        stall(session_);
        EXPECT_EQ(end(session_), 0);
        EXPECT_EQ(session_->Queue->ThreadRunning, 0);
        expectLocksFree(session_);
        leave(player);
        EXPECT_EQ(RtmpThreadedQueueReset(session_), 0);
    }
    const Player player = join(session_);
    EXPECT_EQ(video(session_, 6, 5000), 0);
    EXPECT_EQ(read(player, 23).size(), 23U);
}

TEST_F(ThreadedSender, AResetDoesNotWaitForAFileThatAPlayerDoesNotTake)
{
    constexpr size_t kSize = 4 << 20;
    const int fd = memfd_create("frame", 0);
    ASSERT_GE(fd, 1);
    ASSERT_EQ(ftruncate(fd, kSize), 0);
    void *mapped = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    const Player player = join(session_);
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
    Player player = join(session_);
    const auto readToEnd = [](int peer) {
        std::vector<uint8_t> sink(65536);
        while (recv(peer, sink.data(), sink.size(), 0) > 0) {
        }
    };
    std::thread reader(readToEnd, player.peer);
    int ended = 0;
    std::mt19937 random(7);
    for (uint64_t round = 0; round < 300; round++) {
        for (uint64_t i = 0; i < 3; i++) {
            ASSERT_EQ(RtmpSendData(session_, static_cast<uint8_t *>(mapped), kSize, fd,
                                   reinterpret_cast<uintptr_t>(mapped), 1000 + round * 10 + i,
                                   RTMP_FRAME_VIDEO),
                      0);
        }
        for (uint32_t spins = random() % 100000; spins > 0; spins--) {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        ASSERT_EQ(RtmpThreadedQueueReset(session_), 0);
        ASSERT_EQ(session_->Queue->ThreadRunning, 0);
        expectLocksFree(session_);
        if (player.client->MessageState == MESSAGE_CUT) {
            ended++;
            reader.join();
            leave(player);
            player = join(session_);
            reader = std::thread(readToEnd, player.peer);
        }
    }
    shutdown(player.socket, SHUT_RDWR);
    reader.join();
    EXPECT_GT(ended, 0);
    EXPECT_LT(ended, 300);
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
        RtmpSession *other = makeSession("other");
        const Player stalled = join(session_);
        const Player waiting = join(other);
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
    RtmpSession *session = makeSession("stuck");
    const Player player = join(session);
    stall(session);
    std::thread destroyer([&] { EXPECT_EQ(RtmpSessionDestroy(session), 0); });
    ASSERT_TRUE(
        log_.waitFor("Sending SIGUSR1 to Client Thread")); // it has the list, and waits for the client
    leave(player);
    destroyer.join();
    EXPECT_EQ(ValidateRtmpSessionHandle(server_, session), -1);
}

// The sender of a session that is destroyed later holds the list that the first one needs.
TEST_F(ThreadedSender, AServerIsDestroyedWhileASenderIsStuckInAWrite)
{
    RtmpSession *session = makeSession("stuck"); // behind "live" in the list
    const Player player = join(session);
    stall(session);
    testing::internal::CaptureStdout(); // the log of the end
    std::thread destroyer([&] {
        EXPECT_EQ(RtmpServerDestroy(server_), 0);
        server_ = nullptr;
    });
    ASSERT_TRUE(WaitUntil([&] { return LoadShared(&session->Queue->ThreadRunning) == 0; }));
    leave(player); // a session waits for its clients
    destroyer.join();
    testing::internal::GetCapturedStdout();
}
