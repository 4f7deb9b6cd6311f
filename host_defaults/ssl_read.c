/* No TLS: every read fails. */
#include "rtmpcast/host.h"

int SSL_read(struct ssl_st *ssl, void *buf, int num)
{
    (void)ssl;
    (void)buf;
    (void)num;
    return -1;
}
