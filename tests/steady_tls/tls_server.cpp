#include "steady_tls/tls_peer.h"

#include "rtmpcast/rtmpcast.h"
#include "steady_tls/tls_certificate.h"

#include <csignal>
#include <fcntl.h>

// The host's.
extern "C" int32_t rtmpTlsOwesRenewal(struct ssl_st *tls)
{
    return SSL_get_key_update_type(tls) != SSL_KEY_UPDATE_NONE;
}

namespace wire {

TlsServer::TlsServer(RtmpServiceLimits limits) : context_(SSL_CTX_new(TLS_server_method()))
{
    signal(SIGPIPE, SIG_IGN); // libssl writes without MSG_NOSIGNAL
    ShowCertificate(context_);
    HostFakes::get().reset();
    HostFakes::get().tlsAccept = [this](int fd, const std::string &) { return accept(fd); };
    HostFakes::get().tlsEnd = [this](struct ssl_st *handle) { end(handle); };
    int result = RTMP_ERR_BIND;
    while (result == RTMP_ERR_BIND) {
        limits.TlsPort = tlsPort = FreePort();
        result = RtmpServiceSettings(server, &limits);
    }
    EXPECT_EQ(result, 0);
}

TlsServer::~TlsServer()
{
    if (server != nullptr) {
        EXPECT_EQ(destroy(), 0);
    }
    EXPECT_EQ(ended, accepted);
    EXPECT_TRUE(endedWell);
    HostFakes::get().reset();
    SSL_CTX_free(context_);
}

struct ssl_st *TlsServer::accept(int fd)
{
    SSL *handle = SSL_new(context_);
    SSL_set_fd(handle, fd);
    if (SSL_accept(handle) != 1) {
        SSL_free(handle);
        return nullptr;
    }
    accepted++;
    return handle;
}

void TlsServer::end(struct ssl_st *handle)
{
    const int flags = fcntl(SSL_get_fd(handle), F_GETFL);
    if (flags < 0 || (flags & O_NONBLOCK) == 0) {
        endedWell = false;
    }
    SSL_shutdown(handle);
    SSL_free(handle);
    ended++;
}

} // namespace wire
