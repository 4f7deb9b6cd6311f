// Ends of sessions and servers that wait for nobody: not for a player that never stops sending, not for a
// host's thread that is stuck in a write, not for a signal that the host keeps from its threads.
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/handshake.h"
#include "serve/serve.h"
#include "state/client.h"
#include "support/produced.h"
#include "support/session_rig.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

// What SIGUSR1 does for as long as this lives.
class SignalHandler {
  public:
    explicit SignalHandler(int flags = 0)
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        action.sa_flags = flags;
        sigaction(SIGUSR1, &action, &before_);
    }
    ~SignalHandler()
    {
        sigaction(SIGUSR1, &before_, nullptr);
    }
    SignalHandler(const SignalHandler &) = delete;

  private:
    struct sigaction before_;
};

// Both ends of a connection; over TCP also what only TCP does when one side stops reading.
struct Line {
    int server = -1;
    int peer = -1;
};

Line LocalLine()
{
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    return {ends[0], ends[1]};
}

Line TcpLine()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    sockaddr *generic = reinterpret_cast<sockaddr *>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(listener, generic, length), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, generic, &length), 0);
    Line line;
    line.peer = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(line.peer, generic, length), 0);
    line.server = accept(listener, nullptr, nullptr);
    close(listener);
    return line;
}

