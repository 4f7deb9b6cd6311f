// A packet that is in its list stays the list's, also when the list's lock fails again and again.
#include "delivery/write/client_send.h"
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "message/send_list.h"
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/client.h"
#include "support/calls.h"
#include "support/session_rig.h"
#include "support/socket_client.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

RtmpRecvPkt *NewPkt(uint32_t chunkStreamId)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = chunkStreamId;
    return pkt;
}

RtmpSendPkt *NewMessage()
{
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = 3;
    return message;
}

// Once the log has a line that holds `after`, the thread that wrote it finds the lock failing one more time.
struct FailsAgain {
    CaptureLogger *log;
    const char *after;
    RtmpMutex *mutex;
    std::unique_ptr<FailingCall> failing;
    RtmpLogger logger = {Relay, this};

    static void Relay(void *context, uint8_t level, const char *format, va_list arguments)
    {
        FailsAgain *self = static_cast<FailsAgain *>(context);
        RtmpLogger *kept = self->log->get();
        kept->LogFunction(kept->LogContext, level, format, arguments);
        if (self->failing == nullptr && self->log->contains(self->after)) {
            self->failing = std::make_unique<FailingCall>(Call::MutexLock, 1, self->mutex);
        }
    }
};

// A client that is served over a socket pair, on a thread that finds the `number`th lock of its receive list
// failing, and then the one after it.
struct Served {
    Served(int number, const char *after) : number_(number), again_{&log, after, nullptr, nullptr}
    {
        rig.server->Logger = &again_.logger;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
        again_.mutex = &client->RecvStrmListLock;
        SetClientState(client, CLIENT_STATE_HANDSHAKE_DONE);
    }
    void start()
    {
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, Serve, this), 0);
    }
    // The peer leaves, and the thread with it.
    void end()
    {
        shutdown(ends[1], SHUT_WR);
        ASSERT_TRUE(log.waitFor("ServeRtmpClient: Exiting ServeRtmpClient thread"));
        ASSERT_TRUE(WaitUntil([&] { return __atomic_load_n(&rig.server->Holders, __ATOMIC_ACQUIRE) == 1; }));
        close(ends[0]); // the descriptor that the library leaves open on a read error
        close(ends[1]);
        rig.server->Logger = log.get();
    }
    static void *Serve(void *self)
    {
        Served *served = static_cast<Served *>(self);
        const FailingCall failing(Call::MutexLock, served->number_, &served->client->RecvStrmListLock);
        return ServeRtmpClient(served->client);
    }

    CaptureLogger log;
    SessionRig rig;
    int ends[2];
    RtmpClient *client;

  private:
    int number_;
    FailsAgain again_;
};

void Send(int fd, const Bytes &bytes)
{
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

Lines ErrorsOf(const CaptureLogger &log, const std::string &part)
{
    Lines found;
    for (const std::string &line : log.lines()) {
        if (line.find(part) != line.npos) {
            found.push_back(line);
        }
    }
    return found;
}

// A window acknowledgement size of 0x00010203, in two chunks of three bytes and one.
const Bytes kFirstChunk = Hex("02 000000 000004 05 00000000 000102");
const Bytes kLastChunk = Hex("C2 03");

} // namespace

TEST(StoredPackets, AContinuedMessageWhoseListFailsTwiceIsHandledAndStaysStored)
{
    // The locks of the receive list: two for the first chunk (none is found, then is this one stored?), one
    // to store it; then found, read, and stored?
    Served served(6, "IsRecvStrmPktExists: Cannot lock");
    served.client->InChunkSize = 3;
    served.start();
    Send(served.ends[1], kFirstChunk + kLastChunk + kFirstChunk + kLastChunk);
    ASSERT_TRUE(WaitUntil([&] { return served.log.count("Client window acknowledge size : 66051") == 2; }));
    served.end();
    EXPECT_EQ(ErrorsOf(served.log, "Cannot lock"),
              (Lines{"3 ERROR: IsRecvStrmPktExists: Cannot lock receive packet list",
                     "3 ERROR: AddRecvPkt: Cannot lock receive packet list"}));
}

