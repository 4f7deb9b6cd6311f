// Viewers over TLS: a server with a listener of TLS whose host has a certificate, and peers in front of it,
// both with OpenSSL's libssl.
#pragma once

#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/test_server.h"

#include <openssl/ssl.h>

#include <atomic>
#include <thread>

namespace wire {

// A peer's connection over TLS; what it sends and receives passes, in the clear, through a socket of the
// test's.
class TlsPeer {
  public:
    explicit TlsPeer(uint16_t port);
    ~TlsPeer(); // the plain socket is closed by then
    TlsPeer(const TlsPeer &) = delete;
    TlsPeer &operator=(const TlsPeer &) = delete;
    Connected takePlain();
    bool gotNotice() const // close_notify (RFC 8446, 6.1): the server has said that no more comes
    {
        return gotNotice_;
    }

  private:
    void relay();
    bool toTls();
    bool toPlain();

    int socket_;
    int plain_ = -1;
    int relayed_ = -1;
    SSL_CTX *context_;
    SSL *handle_;
    std::atomic<bool> gotNotice_ = false;
    std::thread thread_;
};

// A server on the steady road with a listener of TLS.
struct TlsServer : TestServer {
    explicit TlsServer(RtmpServiceLimits limits = {});
    ~TlsServer();
    uint16_t tlsPort = 0;
    std::atomic<int> accepted = 0;      // handles that the host made
    std::atomic<int> ended = 0;         // and those that it got back
    std::atomic<bool> endedWell = true; // each on an open socket that does not block

  private:
    struct ssl_st *accept(int fd);
    void end(struct ssl_st *handle);
    SSL_CTX *context_;
};

// A port of the loopback interface that is free as of now.
uint16_t FreePort();

} // namespace wire
