#include "rtmpcast/server.h"

#include "core/service_end.h"
#include "core/session_end.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/log_line.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/socket_io.h"
#include "rtmpcast/sender.h"
#include "rtmpt/tunnel_accept.h"
#include "serve/accept.h"
#include "state/frame_under_way.h"
#include "state/server_hold.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// One of the two listeners: where it lives in the server record, and what is logged when it fails.
struct Listener {
    uint16_t RtmpServer::*Port;
    int RtmpServer::*Socket;
    RtmpThread RtmpServer::*Thread;
    RtmpThreadStart Start;
    LogText SocketFailed;
    LogText ThreadFailed;
    LogText JoinFailed;
};

constexpr Listener kRtmpListener = {
    &RtmpServer::RtmpPort,
    &RtmpServer::RtmpSocket,
    &RtmpServer::RtmpAcceptThread,
    AcceptRtmpConnectionThread,
    LOG_TEXT("ERROR: %s: Cannot create Rtmp socket of type tcp\n"),
    LOG_TEXT("ERROR: %s: Cannot create rtmp thread\n"),
    LOG_TEXT("ERROR: %s: Wait For RTMP Thread Completion Failed\n"),
};

constexpr Listener kRtmptListener = {
    &RtmpServer::RtmptPort,
    &RtmpServer::RtmptSocket,
    &RtmpServer::RtmptAcceptThread,
    AcceptRtmptConnectionThread,
    LOG_TEXT("ERROR: %s: Cannot create Rtmpt socket of type tcp\n"),
    LOG_TEXT("ERROR: %s: Cannot create rtmpt thread\n"),
    LOG_TEXT("ERROR: %s: Wait For RTMPT Thread Completion Failed\n"),
};

// LogCreateFailure logs for RtmpServerCreate.
void LogCreateFailure(RtmpServer *server, LogText text)
{
    LogLine(LoggerOf(server), RTMP_LOG_ERROR, text, "RtmpServerCreate");
}

void LogBindFailure(RtmpServer *server, const Listener &listener)
{
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                 &listener == &kRtmpListener ? "ERROR: %s: Cannot bind RTMP Server Socket to port %d\n"
                                             : "ERROR: %s: Cannot bind RTMPT Server Socket to port %d\n",
                 "RtmpServerCreate", server->*listener.Port);
}

bool IsAnyInterface(const char *name)
{
    return strcmp(name, "ANY") == 0 || strcmp(name, "any") == 0;
}

RtmpServer *NewServer(RtmpLogger *logger, const char *address, uint16_t rtmpPort, uint16_t rtmptPort,
                      int32_t chunkSize)
{
    RtmpServer *server = NewRecord<RtmpServer>();
    if (server == nullptr) {
        return nullptr;
    }
    memcpy(server->IpAddress, address, sizeof server->IpAddress);
    server->BaseBandwidth = kBaseBandwidth;
    server->PeerBandwidth = kBaseBandwidth + kPeerBandwidthMargin;
    server->ChunkSize = kProtocolChunkSize;
    server->ConfiguredChunkSize = chunkSize;
    server->RtmpPort = rtmpPort;
    server->RtmpSocket = -1;
    server->RtmptPort = rtmptPort;
    server->RtmptSocket = -1;
    server->Logger = logger;
    server->Holders = 1;
    server->LinkLock = kFreshMutex;
    OpenLogGate(server);
    return server;
}

void SetSocketOptions(RtmpServer *server, int fd, uint8_t dscp)
{
    const int reuse = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0) {
        LogCreateFailure(server, LOG_TEXT("ERROR: %s: Fail to set the server socket reusable\n"));
    }
    // DS field (RFC 2474): the code point stands in the upper six bits; larger ones lose theirs.
    const uint8_t tos = static_cast<uint8_t>(dscp << 2);
    if (setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) != 0) {
        LogCreateFailure(server, LOG_TEXT("ERROR: %s: Fail to set the server socket TOS value\n"));
    }
}

int BindAndListen(RtmpServer *server, const Listener &listener, int fd)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(server->IpAddress);
    address.sin_port = htons(server->*listener.Port);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        LogBindFailure(server, listener);
        return RTMP_ERR_BIND;
    }
    if (listen(fd, kListenBacklog) != 0) {
        LogCreateFailure(server, LOG_TEXT("ERROR: %s: Listening Failed\n"));
        return RTMP_ERR_LISTEN;
    }
    return 0;
}

// OpenListener undoes on failure what it did.
int OpenListener(RtmpServer *server, const Listener &listener, uint8_t dscp)
{
    if (server->*listener.Port == 0) {
        return 0;
    }
    const int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (fd < 0) {
        LogCreateFailure(server, listener.SocketFailed);
        return RTMP_ERR_SOCKET;
    }
    SetSocketOptions(server, fd, dscp);
    const int result = BindAndListen(server, listener, fd);
    if (result != 0) {
        close(fd);
        return result;
    }
    server->*listener.Socket = fd;
    if (RtmpThreadCreate(&(server->*listener.Thread), listener.Start, server) != 0) {
        LogCreateFailure(server, listener.ThreadFailed);
        close(fd);
        server->*listener.Socket = -1;
        return RTMP_ERR_THREAD_CREATE;
    }
    return 0;
}

