#include "soak/busy_server.h"

#include "rtmpcast/host.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace soak {
namespace {

std::atomic<uint64_t> g_accepted, g_left;
std::atomic<int32_t> g_answer; // to newcomers

// Below the range that the kernel hands out to connecting sockets.
uint16_t SomePort()
{
    static std::mt19937 generator{std::random_device{}()};
    return static_cast<uint16_t>(std::uniform_int_distribution<int>(10000, 32000)(generator));
}

// Small limits: a soak wants to see them reached.
RtmpServiceLimits Limits()
{
    RtmpServiceLimits limits = {};
    limits.RingMilliseconds = 3000;
    limits.StallMilliseconds = 4000;
    limits.MostClientsPerAddress = 200;
    limits.HandshakeMilliseconds = 6000;
    limits.PlayMilliseconds = 6000;
    limits.TunnelMilliseconds = 3000;
    return limits;
}

template <typename Visit> void ForEachDescriptor(Visit visit)
{
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(directory)) {
            visit(fd);
        }
    }
    closedir(directory);
}

constexpr int kNoTcp = -1;

// TCP_ESTABLISHED and so on.
int StateOf(int fd)
{
    tcp_info info = {};
    socklen_t length = sizeof info;
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 ? info.tcpi_state : kNoTcp;
}

bool HasLostItsPeer(int fd)
{
    const int state = StateOf(fd);
    return state != kNoTcp && state != TCP_LISTEN && state != TCP_ESTABLISHED;
}

// An accepted connection keeps the port of its listener, also when its peer has gone.
bool IsOf(int fd, uint16_t port)
{
    sockaddr_in own = {};
    socklen_t length = sizeof own;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&own), &length) == 0 && own.sin_family == AF_INET &&
           ntohs(own.sin_port) == port;
}

} // namespace

BusyServer::BusyServer(ServerIndex which) : index(which), logger_{&BusyServer::Log, this}
{
    create();
    if (index != kExact) {
        RtmpPlayerSettings(server, RTMP_PLAYERS_ALL);
    }
    if (index == kSteady) {
        takeSteadyRoad();
    }
}

BusyServer::~BusyServer()
{
    const int result = RtmpServerDestroy(server);
    if (result != 0) {
        fprintf(stderr, "soak_host: RtmpServerDestroy: %d\n", result);
        exit(1);
    }
}

void BusyServer::create()
{
    int error = RTMP_ERR_BIND;
    while (server == nullptr && (error == RTMP_ERR_BIND || error == RTMP_ERR_LISTEN)) {
        port = SomePort();
        tunnelPort = index == kSteady ? SomePort() : 0; // on the exact road its connections never end
        server = RtmpServerCreate(&logger_, "lo", port, tunnelPort, 0, 4096, &error);
    }
    if (server == nullptr) {
        fprintf(stderr, "soak_host: no server: %d\n", error);
        exit(1);
    }
}

void BusyServer::takeSteadyRoad()
{
    RtmpServiceLimits limits = Limits();
    int32_t result = RTMP_ERR_BIND;
    while (result == RTMP_ERR_BIND || result == RTMP_ERR_LISTEN) {
        limits.TlsPort = tlsPort = SomePort();
        result = RtmpServiceSettings(server, &limits);
    }
    if (result != 0) {
        fprintf(stderr, "soak_host: no steady road: %d\n", result);
        exit(1);
    }
    const int bytes = 16384; // what a slow player's kernel does not hide is seen
    setsockopt(server->RtmpSocket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

void BusyServer::Log(void *context, uint8_t, const char *format, va_list)
{
    BusyServer *self = static_cast<BusyServer *>(context);
    ++self->logLines;
    if (strstr(format, "====>Sending message to connected clients") != nullptr) {
        ++self->failedSenders;
    }
}

int SweepLeftDescriptors(uint16_t port)
{
    int closed = 0;
    ForEachDescriptor([&](int fd) {
        if (HasLostItsPeer(fd) && IsOf(fd, port)) {
            // Its thread has ended, or nobody would be called gone; that orders the two, but not for the
            // thread sanitizer, which knows nothing of a detached thread's end: the call passes it by.
            syscall(SYS_close, fd);
            ++closed;
        }
    });
    return closed;
}

int SomeConnectionOf(uint16_t port)
{
    int found = -1;
    ForEachDescriptor([&](int fd) {
        if (StateOf(fd) == TCP_ESTABLISHED && IsOf(fd, port)) {
            found = fd > found ? fd : found;
        }
    });
    return found;
}

int OpenDescriptors()
{
    int count = 0;
    ForEachDescriptor([&](int) { ++count; });
    return count;
}

uint64_t ViewersAccepted()
{
    return g_accepted;
}

void RefuseViewers()
{
    g_answer = -1;
}

uint64_t ViewersLeft()
{
    return g_left;
}

} // namespace soak

// What the library asks of the host.
extern "C" {

void KelvoraSyslog(const char *, const char *, ...) {}

int32_t rtmpViewerAccepted(const RtmpViewer *)
{
    ++soak::g_accepted;
    return soak::g_answer;
}

void rtmpViewerLeft(const RtmpViewer *)
{
    ++soak::g_left;
}
}
