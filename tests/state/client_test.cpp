#include "net/client_state.h"
#include "state/client.h"
#include "support/session_rig.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

// One packet in each list, as a client has that received and sent something.
void FillLists(RtmpClient *client)
{
    RtmpRecvPkt *received = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    received->ChunkStreamId = 3;
    received->PayloadData = static_cast<uint8_t *>(calloc(1, 1));
    ASSERT_EQ(AddRecvPkt(client, received), 0);
    RtmpSendPkt *sent = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    sent->ChunkStreamId = 2;
    ASSERT_EQ(AddSendPkt(client, sent), 0);
}

struct ServerRecord {
    CaptureLogger log;
    RtmpServer server = {};
    ServerRecord()
    {
        server.Logger = log.get();
    }
};

} // namespace

TEST(Client, ANewRecordHoldsWhatTheConnectionBrought)
{
    ServerRecord rig;
    int tls = 0;
    RtmpClient *client = CreateNewRtmpClient(&rig.server, RTMP_CONN_RTMPT, 77, "10.1.2.3", 0x3412, &tls);
    ASSERT_NE(client, nullptr);
    EXPECT_STREQ(client->ClientIP, "10.1.2.3");
    EXPECT_EQ(client->ConnType, RTMP_CONN_RTMPT);
    EXPECT_EQ(client->Socket, 77);
    EXPECT_EQ(client->Port, 0x3412);
    EXPECT_EQ(client->Tls, &tls);
    EXPECT_EQ(client->State, CLIENT_STATE_INIT);
    EXPECT_EQ(client->InChunkSize, 128U);
    EXPECT_EQ(client->StatusChunkStreamId, 4U);
    EXPECT_EQ(client->StreamId, 0U);
    EXPECT_EQ(client->Session, nullptr);
    EXPECT_EQ(client->Server, &rig.server);
    FreeClientRecord(client);
}

TEST(Client, DestroyingNoClientSucceeds)
{
    EXPECT_EQ(DestroyRtmpClient(nullptr), 0);
}

TEST(Client, AClientThatNeverReceivedIsRefusedAfterTheFirstList)
{
    ServerRecord rig;
    RtmpClient *client = CreateNewRtmpClient(&rig.server, 0, -1, "1.2.3.4", 0, nullptr);
    EXPECT_EQ(DestroyRtmpClient(client), -1);
    EXPECT_EQ(rig.log.lines(), (Lines{
                                   "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
                                   "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
                                   "3 ERROR: RemoveRecvPkt: No Rtmp Recv stream packet list",
                                   "3 ERROR: DestroyRtmpClient: Cannot remove packets in receive packet list",
                               }));
    EXPECT_EQ(client->ClientIP, nullptr);
    FreeClientRecord(client);
}

TEST(Client, AClientThatNeverSentIsRefusedAfterItsReceiveLockIsGone)
{
    ServerRecord rig;
    RtmpClient *client = CreateNewRtmpClient(&rig.server, 0, -1, "1.2.3.4", 0, nullptr);
    FillLists(client);
    ASSERT_EQ(RemoveSendPkt(client, nullptr), 0);
    rig.log.clear();
    EXPECT_EQ(DestroyRtmpClient(client), -1);
    EXPECT_EQ(rig.log.lines(),
              (Lines{
                  "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
                  "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
                  "6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
                  "6 INFO: DestroyRtmpClient: Freeing send stream packet list",
                  "3 ERROR: RemoveSendPkt: No Rtmp Send stream packet list",
                  "3 ERROR: DestroyRtmpClient: Cannot remove packets in send packet list",
              }));
    FreeClientRecord(client);
}

TEST(Client, ARefusedClientStaysInItsSessionUntilItsRecordIsFreed)
{
    SessionRig rig;
    RtmpClient *client = rig.addClient().client;
    EXPECT_EQ(DestroyRtmpClient(client), -1);
    EXPECT_EQ(rig.session->ClientListHead, client);
    EXPECT_EQ(rig.session->ClientCount, 1);
    EXPECT_NE(client->State, static_cast<uint32_t>(CLIENT_STATE_PLAY_DONE)); // no frame meets its lists
    rig.removeClient(client);
    EXPECT_EQ(rig.session->ClientCount, 0);
}

