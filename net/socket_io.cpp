#include "net/socket_io.h"

#include "net/client_state.h"
#include "net/log.h"
#include "net/read_deadline.h"
#include "net/tls_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// Whose lines they are, whoever reads and sends.
constexpr char kRead[] = "RtmpReadBytes";
constexpr char kSend[] = "RtmpSendBytes";

// A read of nothing is answered with 0 at once. Linux would wait for a byte that it then does not take.
int64_t ReadNothing(int fd, uint8_t *buf)
{
    const int64_t result = recv(fd, buf, 0, MSG_DONTWAIT);
    return result < 0 && errno == EAGAIN ? 0 : result;
}

// One read of at most `length` bytes: what recv or SSL_read answers.
// KEPT: neither reads nor writes have a time-out. Required; changes who stays connected.
int64_t ReadOnce(const TlsLine *line, uint8_t *buf, uint32_t length)
{
    if (line->Handle != nullptr) {
        return TlsRead(line, buf, length);
    }
    if (line->Until != 0 && AwaitInput(line->Fd, line->Until) != 0) {
        return -1;
    }
    return length > 0 ? recv(line->Fd, buf, length, 0) : ReadNothing(line->Fd, buf);
}

int64_t Interrupted()
{
    errno = EINTR;
    return -1;
}

// ReadOnceFor is ReadOnce for a client, or for nobody in particular. A client that is told to leave may have
// been told between two reads, where a signal interrupts nothing, or by the end of its reading side. A signal
// that tells nothing ends no wait that has a limit of its own.
int64_t ReadOnceFor(const RtmpClient *client, const TlsLine *line, uint8_t *buf, uint32_t length)
{
    int64_t result;
    do {
        if (client != nullptr && IsToldToLeave(client)) {
            return Interrupted();
        }
        result = ReadOnce(line, buf, length);
    } while (result < 0 && errno == EINTR && line->Until != 0);
    return result <= 0 && client != nullptr && IsToldToLeave(client) ? Interrupted() : result;
}

int64_t WriteOnce(const TlsLine *line, const uint8_t *buf, uint32_t length)
{
    return line->Handle != nullptr ? TlsWrite(line, buf, length) : send(line->Fd, buf, length, MSG_NOSIGNAL);
}

TlsLine LineOf(RtmpClient *client)
{
    return {TlsInUse(client), SocketInUse(client), &client->TlsLock, &client->TlsWriteWaits};
}

void LogFailedRead(RtmpLogger *logger, int error, int result)
{
    RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to read buffer: %d (%s)\n", kRead, error,
                 strerror(error));
    if (error == EINTR || error == ESPIPE) {
        RtmpLogPrint(logger, RTMP_LOG_INFO,
                     "INFO: %s: TCP recv function error in linux: Err :%d Retval: %d\n", kRead, error,
                     result);
    }
}

void LogEndOfStream(RtmpLogger *logger, const TlsLine *line)
{
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Connection was closed by peer\n", kRead);
    if (line->Handle != nullptr) {
        TlsReportEnd(line, logger);
    }
}

int ReadWhole(const RtmpClient *client, RtmpLogger *logger, const TlsLine *line, uint8_t *buf,
              uint32_t length)
{
    uint32_t done = 0;
    do {
        const int64_t result = ReadOnceFor(client, line, buf + done, length - done);
        if (result < 0) {
            LogFailedRead(logger, errno, static_cast<int>(result));
            return -1;
        }
        if (result == 0) {
            LogEndOfStream(logger, line);
            return -1;
        }
        done += static_cast<uint32_t>(result);
    } while (done != length);
    return 0;
}

int SendSome(RtmpLogger *logger, const TlsLine *line, const uint8_t *buf, uint32_t length)
{
    const int64_t result = WriteOnce(line, buf, length);
    if (result < 0) {
        const int error = errno;
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to send buffer: %d (%s)\n", kSend, error,
                     strerror(error));
        return -1;
    }
    if (result == 0) {
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: Connection was closed by peer\n", kSend);
        TlsReportEnd(line, logger); // KEPT: on this side also without a handle. Required
    }
    return static_cast<int>(result);
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

int RtmpReadBytes(RtmpLogger *logger, int fd, uint8_t *buf, uint32_t length, void *tls)
{
    const TlsLine line = {tls, fd, nullptr};
    return ReadWhole(nullptr, logger, &line, buf, length);
}

int RtmpSendBytes(RtmpLogger *logger, int fd, const uint8_t *buf, uint32_t length, void *tls)
{
    const TlsLine line = {tls, fd, nullptr};
    return SendSome(logger, &line, buf, length);
}

int ReadClientBytes(RtmpClient *client, uint8_t *buf, uint32_t length)
{
    TlsLine line = LineOf(client);
    line.Until = client->ReadsUntil;
    if (ReadWhole(client, LoggerOf(client->Server), &line, buf, length) != 0) {
        return -1;
    }
    client->BytesReceived += length;
    return 0;
}

int SendClientBytes(RtmpClient *client, const uint8_t *buf, uint32_t length)
{
    const TlsLine line = LineOf(client);
    return SendSome(LoggerOf(client->Server), &line, buf, length);
}

int RtmpSendMsgBytes(RtmpLogger *logger, int fd, struct msghdr *msg, int flags)
{
    struct mmsghdr counted = {*msg, 0};
    return SendCountedBytes(logger, fd, &counted, flags);
}

int SendCountedBytes(RtmpLogger *logger, int fd, struct mmsghdr *msg, int flags)
{
    if (sendmmsg(fd, msg, 1, flags | MSG_NOSIGNAL) < 0) {
        constexpr const char *who = "RtmpSendMsgBytes";
        const int error = errno;
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unable to send message: %d (%s)\n", who, error,
                     strerror(error));
        if (error == EPIPE) {
            RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: ========= Client Disconnected ========\n", who);
        }
        return -1;
    }
    return static_cast<int>(msg->msg_len);
}
