#include "connection.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds kPatience(10'000); // for each address, and for TLS's handshake
constexpr milliseconds kFarewell(3'000);  // a service may take to read what it has been sent
constexpr milliseconds kSlice(100);       // between two looks at the stop

struct AddressFreer {
    void operator()(addrinfo *addresses) const
    {
        freeaddrinfo(addresses);
    }
};
using Addresses = std::unique_ptr<addrinfo, AddressFreer>;

Addresses lookUp(const ServiceUrl &url)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int code = getaddrinfo(url.host.c_str(), std::to_string(url.port).c_str(), &hints, &found);
    if (code != 0) {
        throw ConnectError("'" + url.host + "': " + gai_strerror(code), false);
    }
    return Addresses(found);
}

// Until one of the events is there. False: a stop, or not in time.
bool waitFor(int socket, short events, steady_clock::time_point limit, const StopFlag &stop)
{
    while (!stop.raised() && steady_clock::now() < limit) {
        pollfd entry = {socket, events, 0};
        if (poll(&entry, 1, static_cast<int>(kSlice.count())) > 0) {
            return true;
        }
    }
    return false;
}

// The first thing that went wrong, in OpenSSL's words; its list is empty afterwards.
std::string tlsReason()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) {
        return "the service has closed the connection";
    }
    const char *text =
        ERR_SYSTEM_ERROR(code) ? strerror(ERR_GET_REASON(code)) : ERR_reason_error_string(code);
    return text != nullptr ? text : "error " + std::to_string(code);
}

bool isAddress(const std::string &host)
{
    in_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

void setOption(int socket, int level, int name, int value)
{
    (void)setsockopt(socket, level, name, &value, sizeof value); // without it, it is only less well kept
}

} // namespace

ServiceTrust::ServiceTrust(const std::string &caFile, bool isInsecure)
    : context_(SSL_CTX_new(TLS_client_method())), isInsecure_(isInsecure)
{
    (void)SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
    SSL_CTX_set_options(context_, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_verify(context_, isInsecure ? SSL_VERIFY_NONE : SSL_VERIFY_PEER, nullptr);
    const bool isLoaded = caFile.empty()
                              ? SSL_CTX_set_default_verify_paths(context_) == 1
                              : SSL_CTX_load_verify_locations(context_, caFile.c_str(), nullptr) == 1;
    if (!isLoaded && !isInsecure) {
        SSL_CTX_free(context_);
        throw std::runtime_error((caFile.empty() ? "the system's certificates" : "--ca: '" + caFile + "'") +
                                 std::string(": ") + tlsReason());
    }
    ERR_clear_error();
}

ServiceTrust::~ServiceTrust()
{
    SSL_CTX_free(context_);
}

// The name goes to the service too, which may have a certificate for each of its names (RFC 6066, 3).
ssl_st *ServiceTrust::handleFor(int socket, const std::string &host) const
{
    SSL *tls = SSL_new(context_);
    if (tls == nullptr || SSL_set_fd(tls, socket) != 1) {
        SSL_free(tls);
        return nullptr;
    }
    bool isNamed = true;
    if (isAddress(host)) {
        isNamed = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(tls), host.c_str()) == 1;
    } else {
        isNamed = SSL_set_tlsext_host_name(tls, host.c_str()) == 1 && SSL_set1_host(tls, host.c_str()) == 1;
    }
    if (!isNamed && !isInsecure_) {
        SSL_free(tls);
        return nullptr;
    }
    return tls;
}

Connection::Connection(const ServiceUrl &url, const ServiceTrust &trust, const StopFlag &stop)
{
    try {
        connectTo(url, stop);
        setOptions();
        if (url.tls) {
            beginTls(url, trust, stop);
        }
        setBlocking(true);
    } catch (const ConnectError &) {
        close();
        throw;
    }
}

void Connection::connectTo(const ServiceUrl &url, const StopFlag &stop)
{
    const Addresses addresses = lookUp(url);
    int failure = 0;
    for (const addrinfo *each = addresses.get(); each != nullptr; each = each->ai_next) {
        if (tryAddress(each->ai_addr, each->ai_addrlen, stop)) {
            return;
        }
        failure = errno;
    }
    throw ConnectError("cannot connect: " + std::string(strerror(failure)), false);
}

