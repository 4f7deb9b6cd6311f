// Players that take nothing, and the threads that wait for them: nobody frees what such a thread still uses,
// and no end of a session waits for a peer.
#include "delivery/write/fan_out.h"
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/client.h"
#include "support/session_rig.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

void InstallSignalHandler()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
}

// A client of the rig's session that ends itself: the record is freed by whoever destroys it.
struct OwnClient {
    explicit OwnClient(SessionRig &rig)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
        EXPECT_EQ(AddClientInSession(rig.session, client), 0);
        client->StreamId = 1;
        client->StatusChunkStreamId = 5;
        client->AudioChunkStreamId = 6;
        SetClientState(client, CLIENT_STATE_PLAY_DONE);
    }
    ~OwnClient()
    {
        close(ends[0]);
        closePeer();
    }
    void closePeer()
    {
        if (ends[1] != -1) {
            close(ends[1]);
            ends[1] = -1;
        }
    }
    // After it, every write to the peer waits.
    void fillSocket() const
    {
        const Bytes block(4096);
        while (::send(ends[0], block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
    }
    void serve()
    {
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, client), 0);
    }
    int ends[2];
    RtmpClient *client;
};

bool IsHeld(RtmpMutex *lock)
{
    if (pthread_mutex_trylock(lock) != 0) {
        return true;
    }
    pthread_mutex_unlock(lock);
    return false;
}

RtmpSendPkt *StoredMessage(uint32_t chunkStreamId)
{
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = chunkStreamId;
    return message;
}

// RTMP 1.0, 6.2: a ping request.
const Bytes kPingRequest = Hex("02 000000 000006 04 00000000 0006 00000001");

} // namespace

TEST(StuckPeer, AClientThatPausedIsNotTornDownUnderTheFrameThatIsBeingWrittenToIt)
{
    SessionRig rig;
    OwnClient player(rig);
    RtmpClient *client = player.client;
    ASSERT_EQ(AddRecvPkt(client, static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)))), 0);
    ASSERT_EQ(AddSendPkt(client, StoredMessage(3)), 0);
    player.fillSocket();
    const Bytes frame = Counting(100);
    std::thread sender([&] {
        EXPECT_EQ(SendMsgToConnectedClients(rig.session, frame.data(), 100, 0, 0, 0, RTMP_MSG_AUDIO), -1);
    });
    // The frame has its reference: whether the client plays has been looked at before.
    const int chunkStream = static_cast<int>(client->AudioChunkStreamId);
    ASSERT_TRUE(WaitUntil([&] { return GetSendPktFromList(client, chunkStream) != nullptr; }));
    SetClientState(client, CLIENT_STATE_PAUSE_DONE);
    std::thread owner([&] { EXPECT_EQ(DestroyRtmpClient(client), 0); });
    EXPECT_FALSE(rig.log.waitFor("DestroyRtmpClient", 200));
    player.closePeer();
    sender.join();
    owner.join();
    EXPECT_FALSE(rig.log.contains("No Rtmp Send stream packet list")); // each found what was its own
    EXPECT_EQ(rig.session->ClientCount, 0);
}

TEST(StuckPeer, ASessionEndsAlthoughAPlayerDoesNotTakeTheAnswerToItsPing)
{
    InstallSignalHandler();
    SessionRig rig;
    OwnClient player(rig);
    player.fillSocket();
    player.serve();
    ASSERT_EQ(::send(player.ends[1], kPingRequest.data(), kPingRequest.size(), 0),
              static_cast<ssize_t>(kPingRequest.size()));
    ASSERT_TRUE(WaitUntil([&] { return IsHeld(&rig.session->ClientListLock); }));
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    EXPECT_TRUE(rig.log.contains("Cannot send RTMP PING RESPONSE message to server"));
}

TEST(StuckPeer, ASenderThreadEndsAlthoughItWaitsForAPlayerWhoDoesNotTakeAnAnswer)
{
    InstallSignalHandler();
    SessionRig rig(4096, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    OwnClient player(rig);
    player.fillSocket();
    player.serve();
    ASSERT_EQ(::send(player.ends[1], kPingRequest.data(), kPingRequest.size(), 0),
              static_cast<ssize_t>(kPingRequest.size()));
    ASSERT_TRUE(WaitUntil([&] { return IsHeld(&rig.session->ClientListLock); }));
    const Bytes frame = Counting(100);
    ASSERT_EQ(RtmpSendData(rig.session, frame.data(), 100, 0, 0, 10, RTMP_FRAME_VIDEO), 0);
    ASSERT_TRUE(WaitUntil([&] { return IsHeld(&rig.server->LiveSessionListLock); }));
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
}

TEST(StuckPeer, ASessionEndsAlthoughItsSecondPlayerHoldsUpTheFirst)
{
    InstallSignalHandler();
    SessionRig rig;
    OwnClient first(rig);
    OwnClient second(rig);
    second.fillSocket();
    // When the signal has ended the first player's read, and before it leaves, the second one sends its ping.
    struct Ping {
        SessionRig &rig;
        OwnClient &sender;
        std::atomic<bool> sent = false;
    } ping = {rig, second};
    const auto onLine = [](void *context, uint8_t, const char *format, va_list) {
        Ping *each = static_cast<Ping *>(context);
        if (strstr(format, "TCP recv function error") == nullptr || each->sent.exchange(true)) {
            return;
        }
        EXPECT_EQ(::send(each->sender.ends[1], kPingRequest.data(), kPingRequest.size(), 0),
                  static_cast<ssize_t>(kPingRequest.size()));
        EXPECT_TRUE(WaitUntil([&] { return IsHeld(&each->rig.session->ClientListLock); }));
    };
    RtmpLogger logger = {onLine, &ping};
    rig.server->Logger = &logger;
    first.serve();
    second.serve();
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    EXPECT_TRUE(ping.sent);
    __atomic_store_n(&rig.server->Logger, rig.log.get(), __ATOMIC_SEQ_CST);
    EXPECT_TRUE(WaitUntil([&] { return __atomic_load_n(&rig.server->Holders, __ATOMIC_ACQUIRE) == 1; }));
}
