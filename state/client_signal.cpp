#include "state/client_signal.h"

#include "net/atomic.h"
#include "net/scope.h"

#include <signal.h>

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