TEST(Client, AClientWithoutASessionIsFreedWithoutTouchingAnyList)
{
    ServerRecord rig;
    RtmpClient *client = CreateNewRtmpClient(&rig.server, 0, -1, "1.2.3.4", 0, nullptr);
    FillLists(client);
    EXPECT_EQ(DestroyRtmpClient(client), 0);
    EXPECT_EQ(rig.log.lines(),
              (Lines{
                  "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
                  "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
                  "6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
                  "6 INFO: DestroyRtmpClient: Freeing send stream packet list",
                  "6 INFO: DestroyRtmpClient: Destroying Send packet list lock",
                  "6 INFO: DestroyRtmpClient: Freeing RtmpClient pointer",
              }));
}

TEST(Client, LeavingASessionSaysFromWhichPlace)
{
    SessionRig rig;
    RtmpClient *clients[4];
    for (RtmpClient *&client : clients) {
        client = CreateNewRtmpClient(rig.server, 0, -1, "1.2.3.4", 0, nullptr);
        ASSERT_EQ(AddClientInSession(rig.session, client), 0);
        FillLists(client);
    }
    EXPECT_TRUE(rig.log.contains("6 INFO: AddClientInSession: Adding client: No. of connected clients : 4"));
    const struct {
        int client;
        const char *place;
        const char *remaining;
    } rows[] = {
        {1, "6 INFO: DestroyRtmpClient: Removing Middle Node from client list", "3"},
        {3, "6 INFO: DestroyRtmpClient: Removing Last node from client list", "2"},
        {0, "6 INFO: DestroyRtmpClient: Removing First node from send pkt list", "1"},
        {2, "6 INFO: DestroyRtmpClient: Only one node is present in send pkt list", "0"},
    };
    for (const auto &row : rows) {
        rig.log.clear();
        EXPECT_EQ(DestroyRtmpClient(clients[row.client]), 0);
        const Lines lines = rig.log.lines();
        ASSERT_EQ(lines.size(), 9U);
        EXPECT_EQ(lines[5], "6 INFO: DestroyRtmpClient: Removing client pointer from client list");
        EXPECT_EQ(lines[6], row.place);
        EXPECT_EQ(lines[7],
                  std::string("6 INFO: DestroyRtmpClient: Removed client; No. of connected clients : ") +
                      row.remaining);
        EXPECT_EQ(lines[8], "6 INFO: DestroyRtmpClient: Freeing RtmpClient pointer");
    }
}

TEST(Client, AClosedConnectionOverTlsAsksItsHandleNothingMore)
{
    SessionRig rig;
    const RigClient each = rig.addClient(CLIENT_STATE_CONNECT_DONE);
    int asked = 0;
    HostFakes::get().sslRead = [&](void *, void *, int) { return ++asked; };
    HostFakes::get().sslWrite = [&](void *, const void *, int) { return ++asked; };
    each.client->Tls = &asked;
    CloseClientSocket(each.client);
    EXPECT_EQ(ReadRtmpMessage(each.client), nullptr);
    EXPECT_TRUE(rig.log.contains("3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)"));
    RtmpSendPkt *message = GenerateRtmpMsg(each.client, nullptr, RTMP_MSG_STREAM_BEGIN);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(SendMsgToClient(each.client, message, RTMP_MSG_STREAM_BEGIN), -1);
    EXPECT_EQ(asked, 0);
}

TEST(Client, AClosedSocketIsSeenByThePeerAndItsNumberIsNeverUsedAgain)
{
    SessionRig rig;
    const RigClient each = rig.addClient(CLIENT_STATE_CONNECT_DONE);
    CloseClientSocket(each.client);
    uint8_t byte;
    EXPECT_EQ(recv(each.peer, &byte, 1, 0), 0);
    EXPECT_NE(each.client->Socket, -1);
    EXPECT_EQ(SocketInUse(each.client), -1);

    // Somebody else gets the number; a message for the client must not reach them.
    int strangers[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, strangers), 0);
    RtmpSendPkt *message = GenerateRtmpMsg(each.client, nullptr, RTMP_MSG_STREAM_BEGIN);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(SendMsgToClient(each.client, message, RTMP_MSG_STREAM_BEGIN), -1);
    EXPECT_TRUE(
        rig.log.contains("3 ERROR: RtmpSendMsgBytes: Unable to send message: 9 (Bad file descriptor)"));
    EXPECT_TRUE(DrainBytes(strangers[0]).empty());
    EXPECT_TRUE(DrainBytes(strangers[1]).empty());
    EXPECT_EQ(ReadRtmpMessage(each.client), nullptr);
    EXPECT_TRUE(rig.log.contains("3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)"));
    close(strangers[0]);
    close(strangers[1]);
}
