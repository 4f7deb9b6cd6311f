#include "state/client.h"

#include "instruments/parked_audio.h"
#include "message/recv_list.h"
#include "message/send_list.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "net/socket_io.h"
#include "state/client_list.h"
#include "state/server_hold.h"
#include "steady/line.h"
#include "steady/line_end.h"

#include <sys/socket.h>

namespace {

bool InitClientLocks(RtmpClient *client, RtmpLogger *logger, const char *who)
{
    if (RtmpMutexInit(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot initialize receive packet list lock\n", who);
        return false;
    }
    if (RtmpMutexInit(&client->SendStrmListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot initialize send packet list lock\n", who);
        (void)RtmpMutexDestroy(&client->RecvStrmListLock); // the failure above is the one to report
        return false;
    }
    client->WriteLock = kFreshMutex;
    client->TlsLock = kFreshMutex;
    return true;
}

// The fan-out works with the lists of clients in the playing state only, under the client list lock: out of
// that state, a client's lists are its own thread's. The lock is passed through in every state: a client that
// paused a moment ago may still be in the hands of a frame that began before.
void LeavePlayingState(RtmpClient *client)
{
    if (client->Session == nullptr) {
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
    (void)LockClientsOf(client, &held); // without it the state is changed all the same
    if (ClientStateOf(client) == CLIENT_STATE_PLAY_DONE) {
        SetClientState(client, CLIENT_STATE_CLOSED);
    }
}

void LogChainPlace(RtmpLogger *logger, enum ChainPlace place, const char *who)
{
    switch (place) {
    case CHAIN_MIDDLE:
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Removing Middle Node from client list\n", who);
        break;
    case CHAIN_LAST:
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Removing Last node from client list\n", who);
        break;
    case CHAIN_FIRST: // KEPT: this line and the next name the wrong list. Required.
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Removing First node from send pkt list\n", who);
        break;
    case CHAIN_ONLY:
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Only one node is present in send pkt list\n", who);
        break;
    }
}

// The caller holds the session's ClientListLock. Returns how many clients remain.
int32_t TakeOutOfSession(RtmpSession *session, RtmpClient *client, enum ChainPlace place)
{
    if (place == CHAIN_ONLY && LoadShared(&session->SenderMode) != RTMP_SENDER_THREADED) {
        RtmpMonitorClear(session);
    }
    return UnlinkClient(session, client);
}

int LeaveSession(RtmpClient *client, RtmpLogger *logger, const char *who)
{
    RtmpSession *session = client->Session;
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Removing client pointer from client list\n", who);
    if (RtmpMutexLock(&session->ClientListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp client list\n", who);
        return -1;
    }
    const enum ChainPlace place = PlaceInChain(session, client);
    LogChainPlace(logger, place, who);
    const int32_t remaining = TakeOutOfSession(session, client, place);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Removed client; No. of connected clients : %d\n", who,
                 remaining);
    if (RtmpMutexUnlock(&session->ClientListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp client list\n", who);
        return -1;
    }
    return 0;
}

int TearDownRecvList(RtmpClient *client, RtmpLogger *logger, const char *who)
{
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Destroying Recv packet list lock\n", who);
    if (RemoveRecvPkt(client, nullptr) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot remove packets in receive packet list\n",
                     who);
        return -1;
    }
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)\n", who);
    if (RtmpMutexDestroy(&client->RecvStrmListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot destroy receive packet list lock\n", who);
        return -1;
    }
    return 0;
}

int TearDownSendList(RtmpClient *client, RtmpLogger *logger, const char *who)
{
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Freeing send stream packet list\n", who);
    if (RemoveSendPkt(client, nullptr) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot remove packets in send packet list\n", who);
        return -1;
    }
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Destroying Send packet list lock\n", who);
    if (RtmpMutexDestroy(&client->SendStrmListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot destroy send packet list lock\n", who);
        return -1;
    }
    client->RecvPktTail = nullptr;
    client->SendPktTail = nullptr;
    return 0;
}

// TearDown is DestroyRtmpClient; the caller holds the server, which may go with the client's session.
int TearDown(RtmpClient *client, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    LeavePlayingState(client);
    const bool isSteady = client->Line != nullptr;
    FreeLine(client); // while session and address are there; nothing to do on the default road

    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Freeing client ip address and session name\n", who);
    free(client->ClientIP);
    client->ClientIP = nullptr;
    free(client->StreamName);
    client->StreamName = nullptr;

    // KEPT: an empty list is a failure here, so a client that never received or never sent a message stays
    // half torn down, and whoever ends it frees the record (FreeClientRecord). Required; changes a code and
    // log lines. On the steady road frames are in no list.
    if (!(isSteady && client->RecvPktCount == 0) && TearDownRecvList(client, logger, who) != 0) {
        return -1;
    }
    if (!(isSteady && client->SendPktCount == 0) && TearDownSendList(client, logger, who) != 0) {
        return -1;
    }
    if (client->Session != nullptr && LeaveSession(client, logger, who) != 0) {
        return -1;
    }
    SetClientState(client, CLIENT_STATE_CLOSED);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Freeing RtmpClient pointer\n", who);
    free(client);
    return 0;
}

// FreeLists frees what is left of a failed tear-down, or what an accepted connection of the steady road has.
// Of a record that goes, the lists go in any case.
void FreeLists(RtmpClient *client)
{
    if (client->RecvPktCount > 0 && RemoveRecvPkt(client, nullptr) != 0) {
        FreeRecvPkts(client);
    }
    if (client->SendPktCount > 0 && RemoveSendPkt(client, nullptr) != 0) {
        FreeSendPkts(client);
    }
}

} // namespace

RtmpClient *CreateNewRtmpClient(RtmpServer *server, uint32_t connType, int socket, const char *peerAddress,
                                uint16_t peerPort, void *tls)
{
    RtmpLogger *logger = LoggerOf(server);
    RtmpClient *client = NewRecord<RtmpClient>();
    if (client == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to rtmpClient\n", __func__);
        return nullptr;
    }
    client->ConnType = connType;
    client->Socket = socket;
    client->Tls = tls;
    client->ClientIP = CopyOfText(peerAddress, strlen(peerAddress));
    if (client->ClientIP == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to rtmpClient->ClientIP\n",
                     __func__);
        free(client);
        return nullptr;
    }
    client->Port = peerPort;
    client->State = CLIENT_STATE_INIT;
    client->StatusChunkStreamId = kFirstStatusChunkStreamId;
    client->InChunkSize = kProtocolChunkSize;
    client->CreateTime = RtmpGetSystemTime();
    if (!InitClientLocks(client, logger, __func__)) {
        free(client->ClientIP);
        free(client);
        return nullptr;
    }
    client->Server = server;
    return client;
}

int DestroyRtmpClient(RtmpClient *client)
{
    if (client == nullptr) {
        return 0;
    }
    RtmpServer *server = client->Server;
    HoldServer(server);
    const int result = TearDown(client, __func__);
    (void)ReleaseServer(server); // a failure is logged, and it is not the client's
    return result;
}

void FreeClientRecord(RtmpClient *client)
{
    LeavePlayingState(client); // a caption may be on its way to it
    FreeLine(client);
    RtmpSession *session = client->Session;
    if (session != nullptr) {
        UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
        (void)LockClientsOf(client, &held); // the record goes in any case
        TakeOutOfSession(session, client, PlaceInChain(session, client));
    }
    FreeLists(client);
    free(client->ClientIP);
    free(client->StreamName);
    free(client);
}

void CloseClientSocket(RtmpClient *client)
{
    if (client->Line != nullptr) {
        EndLine(client->Line, STEADY_END_REFUSED); // its thread sees the answers out
        return;
    }
    // A frame that is stuck in a write to this peer is not waited for: the peer must see the end at once.
    if (pthread_mutex_trylock(&client->WriteLock) != 0) {
        shutdown(client->Socket, SHUT_RDWR);
        (void)RtmpMutexLock(&client->WriteLock); // made with the record: cannot fail
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &client->WriteLock;
    MarkSocketClosed(client);
    (void)RtmpCloseSocket(LoggerOf(client->Server), &client->Socket); // logged; the connection is over anyway
}
