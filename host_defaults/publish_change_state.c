/* No publishing connection: nobody to tell. */
#include "rtmpcast/host.h"

void publishChangeState(RtmpClient *client, int32_t state)
{
    (void)client;
    (void)state;
}
