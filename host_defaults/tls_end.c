/* No TLS: there is no handle to free. */
#include "rtmpcast/host.h"

void rtmpTlsEnd(struct ssl_st *tls)
{
    (void)tls;
}
