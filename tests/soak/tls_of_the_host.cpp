// Viewers over TLS: the host's side, with OpenSSL's libssl.
#include "rtmpcast/host.h"
#include "steady_tls/tls_certificate.h"

#include <openssl/ssl.h>

namespace {

SSL_CTX *Context()
{
    static SSL_CTX *const context = [] {
        SSL_CTX *made = SSL_CTX_new(TLS_server_method());
        wire::ShowCertificate(made);
        SSL_CTX_set_options(made, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(made, 0);
        SSL_CTX_set_session_cache_mode(made, SSL_SESS_CACHE_OFF);
        return made;
    }();
    return context;
}

} // namespace

extern "C" {

struct ssl_st *rtmpTlsAccept(RtmpServer *, int fd, const char *)
{
    SSL *handle = SSL_new(Context());
    SSL_set_fd(handle, fd);
    if (SSL_accept(handle) != 1) {
        SSL_free(handle);
        return nullptr;
    }
    return handle;
}

void rtmpTlsEnd(struct ssl_st *tls)
{
    SSL_shutdown(tls);
    SSL_free(tls);
}

int32_t rtmpTlsOwesRenewal(struct ssl_st *tls)
{
    return SSL_get_key_update_type(tls) != SSL_KEY_UPDATE_NONE;
}
}
