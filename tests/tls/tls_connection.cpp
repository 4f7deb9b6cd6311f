#include "tls_connection.h"

#include "rtmpcast/host.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kDeadlineMs = 60000;
constexpr int kSliceMs = 50; // in which the relay looks whether it may read

[[noreturn]] void Fail(const std::string &what)
{
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    throw std::runtime_error(what + ": " + text);
}

struct Identity {
    EVP_PKEY *key = nullptr;
    X509 *certificate = nullptr;
    Identity() = default;
    Identity(const Identity &) = delete;
    Identity &operator=(const Identity &) = delete;
    ~Identity()
    {
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
};

// A key on the curve P-256.
EVP_PKEY *NewKey()
{
    EVP_PKEY *key = nullptr;
    EVP_PKEY_CTX *maker = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
    if (maker == nullptr || EVP_PKEY_keygen_init(maker) != 1 ||
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(maker, NID_X9_62_prime256v1) != 1 ||
        EVP_PKEY_keygen(maker, &key) != 1) {
        Fail("no key");
    }
    EVP_PKEY_CTX_free(maker);
    return key;
}

// "rtmpcast test", valid from yesterday to tomorrow, signed with its own key.
void SignOneself(Identity &identity)
{
    identity.key = NewKey();
    identity.certificate = X509_new();
    X509_NAME *name = X509_get_subject_name(identity.certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const uint8_t *>("rtmpcast test"),
                               -1, -1, 0);
    ASN1_INTEGER_set(X509_get_serialNumber(identity.certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(identity.certificate), -86400);
    X509_gmtime_adj(X509_getm_notAfter(identity.certificate), 86400);
    if (X509_set_issuer_name(identity.certificate, name) != 1 ||
        X509_set_pubkey(identity.certificate, identity.key) != 1 ||
        X509_sign(identity.certificate, identity.key, EVP_sha256()) == 0) {
        Fail("no certificate");
    }
}

// Each end has a context of its own, as two programs would.
SSL *NewHandle(const TlsSetup &setup, bool accepts, const Identity &identity, int socket)
{
    SSL_CTX *context = SSL_CTX_new(accepts ? TLS_server_method() : TLS_client_method());
    if (context == nullptr || SSL_CTX_set_min_proto_version(context, setup.version) != 1 ||
        SSL_CTX_set_max_proto_version(context, setup.version) != 1) {
        Fail("no context");
    }
    if (accepts) {
        if (SSL_CTX_use_certificate(context, identity.certificate) != 1 ||
            SSL_CTX_use_PrivateKey(context, identity.key) != 1) {
            Fail("no identity");
        }
    } else {
        X509_STORE_add_cert(SSL_CTX_get_cert_store(context), identity.certificate);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    }
    SSL *handle = SSL_new(context);
    SSL_CTX_free(context); // the handle keeps it
    if (handle == nullptr || SSL_set_fd(handle, socket) != 1) {
        Fail("no handle");
    }
    return handle;
}

void Pair(int &first, int &second)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("socketpair");
    }
    first = ends[0];
    second = ends[1];
}

void CloseOnce(int &descriptor)
{
    if (descriptor >= 0) {
        close(descriptor);
    }
    descriptor = -1;
}

} // namespace

// The host's, of all tests over libssl.
extern "C" int32_t rtmpTlsOwesRenewal(struct ssl_st *tls)
{
    return SSL_get_key_update_type(tls) != SSL_KEY_UPDATE_NONE;
}

TlsConnection::TlsConnection(const TlsSetup &setup) : leaves_(setup.leaves), renewEvery_(setup.renewEvery)
{
    Identity identity;
    SignOneself(identity);
    Pair(librarySocket_, peerSocket_);
    Pair(plain_, plainRelay_);
    const bool accepts = setup.role == LibraryEnd::Accepts;
    library_.reset(NewHandle(setup, accepts, identity, librarySocket_));
    peer_.reset(NewHandle(setup, !accepts, identity, peerSocket_));
    if (setup.partialWrites) {
        SSL_set_mode(library_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE);
    }
    int done = -1;
    std::thread handshake([&] { done = accepts ? SSL_connect(peer_.get()) : SSL_accept(peer_.get()); });
    const int mine = accepts ? SSL_accept(library_.get()) : SSL_connect(library_.get());
    handshake.join();
    if (mine != 1 || done != 1) {
        Fail("no TLS handshake");
    }
    fcntl(peerSocket_, F_SETFL, O_NONBLOCK);
    relay_ = std::thread([this] { relay(); });
}

