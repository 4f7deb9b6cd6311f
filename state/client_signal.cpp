#include "state/client_signal.h"

#include "net/atomic.h"
#include "net/scope.h"

#include <signal.h>
#include <sys/socket.h>

namespace {

// The caller holds MemberLock, under which CloseClientSocket marks a socket that it is about to close.
bool HasOpenSocket(const RtmpClient *client)
{
    return client->IsMember != 0 && LoadShared(&client->SocketClosed) == 0;
}

bool IsBeingWrittenTo(RtmpClient *client)
{
    if (pthread_mutex_trylock(&client->WriteLock) != 0) {
        return true;
    }
    (void)RtmpMutexUnlock(&client->WriteLock); // taken a moment ago
    return false;
}

} // namespace

void EndReading(RtmpClient *client)
{
    StoreShared(&client->ToldToLeave, static_cast<uint8_t>(1));
    if (HasOpenSocket(client)) {
        shutdown(client->Socket, SHUT_RD); // a connection that is already gone needs none
    }
}

void SignalClient(const RtmpClient *client)
{
    const RtmpThread thread = LoadShared(&client->ServeThread);
    if (thread != 0) {
        pthread_kill(thread, SIGUSR1);
    }
}

void SignalMembers(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    for (const RtmpClient *each = session->MemberHead; each != nullptr; each = each->NextMember) {
        SignalClient(each);
    }
}

void ShutStuckWrites(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    for (RtmpClient *each = session->MemberHead; each != nullptr; each = each->NextMember) {
        if (HasOpenSocket(each) && IsBeingWrittenTo(each)) {
            shutdown(each->Socket, SHUT_RDWR); // a connection that is already gone needs none
        }
    }
}