// A playing client of the rig's session that frees itself; the peer's end is the test's.
struct Player {
    explicit Player(SessionRig &rig, Line over = LocalLine()) : line(over)
    {
        client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, line.server, "127.0.0.1", 0, nullptr);
        EXPECT_EQ(AddClientInSession(rig.session, client), 0);
        client->StreamId = 1;
        client->StatusChunkStreamId = 5;
        client->AudioChunkStreamId = 6;
        SetClientState(client, CLIENT_STATE_PLAY_DONE);
    }
    Player(const Player &) = delete;
    ~Player()
    {
        close(line.server);
        close(line.peer);
    }
    void serve()
    {
        ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, client), 0);
    }
    void send(const Bytes &bytes) const
    {
        ASSERT_EQ(::send(line.peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // After it, every write to the peer waits.
    void fillSocket() const
    {
        const Bytes block(4096);
        while (::send(line.server, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
    }
    Line line;
    RtmpClient *client;
    pthread_t thread = 0;
};

bool IsHeld(RtmpMutex *lock)
{
    if (pthread_mutex_trylock(lock) != 0) {
        return true;
    }
    pthread_mutex_unlock(lock);
    return false;
}

int SendVideo(RtmpSession *session, uint64_t timestamp)
{
    const Bytes frame = Counting(100);
    return RtmpSendData(session, frame.data(), 100, 0, 0, timestamp, RTMP_FRAME_VIDEO);
}

// RTMP 1.0, 6.2: a ping request; 5.4.1: Set Chunk Size, which nobody answers.
const Bytes kPingRequest = Hex("02 000000 000006 04 00000000 0006 00000001");
const Bytes kSetChunkSize = Hex("02 000000 000004 01 00000000 00001000");

bool NobodyHoldsButTheHost(RtmpServer *server)
{
    return WaitUntil([&] { return LoadShared(&server->Holders) == 1; });
}

} // namespace

// ---------------------------------------------------------------------------------------- reads that end

TEST(Ending, APlayerThatNeverStopsSendingDoesNotHoldUpItsSession)
{
    const SignalHandler handler;
    SessionRig rig;
    Player player(rig, TcpLine());
    // Whenever the thread has handled a message, the next one is there already: it never waits in a read.
    struct Endless {
        Player &player;
        std::atomic<int> sent = 0;
    } endless = {player};
    const auto onLine = [](void *context, uint8_t, const char *format, va_list) {
        Endless *each = static_cast<Endless *>(context);
        if (strstr(format, "Client to Server Chunk Size") != nullptr && ++each->sent < 20000) {
            each->player.send(kSetChunkSize);
        }
    };
    RtmpLogger logger = {onLine, &endless};
    player.send(kSetChunkSize);
    player.send(kSetChunkSize);
    __atomic_store_n(&rig.server->Logger, &logger, __ATOMIC_SEQ_CST);
    player.serve();
    ASSERT_TRUE(WaitUntil([&] { return endless.sent > 10; }));
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    EXPECT_TRUE(NobodyHoldsButTheHost(rig.server));
    EXPECT_LT(endless.sent, 20000);
    __atomic_store_n(&rig.server->Logger, rig.log.get(), __ATOMIC_SEQ_CST);
}

TEST(Ending, AReadThatIsEndedSaysWhatAnInterruptedOneSaysAndThePeerSeesNothing)
{
    const SignalHandler handler(SA_RESTART); // such a handler ends no read
    SessionRig rig;
    Player player(rig, TcpLine());
    player.serve();
    ASSERT_TRUE(rig.log.waitFor("Serving RTMP Client"));
    rig.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    EXPECT_TRUE(
        rig.log.contains("3 ERROR: RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)"));
    EXPECT_TRUE(
        rig.log.contains("6 INFO: RtmpReadBytes: TCP recv function error in linux: Err :4 Retval: -1"));
    EXPECT_FALSE(rig.log.contains("Connection was closed by peer"));
    uint8_t byte;
    EXPECT_EQ(recv(player.line.peer, &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    player.send(kSetChunkSize);
    player.send(kSetChunkSize); // no reset has come for the first
}

TEST(Ending, APlayerWhoseThreadKeepsTheSignalBlockedLeavesAtOnce)
{
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    SessionRig rig;
    Player player(rig, TcpLine());
    pthread_sigmask(SIG_BLOCK, &blocked, &before); // serve threads inherit it
    player.serve();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(rig.log.waitFor("Serving RTMP Client"));
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
}

TEST(Ending, AWriteThatNoSignalEndsIsEndedByTheEndOfTheConnection)
{
    const SignalHandler handler(SA_RESTART);
    SessionRig rig;
    Player player(rig);
    player.fillSocket();
    player.serve();
    player.send(kPingRequest);
    ASSERT_TRUE(WaitUntil([&] { return IsHeld(&rig.session->ClientListLock); }));
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    EXPECT_TRUE(rig.log.contains("Cannot send RTMP PING RESPONSE message to server"));
}

// ------------------------------------------------------------------------------------- a host that sends

namespace {

// A host's thread that is stuck in RtmpSendData, in a write to a player that takes nothing.
class StuckHost {
  public:
    StuckHost(SessionRig &rig, const Player &player)
    {
        player.fillSocket();
        thread_ = std::thread([&rig, this] { result = SendVideo(rig.session, 10); });
        EXPECT_TRUE(WaitUntil([&] { return IsHeld(&player.client->WriteLock); }));
    }
    ~StuckHost()
    {
        thread_.join();
        EXPECT_EQ(result, -1);
    }
    std::atomic<int> result = 5;

  private:
    std::thread thread_;
};

} // namespace

TEST(Ending, AServerGoesAlthoughTheHostsThreadIsStuckInASend)
{
    const SignalHandler handler;
    SessionRig rig;
    RtmpSession *other = RtmpSessionCreate(rig.server, "other", nullptr);
    ASSERT_NE(other, nullptr);
    Player player(rig);
    player.serve();
    const StuckHost host(rig, player);
    testing::internal::CaptureStdout();
    EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
    produced::CapturedStdout();
    rig.session = nullptr;
    rig.server = RtmpServerCreate(rig.log.get(), "ANY", 0, 0, 0, 4096, nullptr);
}

TEST(Ending, ASessionGoesAlthoughTheHostsThreadIsStuckInASend)
{
    const SignalHandler handler;
    SessionRig rig;
    Player player(rig);
    player.serve();
    const StuckHost host(rig, player);
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
}

TEST(Ending, AHostsThreadThatNoSignalEndsIsEndedByTheEndOfTheConnection)
{
    const SignalHandler handler(SA_RESTART);
    SessionRig rig;
    Player player(rig);
    player.serve();
    const StuckHost host(rig, player);
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
}

// ------------------------------------------------------------------------------- the threaded sender's end

TEST(Ending, AFirstClientThatTheSenderClosesLeavesAtOnceAndFramesFlowAgainAfterAReset)
{
    SessionRig rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    Player first(rig, TcpLine());
    Player second(rig, TcpLine());
    first.serve();
    second.serve();
    ASSERT_TRUE(WaitUntil([&] { return rig.log.count("Serving RTMP Client") == 2; }));
    ASSERT_EQ(RtmpThreadedQueueClose(rig.session), 0); // as a failed send leaves it
    rig.log.clear();
    EXPECT_EQ(SendVideo(rig.session, 10), 0);
    EXPECT_TRUE(rig.log.contains("6 INFO: RtmpThreadedQueueSendData: The Sender thread exited"));
    EXPECT_EQ(RtmpThreadedQueueReset(rig.session), 0); // as the manual says
    ASSERT_TRUE(rig.log.waitFor("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"));
    EXPECT_TRUE(
        rig.log.contains("3 ERROR: RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)"));
    EXPECT_EQ(LoadShared(&rig.session->ClientCount), 1);
    EXPECT_EQ(SendVideo(rig.session, 20), 0);
    EXPECT_FALSE(ReadBytes(second.line.peer, 100).empty());
    uint8_t byte;
    EXPECT_EQ(recv(first.line.peer, &byte, 1, MSG_DONTWAIT), -1); // no frame, and no end either
    EXPECT_EQ(errno, EAGAIN);
    const SignalHandler handler; // until here no signal was sent
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
}

TEST(Ending, AClosedClientThatIsNotReadingLeavesBeforeItsNextRead)
{
    SessionRig rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    Player player(rig, TcpLine());
    ASSERT_EQ(RtmpThreadedQueueClose(rig.session), 0);
    EXPECT_EQ(SendVideo(rig.session, 10), 0); // its thread has not even started
    player.serve();
    ASSERT_TRUE(rig.log.waitFor("6 INFO: ServeRtmpClient: Exiting Server RtmpClient thread"));
    EXPECT_EQ(rig.session->ClientCount, 0);
}

// ------------------------------------------------------------------------------------------ who ends whom

TEST(Ending, TheThreadOfAPlayerThatDeletesItsStreamIsDetached)
{
    SessionRig rig;
    Player player(rig);
    SetClientState(player.client, CLIENT_STATE_DELETESTREAM);
    // The log line comes behind the decision, and the thread waits in it while the test asks.
    struct Asked {
        std::atomic<int> detached = -1;
    } asked;
    const auto onLine = [](void *context, uint8_t, const char *format, va_list) {
        if (strstr(format, "Exiting Server RtmpClient thread") == nullptr) {
            return;
        }
        pthread_attr_t attributes;
        int state = -1;
        EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
        EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &state), 0);
        pthread_attr_destroy(&attributes);
        static_cast<Asked *>(context)->detached = state == PTHREAD_CREATE_DETACHED;
    };
    RtmpLogger logger = {onLine, &asked};
    __atomic_store_n(&rig.server->Logger, &logger, __ATOMIC_SEQ_CST);
    player.serve();
    EXPECT_TRUE(WaitUntil([&] { return asked.detached != -1; }));
    EXPECT_EQ(asked.detached, 1);
    EXPECT_TRUE(NobodyHoldsButTheHost(rig.server));
    __atomic_store_n(&rig.server->Logger, rig.log.get(), __ATOMIC_SEQ_CST);
}

TEST(Ending, OnTheThreadOfItsOwnClientASessionCannotBeDestroyed)
{
    const SignalHandler handler;
    SessionRig rig;
    Player player(rig, TcpLine());
    player.client->ServeThread = pthread_self(); // a publishing host's own
    rig.log.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(RtmpSessionDestroy(rig.session), -83);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "RtmpWaitForThreadCompletion: Resource deadlock avoided\n");
    EXPECT_EQ(rig.log.lines(), (Lines{"6 INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread",
                                      "6 INFO: RtmpSessionDestroy: Waiting for Thread Completion",
                                      "3 ERROR: RtmpSessionDestroy: Wait For serve client thread Failed"}));
    EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, rig.session), 0);

    player.send(Hex("05")); // the client is served as before
    uint8_t byte = 0;
    EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 1), 0);
    EXPECT_EQ(byte, 5);
    EXPECT_EQ(SendVideo(rig.session, 10), 0);
    FreeClientRecord(player.client);
}

