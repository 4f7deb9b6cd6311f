/* No TLS: every write fails. */
#include "rtmpcast/host.h"

int SSL_write(struct ssl_st *ssl, const void *buf, int num)
{
    (void)ssl;
    (void)buf;
    (void)num;
    return -1;
}