TlsConnection::~TlsConnection()
{
    CloseOnce(plain_);
    // A peer that has left without notice is gone; others wait for the library's end.
    shutdown(librarySocket_, SHUT_RDWR);
    if (relay_.joinable()) {
        relay_.join();
    }
    CloseOnce(librarySocket_);
    CloseOnce(plainRelay_);
    CloseOnce(peerSocket_);
}

wire::Connected TlsConnection::takePlain()
{
    const wire::Connected taken = {plain_};
    plain_ = -1;
    return taken;
}

void TlsConnection::waitUntilPeerVanished()
{
    relay_.join();
}

// The relay's thread is the only one that touches the peer's handle.
void TlsConnection::relay()
{
    for (int silence = 0; tlsOpen_ && silence < kDeadlineMs; silence += kSliceMs) {
        const bool paused = paused_;
        pollfd entries[2] = {{paused ? -1 : peerSocket_, POLLIN, 0},
                             {plainOpen_ ? plainRelay_ : -1, POLLIN, 0}};
        if ((paused || SSL_pending(peer_.get()) == 0) && poll(entries, 2, kSliceMs) <= 0) {
            continue;
        }
        silence = 0;
        if ((entries[1].revents & (POLLIN | POLLHUP)) != 0 && !toTls()) {
            leave();
        }
        if (tlsOpen_ && !paused && !toPlain()) {
            tlsOpen_ = false;
        }
    }
    shutdown(plainRelay_, SHUT_WR);
}

// Decrypted bytes to the test. False: TLS has ended.
bool TlsConnection::toPlain()
{
    uint8_t bytes[20000];
    ERR_clear_error();
    const int got = SSL_read(peer_.get(), bytes, sizeof bytes);
    if (got <= 0) {
        return SSL_get_error(peer_.get(), got) == SSL_ERROR_WANT_READ;
    }
    for (int done = 0; done < got;) {
        const ssize_t sent = send(plainRelay_, bytes + done, static_cast<size_t>(got - done), MSG_NOSIGNAL);
        if (sent < 0) {
            return true; // the test does not read any more
        }
        done += static_cast<int>(sent);
    }
    return true;
}

// Bytes from the test into TLS. False: there will be no more.
bool TlsConnection::toTls()
{
    uint8_t bytes[20000];
    const ssize_t got = recv(plainRelay_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN) {
        return true;
    }
    if (got > 0) {
        renewKeys();
        writeTls(bytes, static_cast<size_t>(got));
    }
    return got > 0;
}

// The peer's next write renews its keys, and asks the library's end to renew its own.
void TlsConnection::renewKeys()
{
    if (renewEvery_ == 0 || ++writes_ % renewEvery_ != 0) {
        return;
    }
    if (SSL_key_update(peer_.get(), SSL_KEY_UPDATE_REQUESTED) == 1) {
        ++renewals_;
    }
}

void TlsConnection::sendRaw(const void *bytes, size_t count)
{
    if (send(peerSocket_, bytes, count, MSG_NOSIGNAL) != static_cast<ssize_t>(count)) {
        throw std::runtime_error("send");
    }
}

void TlsConnection::writeTls(const uint8_t *bytes, size_t count)
{
    int result;
    while ((result = SSL_write(peer_.get(), bytes, static_cast<int>(count))) <= 0) {
        if (SSL_get_error(peer_.get(), result) != SSL_ERROR_WANT_WRITE) {
            return; // the library's end is gone
        }
        pollfd entry = {peerSocket_, POLLOUT, 0};
        poll(&entry, 1, kDeadlineMs);
    }
}

void TlsConnection::leave()
{
    plainOpen_ = false;
    if (leaves_ == PeerLeaves::WithNotice) {
        SSL_shutdown(peer_.get());
    } else {
        CloseOnce(peerSocket_);
        tlsOpen_ = false;
    }
}
