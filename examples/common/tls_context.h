// The server's side of TLS, with OpenSSL.
#pragma once

#include <stdexcept>
#include <string>

struct ssl_ctx_st;
struct ssl_st;

// A certificate or key that cannot be used.
class TlsError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class TlsContext {
  public:
    // TLS 1.2 and later, with a certificate chain and its key in PEM. Throws TlsError.
    TlsContext(const std::string &certificateFile, const std::string &keyFile);
    ~TlsContext();
    TlsContext(const TlsContext &) = delete;
    TlsContext &operator=(const TlsContext &) = delete;

    // The handshake on a socket that blocks; it waits for the peer. Null: it failed, and `why` says how.
    ssl_st *accept(int socket, std::string &why) const;

    // Of any handle: whether its peer's renewal of keys is still to be answered.
    static bool owesRenewal(ssl_st *tls);

    static void end(ssl_st *tls);

  private:
    ssl_ctx_st *context_;
};
