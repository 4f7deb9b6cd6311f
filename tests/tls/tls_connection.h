// A TLS connection over a socket pair, made with OpenSSL's libssl. One end is a handle and a socket for the
// library; what the other end sends and receives passes, decrypted, through an ordinary socket of the test's.
#pragma once

#include "support/byte_socket.h"

#include <openssl/ssl.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

enum class LibraryEnd { Accepts, Connects };

// How the peer's end of TLS ends when the test's plain socket is closed or finished.
enum class PeerLeaves {
    WithNotice, // close_notify, as it should be (RFC 8446, 6.1)
    WithoutNotice,
};

struct TlsSetup {
    LibraryEnd role = LibraryEnd::Accepts;
    PeerLeaves leaves = PeerLeaves::WithNotice;
    int version = TLS1_3_VERSION;
    bool partialWrites = false; // of the library's handle: SSL_write may write a part
    int renewEvery = 0;         // writes of the peer: its keys, and the library's, are renewed (TLS 1.3)
};

class TlsConnection {
  public:
    // Handshakes over TLS; the accepting end shows a certificate made for it, and the other end verifies it.
    explicit TlsConnection(const TlsSetup &setup = {});
    ~TlsConnection(); // the plain socket is closed by then, or closed here if nobody took it
    TlsConnection(const TlsConnection &) = delete;
    TlsConnection &operator=(const TlsConnection &) = delete;

    SSL *handle()
    {
        return library_.get();
    }
    int socket() const // the library's
    {
        return librarySocket_;
    }
    wire::Connected takePlain();                   // at most once
    void waitUntilPeerVanished();                  // WithoutNotice only, once its plain socket is closed
    void sendRaw(const void *bytes, size_t count); // past the peer's handle, while it has nothing to write
    void pauseReading(bool paused) // the peer takes nothing meanwhile, and sends what the test has for it
    {
        paused_ = paused;
    }
    int renewals() const
    {
        return renewals_;
    }

  private:
    struct Free {
        void operator()(SSL *handle) const
        {
            SSL_free(handle);
        }
    };
    using Handle = std::unique_ptr<SSL, Free>;
    void relay();
    bool toPlain();
    bool toTls();
    void renewKeys();
    void writeTls(const uint8_t *bytes, size_t count);
    void leave();

    PeerLeaves leaves_;
    int renewEvery_;
    int writes_ = 0;
    std::atomic<int> renewals_ = 0;
    std::atomic<bool> paused_ = false;
    Handle library_, peer_;
    int librarySocket_ = -1, peerSocket_ = -1;
    int plain_ = -1;      // the test's end
    int plainRelay_ = -1; // the relay's
    bool plainOpen_ = true, tlsOpen_ = true;
    std::thread relay_;
};
