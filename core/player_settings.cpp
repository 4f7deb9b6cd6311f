// Which players a server admits.
#include "rtmpcast/player.h"

#include "net/atomic.h"

int32_t RtmpPlayerSettings(RtmpServer *server, uint32_t flags)
{
    if (server != nullptr) {
        StoreShared(&server->PlayerFlags, flags & RTMP_PLAYERS_ALL); // accept threads copy them
    }
    return 0;
}
