/* No TLS: there is no error state. */
#include "rtmpcast/host.h"

void TLS_print_error(RtmpLogger *logger, void *tls, int result)
{
    (void)logger;
    (void)tls;
    (void)result;
}
