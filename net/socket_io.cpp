#include "net/socket_io.h"

#include "net/log.h"
#include "rtmpcast/host.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <openssl/err.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

struct ssl_st *TlsOf(void *tls)
{
    return static_cast<struct ssl_st *>(tls);
}

// A read of nothing is answered with 0 at once. Linux would wait for a byte that it then does not take.
int64_t ReadNothing(int fd, uint8_t *buf)
{
    const int64_t result = recv(fd, buf, 0, MSG_DONTWAIT);
    return result < 0 && errno == EAGAIN ? 0 : result;
}

// One read of at most `length` bytes: what recv or SSL_read answers.
// KEPT: neither reads nor writes have a time-out. Required; changes who stays connected.
int64_t ReadOnce(int fd, uint8_t *buf, uint32_t length, void *tls)
{
    if (tls == nullptr) {
        return length > 0 ? recv(fd, buf, length, 0) : ReadNothing(fd, buf);
    }
    ERR_clear_error();
    return SSL_read(TlsOf(tls), buf, static_cast<int>(length > INT32_MAX ? INT32_MAX : length));
}

int64_t WriteOnce(int fd, const uint8_t *buf, uint32_t length, void *tls)
{
    if (tls == nullptr) {
        return send(fd, buf, length, MSG_NOSIGNAL);
    }
    return SSL_write(TlsOf(tls), buf, static_cast<int>(length > INT32_MAX ? INT32_MAX : length));
}

} // namespace

int RtmpCloseSocket(RtmpLogger *logger, int *fd)
{
    if (*fd == -1) {
        return 0;
    }
    (void)ShutDownSocket(logger, *fd); // logged; the close is what counts
    return CloseShutSocket(logger, *fd);
}

int ShutDownSocket(RtmpLogger *logger, int fd)
{
    if (shutdown(fd, SHUT_RDWR) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Shutdown of %d failed: %s\n", "RtmpCloseSocket", fd,
                     strerror(errno));
        return -1;
    }
    return 0;
}

int CloseShutSocket(RtmpLogger *logger, int fd)
{
    if (close(fd) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Close of %d failed: %s\n", "RtmpCloseSocket", fd,
                     strerror(errno));
        return -1;
    }
    return 0;
}

int RtmpGetIP(RtmpLogger *logger, const char *name, char *out)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Can not create socket to get IP address\n",
                     __func__);
        return -1;
    }

    // Of a name longer than the field no more is copied than fits; no interface has such a name.
    struct ifreq request = {};
    memcpy(request.ifr_name, name, strnlen(name, sizeof request.ifr_name));
    request.ifr_addr.sa_family = AF_INET;
    const bool found = strlen(name) <= sizeof request.ifr_name && ioctl(fd, SIOCGIFADDR, &request) == 0;
    if (!found) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Failed in ioctl\n", __func__);
    } else {
        struct sockaddr_in address;
        memcpy(&address, &request.ifr_addr, sizeof address);
        inet_ntop(AF_INET, &address.sin_addr, out, INET_ADDRSTRLEN);
    }
    if (close(fd) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to close socket\n", __func__);
        return -1;
    }
    return found ? 0 : -1;
}

namespace {

void LogFailedRead(RtmpLogger *logger, int error, int result, const char *who)
{
    RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to read buffer: %d (%s)\n", who, error,
                 strerror(error));
    if (error == EINTR || error == ESPIPE) {
        RtmpLogPrint(logger, RTMP_LOG_INFO,
                     "INFO: %s: TCP recv function error in linux: Err :%d Retval: %d\n", who, error, result);
    }
}

void LogEndOfStream(RtmpLogger *logger, void *tls, const char *who)
{
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Connection was closed by peer\n", who);
    if (tls != nullptr) {
        TLS_print_error(logger, tls, 0);
    }
}

} // namespace

int RtmpReadBytes(RtmpLogger *logger, int fd, uint8_t *buf, uint32_t length, void *tls)
{
    uint32_t done = 0;
    do {
        const int64_t result = ReadOnce(fd, buf + done, length - done, tls);
        if (result < 0) {
            LogFailedRead(logger, errno, static_cast<int>(result), __func__);
            return -1;
        }
        if (result == 0) {
            LogEndOfStream(logger, tls, __func__);
            return -1;
        }
        done += static_cast<uint32_t>(result);
    } while (done != length);
    return 0;
}

int RtmpSendBytes(RtmpLogger *logger, int fd, const uint8_t *buf, uint32_t length, void *tls)
{
    const int64_t result = WriteOnce(fd, buf, length, tls);
    if (result < 0) {
        const int error = errno;
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to send buffer: %d (%s)\n", __func__, error,
                     strerror(error));
        return -1;
    }
    if (result == 0) {
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Connection was closed by peer\n", __func__);
        TLS_print_error(logger, tls, 0); // KEPT: on this side also without a handle. Required
    }
    return static_cast<int>(result);
}

int RtmpSendMsgBytes(RtmpLogger *logger, int fd, struct msghdr *msg, int flags)
{
    const int64_t result = sendmsg(fd, msg, flags | MSG_NOSIGNAL);
    if (result < 0) {
        const int error = errno;
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to send message: %d (%s)\n", __func__, error,
                     strerror(error));
        if (error == EPIPE) {
            RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: ========= Client Disconnected ========\n",
                         __func__);
        }
        return -1;
    }
    return static_cast<int>(result);
}
