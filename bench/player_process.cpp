#include "player_process.h"

#include "measure.h"
#include "support/scripted_peer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Nothing has come for this long: everything has.
constexpr int kQuietMilliseconds = 2;

// Nobody waits longer for what does not come.
constexpr int kPatienceMilliseconds = 20000;

constexpr int kStoppedBuffer = 65536; // of a player that takes nothing

struct Order {
    char what;
    bool standard;
    uint16_t port;
    uint64_t count; // of connections, or of bytes
};

int ConnectPlain(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        perror("connect");
        exit(1);
    }
    return fd;
}

void PlayUnanswered(wire::ScriptedPeer &player)
{
    player.handshake(wire::kPlainHandshake);
    player.command(wire::ConnectCommand("live"));
    player.command(wire::CreateStreamCommand());
    player.send({.payload = wire::PlayCommand("live"), .chunkStream = 3, .stream = 1});
}

// The child: carries out orders, and reads and discards whatever comes in between.
class Players {
  public:
    explicit Players(int orders) : orders_(orders), epoll_(epoll_create1(0))
    {
        watch(orders_);
    }

    [[noreturn]] void run()
    {
        for (;;) {
            epoll_event events[256];
            const int ready = epoll_wait(epoll_, events, 256, patience());
            if (ready == 0) {
                endDrain();
            }
            for (int i = 0; i < ready; i++) {
                if (events[i].data.fd == orders_) {
                    obey();
                } else {
                    discard(events[i].data.fd);
                }
            }
        }
    }

  private:
    void watch(int fd)
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
        awaitedOf_.resize(std::max(awaitedOf_.size(), static_cast<size_t>(fd) + 1));
        watched_ += fd != orders_ ? 1 : 0;
    }

    int patience() const
    {
        if (!drainWanted_) {
            return -1;
        }
        return received_ >= awaited_ ? kQuietMilliseconds : kPatienceMilliseconds;
    }

    void endDrain()
    {
        if (received_ < awaited_) {
            fprintf(stderr, "%" PRIu64 " of %" PRIu64 " bytes have come\n", received_, awaited_);
            exit(1);
        }
        drainWanted_ = false;
        received_ = 0;
        acknowledge();
    }

    void discard(int fd)
    {
        static char buffer[1 << 18];
        const ssize_t count = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count == 0) {
            epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
        }
        received_ += count > 0 ? static_cast<uint64_t>(count) : 0;
        if (lacking_ > 0 && count > 0) {
            noteArrival(fd, static_cast<int64_t>(count));
        }
    }

    void arm(uint64_t bytes)
    {
        awaitedOf_.assign(awaitedOf_.size(), static_cast<int64_t>(bytes));
        lacking_ = watched_;
        acknowledge();
    }

    void noteArrival(int fd, int64_t count)
    {
        int64_t &awaited = awaitedOf_[static_cast<size_t>(fd)];
        const bool lacked = awaited > 0;
        awaited -= count;
        if (!lacked || awaited > 0 || --lacking_ > 0) {
            return;
        }
        const uint64_t now = NowNanoseconds();
        if (write(orders_, &now, sizeof now) != static_cast<ssize_t>(sizeof now)) {
            exit(1);
        }
    }

    void acknowledge()
    {
        if (write(orders_, "!", 1) != 1) {
            exit(1);
        }
    }

    void obey()
    {
        Order order;
        if (read(orders_, &order, sizeof order) != static_cast<ssize_t>(sizeof order)) {
            exit(0);
        }
        if (order.what == 'D') {
            drainWanted_ = true;
            awaited_ = order.count;
            return;
        }
        if (order.what == 'A') {
            arm(order.count);
            return;
        }
        if (order.what == 'X') {
            received_ = 0;
            watched_ = 0;
            players_.clear();
            for (int fd : plain_) {
                close(fd);
            }
            plain_.clear();
        }
        for (uint64_t i = 0; i < order.count; i++) {
            connectOne(order);
        }
        acknowledge();
    }

    void connectOne(const Order &order)
    {
        if (order.what == 'C') {
            plain_.push_back(ConnectPlain(order.port));
            watch(plain_.back());
            return;
        }
        wire::ScriptedPeer &player = players_.emplace_back(order.port);
        if (order.what == 'S') {
            player.socket.setReceiveBuffer(kStoppedBuffer);
        }
        player.chunks.standard = order.standard;
        if (order.what == 'R') {
            PlayUnanswered(player);
        } else {
            player.playing("live");
        }
        if (order.what != 'S') {
            watch(player.socket.descriptor());
        }
    }

    int orders_;
    int epoll_;
    bool drainWanted_ = false;
    uint64_t received_ = 0; // since the last drain
    uint64_t awaited_ = 0;
    std::vector<int64_t> awaitedOf_; // by descriptor: bytes until it has all, since it was armed
    size_t watched_ = 0;             // connections
    size_t lacking_ = 0;             // of them, that do not have all yet
    std::list<wire::ScriptedPeer> players_;
    std::vector<int> plain_;
};

} // namespace

PlayerProcess::PlayerProcess()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        perror("socketpair");
        exit(1);
    }
    pid_ = fork();
    if (pid_ == 0) {
        close(ends[0]);
        Players(ends[1]).run();
    }
    close(ends[1]);
    socket_ = ends[0];
}

PlayerProcess::~PlayerProcess()
{
    shutdown(socket_, SHUT_RDWR); // the child leaves, though processes made after it hold this end, too
    close(socket_);
    waitpid(pid_, nullptr, 0);
}

void PlayerProcess::command(char what, uint16_t port, uint64_t count, bool standard)
{
    Order order = {};
    order.what = what;
    order.standard = standard;
    order.port = port;
    order.count = count;
    char done;
    if (write(socket_, &order, sizeof order) != static_cast<ssize_t>(sizeof order) ||
        read(socket_, &done, 1) != 1) {
        fprintf(stderr, "the player process has ended\n");
        exit(1);
    }
}

void PlayerProcess::connectPlayers(uint16_t port, uint32_t count, bool standard)
{
    command('P', port, count, standard);
}

void PlayerProcess::connectRelayed(uint16_t port, uint32_t count)
{
    command('R', port, count);
}

void PlayerProcess::connectPlain(uint16_t port, uint32_t count)
{
    command('C', port, count);
}

void PlayerProcess::connectStopped(uint16_t port, uint32_t count, bool standard)
{
    command('S', port, count, standard);
}

void PlayerProcess::waitUntilDrained(uint64_t bytes)
{
    command('D', 0, bytes);
}

void PlayerProcess::disconnectAll()
{
    command('X', 0, 0);
}

void PlayerProcess::arm(uint64_t bytes)
{
    command('A', 0, bytes);
}

uint64_t PlayerProcess::waitForLast()
{
    uint64_t when = 0;
    if (read(socket_, &when, sizeof when) != static_cast<ssize_t>(sizeof when)) {
        fprintf(stderr, "the player process has ended\n");
        exit(1);
    }
    return when;
}
