#include "state/server_hold.h"

#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"

#include <stdlib.h>

namespace {

// A record that a host made itself is the host's to free.
bool IsOurs(const RtmpServer *server)
{
    return server != nullptr && server->LogGate.LogFunction != nullptr;
}

} // namespace

void HoldServer(RtmpServer *server)
{
    if (!IsOurs(server)) {
        return;
    }
    AddShared(&server->Holders, 1);
}

int ReleaseServer(RtmpServer *server)
{
    if (!IsOurs(server) || AddShared(&server->Holders, -1) > 0) {
        return 0;
    }
    if (RtmpMutexDestroy(&server->LiveSessionListLock) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Destroying of RTMP Session List Lock Failed\n", "RtmpServerDestroy");
        return RTMP_ERR_LOCK_DESTROY;
    }
    free(server);
    return 0;
}
