#include "steady_tls/tls_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace wire {
namespace {

sockaddr_in Loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int ConnectTo(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        throw std::runtime_error("connect");
    }
    return fd;
}

} // namespace

uint16_t FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length), 0);
    close(fd);
    return ntohs(address.sin_port);
}

TlsPeer::TlsPeer(uint16_t port)
    : socket_(ConnectTo(port)), context_(SSL_CTX_new(TLS_client_method())), handle_(SSL_new(context_))
{
    SSL_clear_mode(handle_, SSL_MODE_AUTO_RETRY); // a record without data is no reason to wait for the next
    SSL_set_fd(handle_, socket_);
    if (SSL_connect(handle_) != 1) {
        SSL_free(handle_);
        SSL_CTX_free(context_);
        close(socket_);
        throw PeerError("no TLS");
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("socketpair");
    }
    plain_ = ends[0];
    relayed_ = ends[1];
    thread_ = std::thread([this] { relay(); });
}

TlsPeer::~TlsPeer()
{
    if (plain_ >= 0) {
        close(plain_);
    }
    shutdown(socket_, SHUT_RDWR); // a relay that waits for a server which reads nothing goes on
    thread_.join();
    close(relayed_);
    SSL_free(handle_);
    SSL_CTX_free(context_);
    close(socket_);
}

Connected TlsPeer::takePlain()
{
    const int taken = plain_;
    plain_ = -1;
    return {taken};
}

bool TlsPeer::toTls()
{
    char bytes[16384];
    const ssize_t got = recv(relayed_, bytes, sizeof bytes, 0);
    return got > 0 && SSL_write(handle_, bytes, static_cast<int>(got)) == got;
}

bool TlsPeer::toPlain()
{
    char bytes[16384];
    const int got = SSL_read(handle_, bytes, sizeof bytes);
    if (got > 0) {
        return send(relayed_, bytes, static_cast<size_t>(got), MSG_NOSIGNAL) == got;
    }
    const int why = SSL_get_error(handle_, got);
    gotNotice_ = why == SSL_ERROR_ZERO_RETURN;
    return why == SSL_ERROR_WANT_READ;
}

void TlsPeer::relay()
{
    bool goesOn = true;
    while (goesOn) {
        pollfd entries[2] = {{relayed_, POLLIN, 0}, {socket_, POLLIN, 0}};
        const int pending = SSL_pending(handle_);
        goesOn = poll(entries, 2, pending > 0 ? 0 : -1) >= 0;
        if (goesOn && (pending > 0 || entries[1].revents != 0)) {
            goesOn = toPlain();
        }
        if (goesOn && entries[0].revents != 0) {
            goesOn = toTls();
        }
    }
    shutdown(relayed_, SHUT_RDWR);
    shutdown(socket_, SHUT_RDWR);
}

} // namespace wire
