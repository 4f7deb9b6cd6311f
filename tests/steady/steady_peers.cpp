#include "steady/steady_peers.h"

#include <arpa/inet.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace wire {
namespace {

sockaddr_in Loopback(const char *text, uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(text);
    return address;
}

} // namespace

Connected ConnectFrom(const char *address, uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    const sockaddr_in from = Loopback(address, 0);
    const sockaddr_in to = Loopback("127.0.0.1", port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        throw PeerError(std::string("no connection from ") + address, errno);
    }
    return {fd};
}

TwoPorts::TwoPorts()
{
    int error = RTMP_ERR_BIND;
    while (server == nullptr && (error == RTMP_ERR_BIND || error == RTMP_ERR_LISTEN)) {
        log.clear();
        port = SomePort();
        tunnelPort = SomePort();
        server = RtmpServerCreate(log.get(), "lo", port, tunnelPort, 0, 4096, &error);
    }
    EXPECT_NE(server, nullptr) << error;
}

TwoPorts::TwoPorts(const RtmpServiceLimits &limits) : TwoPorts()
{
    EXPECT_EQ(RtmpServiceSettings(server, &limits), 0);
}

TwoPorts::~TwoPorts()
{
    EXPECT_EQ(RtmpServerDestroy(server), 0);
}

bool ReadsToTheEnd(ByteSocket &socket)
{
    constexpr int kDeadlineMs = 30000; // for each read
    static thread_local char ignored[1 << 16];
    pollfd entry = {socket.descriptor(), POLLIN, 0};
    while (poll(&entry, 1, kDeadlineMs) > 0) {
        if (recv(socket.descriptor(), ignored, sizeof ignored, MSG_DONTWAIT) <= 0) {
            return true; // the end, or a reset
        }
    }
    return false;
}

size_t ResidentBytes()
{
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace wire
