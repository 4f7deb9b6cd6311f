// TLS of tests that do not link libssl.
#include "support/host_fakes.h"

extern "C" {

int SSL_read(struct ssl_st *ssl, void *buf, int num)
{
    HostFakes &fakes = HostFakes::get();
    return fakes.sslRead ? fakes.sslRead(ssl, buf, num) : -1;
}

int SSL_write(struct ssl_st *ssl, const void *buf, int num)
{
    HostFakes &fakes = HostFakes::get();
    return fakes.sslWrite ? fakes.sslWrite(ssl, buf, num) : -1;
}

int32_t rtmpTlsOwesRenewal(struct ssl_st *)
{
    return 0;
}
}
