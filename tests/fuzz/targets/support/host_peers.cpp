#include "support/host_peers.h"

#include "net/platform.h"

#include <cstdlib>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint64_t kPatience = 20;      // ms a call waits for a peer that has stopped reading
constexpr uint64_t kLastPatience = 150; // ms until all connections of the input end
constexpr int kLook = 10;               // ms

void SendSomeBytes(int fd, const Bytes &bytes)
{
    (void)!::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

} // namespace

HostPeers &HostPeers::get()
{
    static HostPeers &peers = *new HostPeers;
    return peers;
}

HostPeers::HostPeers() : bell_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    std::thread([this] { run(); }).detach();
}

int HostPeers::take(Seat seat)
{
    const std::lock_guard<std::mutex> held(lock_);
    for (int i = 0; i < kSeats; i++) {
        if (seats_[i].fd < 0) {
            seats_[i] = std::move(seat);
            wake();
            return i;
        }
    }
    abort(); // more than there are players, clients and publishers
}

int HostPeers::sit(int fd)
{
    Seat seat;
    seat.fd = fd;
    return take(std::move(seat));
}

int HostPeers::sitAsService(int fd, bool shakesHands, Bytes script)
{
    Seat seat;
    seat.fd = fd;
    seat.shakesHands = shakesHands;
    if (shakesHands) {
        seat.script = std::move(script);
    } else {
        SendSomeBytes(fd, script);
    }
    return take(std::move(seat));
}

void HostPeers::send(int seat, const Bytes &bytes)
{
    SendSomeBytes(seats_[seat].fd, bytes);
}

void HostPeers::stopReading(int seat)
{
    const std::lock_guard<std::mutex> held(lock_);
    seats_[seat].isStopped = true;
}

void HostPeers::readOn(int seat)
{
    const std::lock_guard<std::mutex> held(lock_);
    seats_[seat].isStopped = false;
    wake();
}

void HostPeers::finish(int seat)
{
    shutdown(seats_[seat].fd, SHUT_WR);
}

void HostPeers::leave(int seat, bool rudely)
{
    const std::lock_guard<std::mutex> held(lock_);
    if (rudely) {
        const linger atOnce = {1, 0};
        setsockopt(seats_[seat].fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    close(seats_[seat].fd);
    seats_[seat] = {};
}

void HostPeers::wake() const
{
    const uint64_t one = 1;
    (void)!write(bell_, &one, sizeof one);
}

void HostPeers::run()
{
    for (;;) {
        waitForBytes();
        readAll();
        shutAllIfStuck();
    }
}

uint64_t HostPeers::stuckFor() const
{
    const uint64_t since = callSince_;
    return since != 0 ? RtmpGetSystemTime() - since : 0;
}

void HostPeers::waitForBytes()
{
    pollfd entries[kSeats + 1] = {{bell_, POLLIN, 0}};
    nfds_t count = 1;
    {
        const std::lock_guard<std::mutex> held(lock_);
        const bool anybody = stuckFor() > kPatience;
        for (const Seat &seat : seats_) {
            if (seat.fd >= 0 && !seat.isOver && (!seat.isStopped || anybody)) {
                entries[count++] = {seat.fd, POLLIN, 0};
            }
        }
    }
    poll(entries, count, kLook);
    uint64_t rung;
    (void)!read(bell_, &rung, sizeof rung);
}

void HostPeers::readAll()
{
    const std::lock_guard<std::mutex> held(lock_);
    const bool anybody = stuckFor() > kPatience;
    for (Seat &seat : seats_) {
        if (seat.fd >= 0 && !seat.isOver && (!seat.isStopped || anybody)) {
            readSeat(seat);
        }
    }
}

void HostPeers::readSeat(Seat &seat)
{
    static uint8_t buffer[1 << 16];
    const ssize_t got = recv(seat.fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got > 0) {
        hearFirstPacket(seat, buffer, static_cast<size_t>(got));
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        seat.isOver = true;
    }
}

// S0, S1 and S2, which repeats C1 (RTMP 1.0, 5.2), and what follows.
void HostPeers::hearFirstPacket(Seat &seat, const uint8_t *bytes, size_t count)
{
    if (!seat.shakesHands) {
        return;
    }
    seat.first.insert(seat.first.end(), bytes, bytes + count);
    if (seat.first.size() < kFirstPacket) {
        return;
    }
    Bytes answer(kFirstPacket, 3);
    answer.insert(answer.end(), seat.first.begin() + 1, seat.first.begin() + kFirstPacket);
    answer.insert(answer.end(), seat.script.begin(), seat.script.end());
    SendSomeBytes(seat.fd, answer);
    seat.shakesHands = false;
    seat.first.clear();
}

void HostPeers::shutAllIfStuck()
{
    if (stuckFor() <= kLastPatience) {
        return;
    }
    const std::lock_guard<std::mutex> held(lock_);
    for (const Seat &seat : seats_) {
        if (seat.fd >= 0) {
            shutdown(seat.fd, SHUT_RDWR);
        }
    }
}

HostPeers::Call::Call() : isOutermost_(get().callSince_ == 0)
{
    if (isOutermost_) {
        get().callSince_ = RtmpGetSystemTime();
    }
}

HostPeers::Call::~Call()
{
    if (isOutermost_) {
        get().callSince_ = 0;
    }
}