// CloseListener ends the accept thread before the descriptor's number is given back: the thread uses it.
int CloseListener(RtmpServer *server, const Listener &listener)
{
    if (server->*listener.Port == 0) {
        return 0;
    }
    const int fd = server->*listener.Socket;
    if (fd != -1) {
        (void)ShutDownSocket(LoggerOf(server), fd); // logged; accept fails, and the thread ends
    }
    const int joined = RtmpWaitForThreadCompletion(server->*listener.Thread);
    if (fd != -1) {
        (void)CloseShutSocket(LoggerOf(server), fd);  // logged
        StoreShared(&(server->*listener.Socket), -1); // a host that tries again finds nothing to close twice
    }
    if (joined != 0) {
        LogLine(LoggerOf(server), RTMP_LOG_ERROR, listener.JoinFailed, "RtmpServerDestroy");
        return RTMP_ERR_THREAD_JOIN;
    }
    server->*listener.Thread = 0; // nor to join twice
    return 0;
}

int OpenListeners(RtmpServer *server, uint8_t dscp)
{
    int result = OpenListener(server, kRtmpListener, dscp);
    if (result != 0) {
        return result;
    }
    result = OpenListener(server, kRtmptListener, dscp);
    if (result != 0) {
        (void)CloseListener(server, kRtmpListener); // the RTMPT failure is the one to report
    }
    return result;
}

void EndAuxThread(RtmpServer *server)
{
    if (server->AuxThreadRunning == 0) {
        return;
    }
    if (server->AuxThreadCancel != 0) {
        RtmpThreadCancel(server->AuxThread);
    }
    (void)RtmpWaitForThreadCompletion(server->AuxThread); // perror has reported it; the slot is given up
    server->AuxThreadRunning = 0;
    server->AuxThreadCancel = 0;
}

// One slice of waiting for the frames that are under way. False once there is none.
bool PressFrames(RtmpServer *server, int slices)
{
    bool underWay = false;
    for (RtmpSession *session = server->LiveSessionHead; session != nullptr; session = session->NextSession) {
        underWay = PressFrame(session, slices) || underWay;
    }
    return underWay;
}

// EndSenders sees everybody out who sends frames: whoever is stuck in a write to a player holds the list of
// all sessions, and others may be waiting for it. The host creates and destroys none meanwhile.
void EndSenders(RtmpServer *server)
{
    for (RtmpSession *session = server->LiveSessionHead; session != nullptr; session = session->NextSession) {
        RefuseFrames(session);
    }
    for (RtmpSession *session = server->LiveSessionHead; session != nullptr; session = session->NextSession) {
        if (session->SenderMode == RTMP_SENDER_THREADED) {
            StopFrames(session); // such a frame waits for no player
        }
    }
    for (int slices = 0; PressFrames(server, slices); slices++) {
    }
}

} // namespace

RtmpServer *RtmpServerCreate(RtmpLogger *logger, const char *interfaceName, uint16_t rtmpPort,
                             uint16_t rtmptPort, uint8_t dscp, int32_t chunkSize, int *err)
{
    if (interfaceName == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return FailCreate(RTMP_ERR_INVALID_ARGUMENT, err);
    }
    char address[sizeof(RtmpServer::IpAddress)] = "0.0.0.0";
    if (!IsAnyInterface(interfaceName) && RtmpGetIP(logger, interfaceName, address) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot get IP address of interface %s\n", __func__,
                     interfaceName);
        return FailCreate(RTMP_ERR_IP_ADDRESS, err);
    }
    RtmpServer *server = NewServer(logger, address, rtmpPort, rtmptPort, chunkSize);
    if (server == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to rtmpServer\n", __func__);
        return FailCreate(RTMP_ERR_MEMORY, err);
    }
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Server IP address %s\n", __func__, server->IpAddress);
    if (RtmpMutexInit(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot initialize session list lock\n", __func__);
        free(server);
        return FailCreate(RTMP_ERR_LOCK_INIT, err);
    }
    const int result = OpenListeners(server, dscp);
    if (result != 0) {
        CloseLogGate(server);
        (void)ReleaseServer(server); // the listener's failure is the one to report
        return FailCreate(result, err);
    }
    return server;
}

int RtmpServerDestroy(RtmpServer *server)
{
    if (server == nullptr) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    int result = CloseListener(server, kRtmpListener);
    if (result == 0) {
        result = CloseListener(server, kRtmptListener);
    }
    if (result != 0) {
        return result;
    }
    EndAuxThread(server);
    EndConnections(server);

    // KEPT: the logger goes first; what the sessions say while they end appears on standard output. Required;
    // changes where log lines go.
    CloseLogGate(server);
    EndSenders(server);
    while (server->LiveSessionHead != nullptr) {
        if (RtmpSessionDestroy(server->LiveSessionHead) != 0) {
            RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Can not destroy RTMP session\n", __func__);
        }
    }
    EndService(server);
    return ReleaseServer(server);
}