bool Connection::tryAddress(const void *address, unsigned length, const StopFlag &stop)
{
    close();
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket_ < 0) {
        return false;
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &static_cast<const sockaddr_in *>(address)->sin_addr, text, sizeof text);
    address_ = text;
    if (connect(socket_, static_cast<const sockaddr *>(address), length) == 0) {
        return true;
    }
    if (errno != EINPROGRESS) {
        return false;
    }
    if (!waitFor(socket_, POLLOUT, steady_clock::now() + kPatience, stop)) {
        errno = ETIMEDOUT;
        return false;
    }
    int result = 0;
    socklen_t size = sizeof result;
    (void)getsockopt(socket_, SOL_SOCKET, SO_ERROR, &result, &size);
    errno = result;
    return result == 0;
}

// Frames leave at once; little waits in the kernel, where nobody can throw it away, and which would hide a
// slow network from the bitrate controller; and a service that is gone, or takes nothing, is noticed.
void Connection::setOptions() const
{
    constexpr int unsentBytes = 128 * 1024;
    constexpr int secondsOfSilence = 10;
    setOption(socket_, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(socket_, IPPROTO_TCP, TCP_NOTSENT_LOWAT, unsentBytes);
    setOption(socket_, IPPROTO_TCP, TCP_USER_TIMEOUT, secondsOfSilence * 1000);
    setOption(socket_, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket_, IPPROTO_TCP, TCP_KEEPIDLE, secondsOfSilence);
    setOption(socket_, IPPROTO_TCP, TCP_KEEPINTVL, secondsOfSilence);
    const timeval limit = {secondsOfSilence, 0};
    (void)setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit); // as the others
}

// A certificate that is not trusted is not going to be so in a minute.
void Connection::beginTls(const ServiceUrl &url, const ServiceTrust &trust, const StopFlag &stop)
{
    const steady_clock::time_point limit = steady_clock::now() + kPatience;
    ERR_clear_error();
    tls_ = trust.handleFor(socket_, url.host);
    if (tls_ == nullptr) {
        throw ConnectError("TLS cannot be set up: " + tlsReason(), false);
    }
    int result = SSL_connect(tls_);
    while (result != 1) {
        const int wish = SSL_get_error(tls_, result);
        if (wish != SSL_ERROR_WANT_READ && wish != SSL_ERROR_WANT_WRITE) {
            break;
        }
        if (!waitFor(socket_, wish == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, limit, stop)) {
            throw ConnectError("TLS: the service does not answer", false);
        }
        result = SSL_connect(tls_);
    }
    if (result == 1) {
        return;
    }
    if (const long verdict = SSL_get_verify_result(tls_); verdict != X509_V_OK) {
        throw ConnectError(
            "its certificate is not trusted: " + std::string(X509_verify_cert_error_string(verdict)) +
                " (--ca FILE names who signed it)",
            true);
    }
    throw ConnectError("TLS: " + tlsReason(), false);
}

void Connection::setBlocking(bool isBlocking) const
{
    const int flags = fcntl(socket_, F_GETFL);
    (void)fcntl(socket_, F_SETFL, isBlocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

void Connection::close()
{
    SSL_free(tls_);
    tls_ = nullptr;
    if (socket_ >= 0) {
        ::close(socket_);
        socket_ = -1;
    }
}

// TLS has a good-bye of its own (RFC 8446, 6.1), in front of the end of writing.
void Connection::endTls(steady_clock::time_point limit)
{
    const StopFlag never;
    int result = SSL_shutdown(tls_); // the service's answer is not waited for
    while (result < 0 && SSL_get_error(tls_, result) == SSL_ERROR_WANT_WRITE &&
           waitFor(socket_, POLLOUT, limit, never)) {
        result = SSL_shutdown(tls_);
    }
    ERR_clear_error();
}

// A socket that is closed with bytes that nobody has read, or that gets some afterwards, resets the
// connection, and the service loses what it has not read yet: they are read away until it has ended the
// connection.
Connection::~Connection()
{
    const steady_clock::time_point limit = steady_clock::now() + kFarewell;
    const StopFlag never;
    setBlocking(false);
    if (tls_ != nullptr) {
        endTls(limit);
    }
    (void)shutdown(socket_, SHUT_WR);
    char away[4096];
    ssize_t got = 1;
    while (got > 0 && waitFor(socket_, POLLIN, limit, never)) {
        got = recv(socket_, away, sizeof away, 0);
    }
    close();
}
