#include "core/tls_listener.h"

#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "serve/steady_accept.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char *kSettings = "RtmpServiceSettings";

// The DS field is that of the first port, where there is one.
void CopySocketOptions(const RtmpServer *server, int fd)
{
    const int reuse = 1;
    int field = 0;
    socklen_t length = sizeof field;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse); // without it bind says so
    if (getsockopt(LoadShared(&server->RtmpSocket), IPPROTO_IP, IP_TOS, &field, &length) == 0) {
        (void)setsockopt(fd, IPPROTO_IP, IP_TOS, &field,
                         sizeof field); // what the network makes of it is its own
    }
}

int Bind(const RtmpServer *server, int fd, uint16_t port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(server->IpAddress);
    address.sin_port = htons(port);
    return bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address);
}

int BindTls(const SteadyService *service, int fd)
{
    RtmpLogger *logger = LoggerOf(service->Server);
    const uint16_t port = service->Limits.TlsPort;
    if (Bind(service->Server, fd, port) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot bind the socket of TLS to port %d\n",
                     kSettings, port);
        return RTMP_ERR_BIND;
    }
    if (listen(fd, SOMAXCONN) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot listen on port %d\n", kSettings, port);
        return RTMP_ERR_LISTEN;
    }
    return 0;
}

// StartAccepting leaves the socket to the caller when it fails.
int StartAccepting(SteadyService *service, int fd)
{
    const int result = BindTls(service, fd);
    if (result != 0) {
        return result;
    }
    service->TlsSocket = fd;
    if (RtmpThreadCreate(&service->TlsAcceptThread, AcceptTlsPlayersThread, service) != 0) {
        service->TlsSocket = -1;
        RtmpLogPrint(LoggerOf(service->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot create the thread of TLS\n", kSettings);
        return RTMP_ERR_THREAD_CREATE;
    }
    return 0;
}

} // namespace

int OpenTlsListener(SteadyService *service)
{
    if (service->Limits.TlsPort == 0) {
        return 0;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        RtmpLogPrint(LoggerOf(service->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot create the socket of TLS\n", kSettings);
        return RTMP_ERR_SOCKET;
    }
    CopySocketOptions(service->Server, fd);
    const int result = StartAccepting(service, fd);
    if (result != 0) {
        close(fd);
    }
    return result;
}

void CloseTlsListener(SteadyService *service)
{
    if (service->TlsSocket < 0) {
        return;
    }
    (void)shutdown(service->TlsSocket, SHUT_RDWR);               // accept fails, and the thread ends
    (void)RtmpWaitForThreadCompletion(service->TlsAcceptThread); // started, and joined once
    close(service->TlsSocket);
    service->TlsSocket = -1;
}
