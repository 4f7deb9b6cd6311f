/* The encoder cannot be retuned. */
#include "rtmpcast/host.h"

void rtmpSendZandBitrate(void *hostContext, int32_t bitrate)
{
    (void)hostContext;
    (void)bitrate;
}
