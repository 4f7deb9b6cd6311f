#include "support/byte_socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace wire {
namespace {

PeerError WithErrno(const std::string &what)
{
    return PeerError(what + ": " + strerror(errno), errno);
}

} // namespace

ByteSocket::ByteSocket(uint16_t port, int deadlineMs) : deadlineMs_(deadlineMs)
{
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd_ < 0) {
        throw WithErrno("socket");
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        const PeerError error = WithErrno("connect");
        leave();
        throw error;
    }
    const int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

ByteSocket::~ByteSocket()
{
    leave();
}

void ByteSocket::waitFor(short events, Clock::time_point deadline, const char *what) const
{
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry = {fd_, events, 0};
        const int ready = left.count() <= 0 ? 0 : poll(&entry, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            return;
        }
        if (ready == 0) {
            throw PeerError(std::string("deadline while ") + what);
        }
        if (errno != EINTR) {
            throw WithErrno("poll");
        }
    }
}

void ByteSocket::send(const Bytes &bytes)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(deadlineMs_);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent =
            ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            went_.note(bytes.data() + done, static_cast<size_t>(sent));
            done += static_cast<size_t>(sent);
        } else if (errno == EAGAIN) {
            waitFor(POLLOUT, deadline, "sending");
        } else if (errno != EINTR) {
            throw WithErrno("send");
        }
    }
}

void ByteSocket::sendInPieces(const Bytes &bytes, size_t pieceSize)
{
    for (size_t at = 0; at < bytes.size(); at += pieceSize) {
        send(Slice(bytes, at, pieceSize));
    }
}

size_t ByteSocket::fill(Clock::time_point deadline)
{
    used_ = 0;
    while (true) {
        // The server leaves small writes to Nagle's algorithm, which waits for acknowledgements.
        const int one = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
        buffer_.resize(65536);
        const ssize_t got = recv(fd_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        buffer_.resize(got > 0 ? static_cast<size_t>(got) : 0);
        if (got >= 0) {
            came_.note(buffer_.data(), buffer_.size());
            return buffer_.size();
        }
        if (errno == EAGAIN) {
            waitFor(POLLIN, deadline, "receiving");
        } else if (errno != EINTR) {
            throw WithErrno("recv");
        }
    }
}

Bytes ByteSocket::receive(size_t count)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(deadlineMs_);
    Bytes out;
    out.reserve(count);
    while (out.size() < count) {
        if (used_ == buffer_.size() && fill(deadline) == 0) {
            throw PeerError("end of stream after " + std::to_string(out.size()) + " of " +
                            std::to_string(count) + " bytes");
        }
        const size_t take = std::min(count - out.size(), buffer_.size() - used_);
        out.insert(out.end(), buffer_.begin() + static_cast<ptrdiff_t>(used_),
                   buffer_.begin() + static_cast<ptrdiff_t>(used_ + take));
        used_ += take;
    }
    if (recording_) {
        Append(record_, out);
    }
    return out;
}

void ByteSocket::hold(const Bytes &more)
{
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(used_));
    used_ = 0;
    Append(buffer_, more);
}

bool ByteSocket::ends(int deadlineMs)
{
    if (used_ < buffer_.size()) {
        return false;
    }
    try {
        return fill(Clock::now() + std::chrono::milliseconds(deadlineMs)) == 0;
    } catch (const PeerError &error) {
        return error.code == ECONNRESET; // closed while bytes of ours were unread
    }
}

bool ByteSocket::hasBytes(int milliseconds) const
{
    pollfd entry = {fd_, POLLIN, 0};
    return used_ < buffer_.size() || poll(&entry, 1, milliseconds) > 0;
}

void ByteSocket::finish()
{
    shutdown(fd_, SHUT_WR);
}

void ByteSocket::leave()
{
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
}

void ByteSocket::reset()
{
    const linger now = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    leave();
}

Bytes ByteSocket::takeRecord()
{
    Bytes record;
    record.swap(record_);
    return record;
}

void ByteSocket::setReceiveBuffer(int bytes)
{
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

} // namespace wire
