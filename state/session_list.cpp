#include "state/session_list.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/scope.h"
#include "state/client.h"
#include "state/client_list.h"
#include "steady/line.h"

#include <string.h>

namespace {

// A name, or a part of one.
struct NamePart {
    const char *Start;
    uint64_t Length;
};

NamePart WholeName(const char *name)
{
    return {name, strlen(name)};
}

NamePart WithoutQuery(NamePart name)
{
    const void *query = memchr(name.Start, '?', name.Length);
    if (query == nullptr) {
        return name;
    }
    return {name.Start, static_cast<uint64_t>(static_cast<const char *>(query) - name.Start)};
}

// "mp4:" and "flv:" name a container to servers that play files.
NamePart WithoutContainer(NamePart name)
{
    const bool isNamed =
        name.Length >= 4 && (memcmp(name.Start, "mp4:", 4) == 0 || memcmp(name.Start, "flv:", 4) == 0);
    return isNamed ? NamePart{name.Start + 4, name.Length - 4} : name;
}

bool IsName(const char *whole, NamePart part)
{
    return strlen(whole) == part.Length && memcmp(whole, part.Start, part.Length) == 0;
}

// The caller holds LiveSessionListLock. `session` receives the match, or null when the match has no media.
int FindReadySession(RtmpServer *server, NamePart name, RtmpSession **session)
{
    for (RtmpSession *each = server->LiveSessionHead; each != nullptr; each = each->NextSession) {
        if (!IsName(each->Name, name)) {
            continue;
        }
        *session = LoadShared(&each->MediaInfoAdded) == 1 ? each : nullptr;
        return *session != nullptr ? 0 : -1;
    }
    return -1;
}

// FindStream looks up the name as the player gave it; where that is allowed, then without what belongs to the
// request and not to the stream. The caller holds LiveSessionListLock.
int FindStream(RtmpClient *client, const char *name, RtmpSession **session)
{
    const NamePart whole = WholeName(name);
    if (FindReadySession(client->Server, whole, session) == 0) {
        return 0;
    }
    if (!Allows(client, RULE_STREAM_NAME)) {
        return -1;
    }
    const NamePart path = WithoutQuery(whole);
    if (FindReadySession(client->Server, path, session) == 0) {
        return 0;
    }
    return FindReadySession(client->Server, WithoutContainer(path), session);
}

// LockForLookup and UnlockAfterLookup log as ValidateRtmpStreamName, whose steps they are.
int LockForLookup(RtmpClient *client)
{
    constexpr const char *who = "ValidateRtmpStreamName";
    RtmpLogger *logger = LoggerOf(client->Server);
    if (LoadShared(&client->Server->LiveSessionCount) < 1) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: No session found\n", who);
        return -1;
    }
    if (LockSessionListFor(client) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Locking failed of LiveSessionListLock\n", who);
        return -1;
    }
    return 0;
}

int UnlockAfterLookup(RtmpClient *client)
{
    if (RtmpMutexUnlock(&client->Server->LiveSessionListLock) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: UnLocking failed of LiveSessionListLock\n", "ValidateRtmpStreamName");
        return -1;
    }
    return 0;
}

// GiveLine gives a line to a client of the host's own, or one that was accepted before the server took the
// steady road. JOIN_NOT_FOUND: the server is being destroyed, and its sessions with it; JOIN_FAILED: no
// memory.
int GiveLine(RtmpSession *session, RtmpClient *client)
{
    if (session->Stream == nullptr || client->Line != nullptr) {
        return 0;
    }
    SteadyService *service = session->Stream->Service;
    if (NewLine(service, client, 0) == 0) {
        return 0;
    }
    return IsClosing(service) ? JOIN_NOT_FOUND : JOIN_FAILED;
}

// The caller holds LiveSessionListLock.
void JoinSession(RtmpSession *session, RtmpClient *client)
{
    if (session->Stream != nullptr && client->Line != nullptr && client->Line->Stream == nullptr) {
        JoinPlayers(session->Stream, client->Line);
    }
    const int32_t count = LinkClient(session, client);
    RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_INFO,
                 "INFO: %s: Adding client: No. of connected clients : %d\n", "AddClientInSession", count);
}

} // namespace

