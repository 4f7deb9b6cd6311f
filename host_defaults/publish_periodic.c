/* No publishing connection: no caption message. */
#include "rtmpcast/host.h"

#include <stddef.h>

RtmpSendPkt *PublishGeneratePeriodicRTMPMsg(RtmpClient *client, uint32_t kind, uint64_t timeStampDelta)
{
    (void)client;
    (void)kind;
    (void)timeStampDelta;
    return NULL;
}
