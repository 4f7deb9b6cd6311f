#include "player_process.h"

#include "support/scripted_peer.h"

#include <arpa/inet.h>
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

struct Order {
    char what;
    uint16_t port;
    uint32_t count;
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
            const int ready = epoll_wait(epoll_, events, 256, drainWanted_ ? kQuietMilliseconds : -1);
            if (ready == 0 && drainWanted_) {
                drainWanted_ = false;
                acknowledge();
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
    }

    void discard(int fd)
    {
        static char buffer[1 << 18];
        if (recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) == 0) {
            epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
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
            return;
        }
        if (order.what == 'X') {
            players_.clear();
            for (int fd : plain_) {
                close(fd);
            }
            plain_.clear();
        }
        for (uint32_t i = 0; i < order.count; i++) {
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
        players_.emplace_back(order.port);
        players_.back().playing("live");
        if (order.what == 'P') {
            watch(players_.back().socket.descriptor());
        }
    }

    int orders_;
    int epoll_;
    bool drainWanted_ = false;
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
    close(socket_); // the child leaves
    waitpid(pid_, nullptr, 0);
}

void PlayerProcess::command(char what, uint16_t port, uint32_t count)
{
    const Order order = {what, port, count};
    char done;
    if (write(socket_, &order, sizeof order) != static_cast<ssize_t>(sizeof order) ||
        read(socket_, &done, 1) != 1) {
        fprintf(stderr, "the player process has ended\n");
        exit(1);
    }
}

void PlayerProcess::connectPlayers(uint16_t port, uint32_t count)
{
    command('P', port, count);
}

void PlayerProcess::connectPlain(uint16_t port, uint32_t count)
{
    command('C', port, count);
}

void PlayerProcess::connectStalled(uint16_t port)
{
    command('S', port, 1);
}

void PlayerProcess::waitUntilDrained()
{
    command('D', 0, 0);
}

void PlayerProcess::disconnectAll()
{
    command('X', 0, 0);
}
