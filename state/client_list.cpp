#include "state/client_list.h"

#include "net/atomic.h"
#include "net/platform.h"
#include "net/scope.h"

namespace {

// Whatever hung behind the tail when a newcomer is linked there is no longer part of the chain.
void DropFromChain(RtmpClient *client)
{
    for (; client != nullptr; client = client->NextClient) {
        client->OutOfChain = 1;
    }
}

void AppendToChain(RtmpSession *session, RtmpClient *client)
{
    RtmpClient *tail = session->ClientListTail;
    if (tail == nullptr) {
        session->ClientListHead = client;
    } else {
        DropFromChain(tail->NextClient);
        tail->NextClient = client;
    }
    client->PrevClient = tail;
    client->NextClient = nullptr;
    client->OutOfChain = 0;
    session->ClientListTail = client;
}

void AppendToMembers(RtmpSession *session, RtmpClient *client)
{
    client->PrevMember = session->MemberTail;
    client->NextMember = nullptr;
    if (session->MemberTail == nullptr) {
        session->MemberHead = client;
    } else {
        session->MemberTail->NextMember = client;
    }
    session->MemberTail = client;
    client->IsMember = 1;
}

void RemoveFromMembers(RtmpSession *session, RtmpClient *client)
{
    (client->PrevMember != nullptr ? client->PrevMember->NextMember : session->MemberHead) =
        client->NextMember;
    (client->NextMember != nullptr ? client->NextMember->PrevMember : session->MemberTail) =
        client->PrevMember;
    client->PrevMember = nullptr;
    client->NextMember = nullptr;
    client->IsMember = 0;
}

// The caller holds MemberLock.
enum ChainPlace PlaceOf(const RtmpClient *client)
{
    const bool hasPrevious = client->PrevClient != nullptr;
    const bool hasNext = client->NextClient != nullptr;
    if (hasPrevious && hasNext) {
        return CHAIN_MIDDLE;
    }
    if (hasNext) {
        return CHAIN_FIRST;
    }
    // Outside the chain nobody is the only one: head and tail belong to others.
    return hasPrevious || client->OutOfChain != 0 ? CHAIN_LAST : CHAIN_ONLY;
}

void RemoveFromChain(RtmpSession *session, RtmpClient *client)
{
    RtmpClient *previous = client->PrevClient;
    RtmpClient *next = client->NextClient;
    switch (PlaceOf(client)) {
    case CHAIN_MIDDLE:
        previous->NextClient = next;
        next->PrevClient = previous;
        break;
    case CHAIN_LAST:
        previous->NextClient = nullptr;
        session->ClientListTail = previous;
        break;
    case CHAIN_FIRST:
        next->PrevClient = nullptr;
        session->ClientListHead = next;
        // KEPT: with three or more clients the tail now stands at the second, so the next newcomer is linked
        // there and those behind it fall out of the chain. Required: it decides who gets frames.
        session->ClientListTail = next;
        break;
    case CHAIN_ONLY:
        session->ClientListHead = nullptr;
        session->ClientListTail = nullptr;
        break;
    }
}

// A client outside the chain joins its neighbours only where they still point back at it.
void RemoveFromOutside(RtmpClient *client)
{
    RtmpClient *previous = client->PrevClient;
    RtmpClient *next = client->NextClient;
    if (previous != nullptr && previous->NextClient == client) {
        previous->NextClient = next;
    }
    if (next != nullptr && next->PrevClient == client) {
        next->PrevClient = previous;
    }
}

// No link of a client that stays may lead to one that is about to be freed.
void ForgetLinksTo(RtmpSession *session, const RtmpClient *gone)
{
    for (RtmpClient *client = session->MemberHead; client != nullptr; client = client->NextMember) {
        if (client->PrevClient == gone) {
            client->PrevClient = nullptr;
        }
        if (client->NextClient == gone) {
            client->NextClient = nullptr;
        }
    }
}

} // namespace

int LockClientsOf(const RtmpClient *client, RtmpMutex **lock)
{
    RtmpSession *session = LoadShared(&client->Session);
    *lock = nullptr;
    if (session == nullptr) {
        return 0;
    }
    if (RtmpMutexLock(&session->ClientListLock) != 0) {
        return -1;
    }
    *lock = &session->ClientListLock;
    return 0;
}

int UnlockClients(RtmpMutex **lock)
{
    RtmpMutex *held = *lock;
    *lock = nullptr;
    return held == nullptr ? 0 : RtmpMutexUnlock(held);
}

int32_t LinkClient(RtmpSession *session, RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (client->IsMember == 0) {
        StoreShared(&client->Session, session);
        AppendToChain(session, client);
        AppendToMembers(session, client);
    }
    return AddShared(&session->ClientCount, 1);
}

enum ChainPlace PlaceInChain(RtmpSession *session, const RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    return PlaceOf(client);
}

int32_t UnlinkClient(RtmpSession *session, RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    if (client->OutOfChain != 0) {
        RemoveFromOutside(client);
    } else {
        RemoveFromChain(session, client);
    }
    RemoveFromMembers(session, client);
    ForgetLinksTo(session, client);
    client->PrevClient = nullptr;
    client->NextClient = nullptr;
    StoreShared(&client->Session, static_cast<RtmpSession *>(nullptr));
    const int32_t count = AddShared(&session->ClientCount, -1);
    pthread_cond_broadcast(&session->MemberLeft);
    return count;
}

RtmpClient *FirstMember(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    return session->ClientListHead != nullptr ? session->ClientListHead : session->MemberHead;
}