void LinkSession(RtmpServer *server, RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&server->LinkLock);
    session->PrevSession = server->LiveSessionTail;
    session->NextSession = nullptr;
    (server->LiveSessionTail != nullptr ? server->LiveSessionTail->NextSession : server->LiveSessionHead) =
        session;
    server->LiveSessionTail = session;
    AddShared(&server->LiveSessionCount, 1);
}

void UnlinkSession(RtmpServer *server, RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&server->LinkLock);
    RtmpSession *previous = session->PrevSession;
    RtmpSession *next = session->NextSession;
    (previous != nullptr ? previous->NextSession : server->LiveSessionHead) = next;
    (next != nullptr ? next->PrevSession : server->LiveSessionTail) = previous;
    AddShared(&server->LiveSessionCount, -1);
}

int LockSessionListFor(RtmpClient *client)
{
    RtmpMutex *lock = &client->Server->LiveSessionListLock;
    int result = RtmpMutexLockSlice(lock);
    while (result == RTMP_WAIT_IS_UP && !IsToldToLeave(client) && LoadShared(&client->Awaited) == 0) {
        result = RtmpMutexLockSlice(lock);
    }
    return result == 0 ? 0 : -1;
}

int ValidateRtmpSessionHandle(RtmpServer *server, RtmpSession *session)
{
    if (server == nullptr) {
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&server->LinkLock);
    for (RtmpSession *each = server->LiveSessionHead; each != nullptr; each = each->NextSession) {
        if (each == session) {
            return 0;
        }
    }
    return -1;
}

int IsReadySession(RtmpServer *server, const RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&server->LinkLock);
    for (const RtmpSession *each = server->LiveSessionHead; each != nullptr; each = each->NextSession) {
        if (each == session) {
            return LoadShared(&each->MediaInfoAdded) == 1 ? 1 : 0;
        }
    }
    return JOIN_NOT_FOUND;
}

int IsSessionNameExists(RtmpServer *server, const char *name)
{
    if (server == nullptr || name == nullptr) {
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&server->LinkLock);
    for (RtmpSession *each = server->LiveSessionHead; each != nullptr; each = each->NextSession) {
        if (strcmp(each->Name, name) == 0) {
            return 0;
        }
    }
    return -1;
}

int ValidateRtmpStreamName(RtmpClient *client, uint32_t /*nameLength*/, const char *name,
                           RtmpSession **session)
{
    if (LockForLookup(client) != 0) {
        return -1;
    }
    const int result = FindReadySession(client->Server, WholeName(name), session);
    return UnlockAfterLookup(client) != 0 ? -1 : result;
}

int IsAnyClientConnected(RtmpSession *session)
{
    return LoadShared(&session->ClientCount) >= 1 ? 0 : -1;
}

// KEPT: clients join under the session list's lock and leave under the client list's, and one that is in the
// list already is counted again. Required; changes log lines.
int AddClientInSession(RtmpSession *session, RtmpClient *client)
{
    RtmpServer *server = session->Server;
    if (GiveLine(session, client) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to the client's frames\n", __func__);
        return -1;
    }
    if (RtmpMutexLock(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp session list\n",
                     __func__);
        return -1;
    }
    JoinSession(session, client);
    if (RtmpMutexUnlock(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp session list\n",
                     __func__);
        return -1;
    }
    return 0;
}

int JoinStream(RtmpClient *client, const char *name)
{
    if (LockForLookup(client) != 0) {
        return JOIN_NOT_FOUND;
    }
    RtmpSession *session = nullptr;
    int result = FindStream(client, name, &session);
    if (result == 0 && client->Session == nullptr) {
        result = GiveLine(session, client);
    }
    if (result == 0 && client->Session == nullptr) {
        JoinSession(session, client);
    }
    return UnlockAfterLookup(client) != 0 ? JOIN_NOT_FOUND : result;
}

int JoinGiven(RtmpClient *client, RtmpSession *session)
{
    RtmpServer *server = client->Server;
    if (LockSessionListFor(client) != 0) {
        return JOIN_FAILED;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &server->LiveSessionListLock;
    if (ValidateRtmpSessionHandle(server, session) != 0) {
        return JOIN_NOT_FOUND;
    }
    const int result = GiveLine(session, client);
    if (result == 0) {
        JoinSession(session, client);
    }
    return result;
}
