/* No publishing connection: nothing records. */
#include "rtmpcast/host.h"

void PublishUstreamRecord(RtmpClient *client, const char *action)
{
    (void)client;
    (void)action;
}
