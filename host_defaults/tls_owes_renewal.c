/* No TLS: there is no handle to ask. */
#include "rtmpcast/host.h"

int32_t rtmpTlsOwesRenewal(struct ssl_st *tls)
{
    (void)tls;
    return 0;
}
