/* No TLS: every connection that would speak it is refused. */
#include "rtmpcast/host.h"

#include <stddef.h>

struct ssl_st *rtmpTlsAccept(RtmpServer *server, int fd, const char *address)
{
    (void)server;
    (void)fd;
    (void)address;
    return NULL;
}