TEST(StoredPackets, ANewMessageWhoseListFailsTwiceIsHandledAndFreed)
{
    Served served(2, "IsRecvStrmPktExists: Cannot lock");
    served.start();
    Send(served.ends[1], Hex("02 000000 000004 05 00000000 00010203"));
    ASSERT_TRUE(served.log.waitFor("Client window acknowledge size : 66051"));
    served.end();
    EXPECT_EQ(ErrorsOf(served.log, "Cannot lock"),
              (Lines{"3 ERROR: IsRecvStrmPktExists: Cannot lock receive packet list",
                     "3 ERROR: AddRecvPkt: Cannot lock receive packet list"}));
}

TEST(StoredPackets, AddingAStoredPacketNeverMakesItTheCallers)
{
    for (const Call call : {Call::MutexLock, Call::MutexUnlock}) {
        SocketClient client;
        RtmpRecvPkt *pkt = NewPkt(3);
        ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
        {
            const FailingCall failing(call, 1, &client->RecvStrmListLock);
            EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
        }
        const std::string verb = call == Call::MutexLock ? "lock" : "unlock";
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: AddRecvPkt: Cannot " + verb + " receive packet list"});
        EXPECT_EQ(GetRecvPktFromList(client.get(), 3), pkt);
    }
}

TEST(StoredPackets, AddingAStoredMessageNeverMakesItTheCallers)
{
    for (const Call call : {Call::MutexLock, Call::MutexUnlock}) {
        SocketClient client;
        RtmpSendPkt *message = NewMessage();
        ASSERT_EQ(AddSendPkt(client.get(), message), 0);
        {
            const FailingCall failing(call, 1, &client->SendStrmListLock);
            EXPECT_EQ(AddSendPkt(client.get(), message), 0);
        }
        const std::string verb = call == Call::MutexLock ? "lock" : "unlock";
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: AddSendPkt: Cannot " + verb + " send packet list"});
        EXPECT_EQ(GetSendPktFromList(client.get(), 3), message);
        EXPECT_EQ(RemoveSendPkt(client.get(), nullptr), 0);
    }
}

// A host may have stored the message that it sends: the list keeps it, however its lock fares.
TEST(StoredPackets, SendingAStoredMessageLeavesItToItsList)
{
    for (const bool failing : {false, true}) {
        SocketClient client;
        client.server()->ChunkSize = 128;
        RtmpSendPkt *message = NewMessage();
        ASSERT_EQ(AddSendPkt(client.get(), message), 0);
        {
            FailsAgain again = {&client.log, "Cannot lock", &client->SendStrmListLock, nullptr};
            client.server()->Logger = &again.logger;
            const FailingCall first(Call::MutexLock, failing ? 1 : 0, &client->SendStrmListLock);
            EXPECT_EQ(SendMsgToClient(client.get(), message, RTMP_MSG_STREAM_BEGIN), 0);
            client.server()->Logger = client.log.get();
        }
        EXPECT_EQ(client.log.count("Cannot lock send packet list"), failing ? 2U : 0U);
        EXPECT_EQ(GetSendPktFromList(client.get(), 3), message);
        EXPECT_EQ(RemoveSendPkt(client.get(), nullptr), 0);
    }
}

// ------------------------------------------------------------------------------------ handled messages

// Its values may take eighty times the memory of the message: once it is handled nobody asks for them.
TEST(StoredPackets, AHandledCommandKeepsNoValues)
{
    Served served(0, "never");
    served.start();
    const Bytes connect = Hex("02 0007 63 6F 6E 6E 65 63 74 00 3FF0000000000000") + Bytes(49, AMF_NULL);
    Send(served.ends[1], Hex("03 000000 000044 14 00000000") + connect);
    ASSERT_EQ(connect.size(), 0x44U);
    ASSERT_TRUE(WaitUntil([&] { return served.log.count("Serving RTMP Client") == 2; }));
    const RtmpRecvPkt *pkt = GetRecvPktFromList(served.client, 3);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(pkt->Result.Amf, nullptr);
    EXPECT_TRUE(served.log.contains("Received Command message: CONNECT"));
    served.end();
}