TEST(Ending, AThreadThatAHostRunsForItsClientHoldsTheServerItself)
{
    SessionRig rig;
    Player player(rig);
    player.serve();
    shutdown(player.line.peer, SHUT_WR);
    ASSERT_TRUE(rig.log.waitFor("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"));
    EXPECT_TRUE(NobodyHoldsButTheHost(rig.server));
    EXPECT_EQ(IsSessionNameExists(rig.server, "live"), 0); // the server is still there
}

// -------------------------------------------------------------------------------------------- lookups

TEST(Ending, LookupsBesideSessionsThatComeAndGoFindThoseThatStay)
{
    SessionRig rig;
    ASSERT_NE(RtmpSessionCreate(rig.server, "before", nullptr), nullptr);
    std::atomic<bool> done = false;
    std::thread host([&] {
        for (int i = 0; i < 300; i++) {
            RtmpSession *first = RtmpSessionCreate(rig.server, "first", nullptr);
            RtmpSession *stays = RtmpSessionCreate(rig.server, "second", nullptr);
            EXPECT_EQ(RtmpSessionDestroy(first), 0);
            EXPECT_EQ(RtmpSessionDestroy(stays), 0);
        }
        done = true;
    });
    RtmpSession *last = RtmpSessionCreate(rig.server, "last", nullptr);
    while (!done) {
        ASSERT_EQ(IsSessionNameExists(rig.server, "last"), 0);
        ASSERT_EQ(ValidateRtmpSessionHandle(rig.server, last), 0);
        ASSERT_EQ(IsSessionNameExists(rig.server, "nobody"), -1);
    }
    host.join();
}
