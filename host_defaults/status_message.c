/* Status reports are dropped. */
#include "rtmpcast/host.h"

void rtmpStatusMessage(void *hostContext, const char *key, const char *value, const char *description)
{
    (void)hostContext;
    (void)key;
    (void)value;
    (void)description;
}
