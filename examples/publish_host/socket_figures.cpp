#include "socket_figures.h"

#include <linux/sockios.h>
#include <linux/tcp.h> // has tcpi_bytes_acked, which netinet/tcp.h lacks
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

uint64_t bytesTaken(int socket)
{
    struct tcp_info info = {};
    socklen_t length = sizeof info;
    return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 ? info.tcpi_bytes_acked : 0;
}

uint64_t bytesWaiting(int socket)
{
    int bytes = 0;
    return ioctl(socket, SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}
