#include "support/fuzz_peer.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

// One at a time, on the thread that the library reads on: the keeper waits for other descriptors, also while
// a peer comes or goes.
thread_local FuzzPeer *t_peer;

// The fuzzer looks at its clock by an alarm, which would end a wait of the library's as a host's signals do;
// a write over TLS that is given up leaves half a record behind, and whatever is written next is refused.
void LetAlarmsInterruptNothing()
{
    struct sigaction action = {};
    if (sigaction(SIGALRM, nullptr, &action) == 0 && (action.sa_flags & SA_RESTART) == 0) {
        action.sa_flags |= SA_RESTART;
        (void)sigaction(SIGALRM, &action, nullptr);
    }
}

bool IsPeerOf(int fd)
{
    return t_peer != nullptr && t_peer->socket() == fd;
}

} // namespace

extern "C" {
ssize_t __real_recv(int fd, void *buffer, size_t length, int flags);
int __real_poll(pollfd *entries, nfds_t count, int milliseconds);

ssize_t __wrap_recv(int fd, void *buffer, size_t length, int flags)
{
    if (!IsPeerOf(fd)) {
        return __real_recv(fd, buffer, length, flags);
    }
    t_peer->libraryReads();
    const ssize_t got = __real_recv(fd, buffer, length, flags);
    if ((flags & MSG_PEEK) == 0) {
        t_peer->libraryHasRead(got);
    }
    return got;
}

int __wrap_poll(pollfd *entries, nfds_t count, int milliseconds)
{
    if (count == 1 && IsPeerOf(entries->fd)) {
        t_peer->libraryWaits(entries->events);
    }
    return __real_poll(entries, count, milliseconds);
}
}

FuzzPeer::FuzzPeer()
{
    static const bool once = (LetAlarmsInterruptNothing(), true);
    (void)once;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) {
        abort();
    }
    t_peer = this;
}

FuzzPeer::~FuzzPeer()
{
    t_peer = nullptr;
    close(ends_[1]);
    if (!isGivenAway_) {
        close(ends_[0]);
    }
}

void FuzzPeer::send(FuzzInput input, size_t piece)
{
    constexpr size_t most = 300; // pieces: each is a few calls of the system
    cutFrom_ = toSend_.size();
    piece_ = piece > 0 ? std::max(piece, input.size() / most) : 0;
    toSend_.insert(toSend_.end(), input.data(), input.data() + input.size());
}

void FuzzPeer::send(const std::vector<uint8_t> &bytes)
{
    toSend_.insert(toSend_.end(), bytes.begin(), bytes.end());
}

const std::vector<uint8_t> &FuzzPeer::written()
{
    uint8_t buffer[16384];
    ssize_t got;
    while ((got = __real_recv(ends_[1], buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
        const size_t room = kKept - std::min(kKept, written_.size());
        written_.insert(written_.end(), buffer, buffer + std::min(static_cast<size_t>(got), room));
    }
    return written_;
}

size_t FuzzPeer::nextPiece() const
{
    if (sent_ < cutFrom_) {
        return cutFrom_ - sent_;
    }
    return piece_ > 0 ? std::min(piece_, toSend_.size() - sent_) : toSend_.size() - sent_;
}

// A full piece fits into the socket: it is empty.
void FuzzPeer::sendPiece()
{
    constexpr size_t most = 65536;
    const size_t count = std::min(nextPiece(), most);
    const ssize_t done = ::send(ends_[1], toSend_.data() + sent_, count, MSG_NOSIGNAL | MSG_DONTWAIT);
    unread_ = done > 0 ? static_cast<size_t>(done) : 0;
    sent_ = done > 0 ? sent_ + unread_ : toSend_.size();
}

ssize_t FuzzPeer::readAsItIs(void *bytes, size_t length)
{
    const ssize_t got = __real_recv(ends_[0], bytes, length, MSG_DONTWAIT);
    const int error = errno;
    libraryHasRead(got);
    errno = error;
    return got;
}

void FuzzPeer::libraryReads()
{
    constexpr uint32_t often = 16; // messages are several reads, and their answers fit into the socket
    if (reads_++ % often == 0) {
        written();
    }
    if (unread_ > 0) {
        return;
    }
    if (beforeRead) {
        beforeRead();
    }
    if (sent_ == toSend_.size() && whenDry) {
        const std::function<void()> asked = std::exchange(whenDry, nullptr); // it may set the next
        asked();
    }
    if (sent_ < toSend_.size()) {
        sendPiece();
    }
    if (unread_ == 0 && !ended_) {
        ended_ = true;
        shutdown(ends_[1], SHUT_WR);
    }
}

void FuzzPeer::libraryWaits(short events)
{
    if ((events & POLLIN) != 0) {
        libraryReads();
    } else {
        written();
    }
}

void FuzzPeer::libraryHasRead(ssize_t count)
{
    unread_ -= std::min(unread_, count > 0 ? static_cast<size_t>(count) : 0);
}
