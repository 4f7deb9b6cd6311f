#include "delivery/write/socket_writer.h"

#include "net/client_state.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"
#include "net/socket_io.h"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/uio.h>
#include <time.h>

namespace {

// KEPT: the continuation header has one byte whatever the chunk stream. Required; bytes on the wire. The
// library assigns ids below 64 only.
uint8_t SeparatorOf(const RtmpSendPkt *message)
{
    return static_cast<uint8_t>(message->ChunkStreamId | 0xC0);
}

// FillVectors lays out pieces from `*next` on, and moves `*next` behind those that fit. Returns how many
// vectors it filled.
uint32_t FillVectors(struct iovec *vectors, uint32_t capacity, const RtmpPiece *pieces, uint32_t count,
                     uint32_t *next, uint8_t *separator)
{
    uint32_t filled = 0;
    for (; *next < count && filled + 2 <= capacity; (*next)++) {
        const RtmpPiece *piece = &pieces[*next];
        if (piece->StartsChunk != 0) {
            vectors[filled++] = {separator, 1};
        }
        if (piece->Length > 0) {
            vectors[filled++] = {const_cast<uint8_t *>(piece->Address), piece->Length};
        }
    }
    return filled;
}

// A write may end short: go on where it ended.
int WriteVectors(RtmpClient *client, struct iovec *vectors, uint32_t count, int flags)
{
    struct msghdr message = {};
    message.msg_iov = vectors;
    message.msg_iovlen = count;
    while (message.msg_iovlen > 0) {
        const int sent = RtmpSendMsgBytes(LoggerOf(client->Server), SocketInUse(client), &message, flags);
        if (sent < 0) {
            return -1;
        }
        uint64_t rest = static_cast<uint64_t>(sent);
        while (message.msg_iovlen > 0 && rest >= message.msg_iov->iov_len) {
            rest -= message.msg_iov->iov_len;
            message.msg_iov++;
            message.msg_iovlen--;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<uint8_t *>(message.msg_iov->iov_base) + rest;
            message.msg_iov->iov_len -= rest;
        }
    }
    return 0;
}

int WriteThrough(struct iovec *vectors, uint32_t capacity, RtmpClient *client, const RtmpPiece *pieces,
                 uint32_t count, uint8_t separator, bool moreFollows)
{
    uint32_t next = 0;
    while (next < count) {
        const uint32_t filled = FillVectors(vectors, capacity, pieces, count, &next, &separator);
        const int flags = moreFollows || next < count ? MSG_MORE : 0;
        if (WriteVectors(client, vectors, filled, flags) != 0) {
            return -1;
        }
    }
    return 0;
}

// Not inlined, so that a short message does not pay for a long one's stack.
__attribute__((noinline)) int WriteLong(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                                        uint8_t separator, bool moreFollows)
{
    struct iovec vectors[kVectorsOfFrame];
    return WriteThrough(vectors, kVectorsOfFrame, client, pieces, count, separator, moreFollows);
}

__attribute__((noinline)) int WriteShort(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                                         uint8_t separator, bool moreFollows)
{
    struct iovec vectors[kVectorsOfReply];
    return WriteThrough(vectors, kVectorsOfReply, client, pieces, count, separator, moreFollows);
}

int WritePlain(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, uint8_t separator,
               bool moreFollows)
{
    return count <= kVectorsOfReply / 2 ? WriteShort(client, pieces, count, separator, moreFollows)
                                        : WriteLong(client, pieces, count, separator, moreFollows);
}

// WriteTlsPiece returns the bytes written, or the negative or zero result that ended the piece early.
int64_t WriteTlsPiece(RtmpClient *client, const uint8_t *bytes, uint32_t length)
{
    int64_t written = 0;
    while (written < length) {
        const int result = SendClientBytes(client, bytes + written, length - static_cast<uint32_t>(written));
        if (result <= 0) {
            return written + result;
        }
        written += result;
    }
    return written;
}

// KEPT: over TLS only a negative sum is a failure, so one failed piece hides behind the bytes of the others.
// Required; changes a code and a log line.
int WriteTls(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, uint8_t separator)
{
    int64_t total = 0;
    for (uint32_t i = 0; i < count; i++) {
        if (pieces[i].StartsChunk != 0) {
            total += WriteTlsPiece(client, &separator, 1);
        }
        total += WriteTlsPiece(client, pieces[i].Address, pieces[i].Length);
    }
    return total < 0 ? -1 : 0;
}

// SendFileAsCancellationPoint is sendfile, which is no cancellation point: a sender that waits in it for a
// player that takes nothing could not be ended. Only the system call runs while a cancel may strike at any
// moment. `noipa`: the callers must not take this for a function that nothing is thrown through.
__attribute__((noipa)) ssize_t SendFileAsCancellationPoint(int out, int fd, off_t *offset, uint32_t length)
{
    int previous;
    // NOLINTNEXTLINE(concurrency-thread-canceltype-asynchronous): around one system call
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &previous);
    const ssize_t sent = sendfile(out, fd, offset, length);
    pthread_setcanceltype(previous, nullptr);
    return sent;
}

// SendFromFile writes one piece. A file that ends before the piece does is a failure: nothing else could take
// the missing bytes' place in the chunk.
int SendFromFile(RtmpClient *client, const RtmpPiece *piece, int fd, uint64_t mapBase)
{
    off_t offset = static_cast<off_t>(reinterpret_cast<uintptr_t>(piece->Address) - mapBase);
    uint32_t rest = piece->Length;
    while (rest > 0) {
        const ssize_t sent = SendFileAsCancellationPoint(SocketInUse(client), fd, &offset, rest);
        if (sent <= 0) {
            return -1;
        }
        rest -= static_cast<uint32_t>(sent);
    }
    return 0;
}

// sendfile has no MSG_NOSIGNAL. HoldSigpipe keeps the signal from the thread that calls it.
struct HeldSigpipe {
    sigset_t Before;
    bool WasHeld;
};

sigset_t SigpipeAlone()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

HeldSigpipe HoldSigpipe()
{
    HeldSigpipe held = {};
    const sigset_t set = SigpipeAlone();
    pthread_sigmask(SIG_BLOCK, &set, &held.Before);
    held.WasHeld = sigismember(&held.Before, SIGPIPE) == 1;
    return held;
}

// LetGoSigpipe takes back a signal that was raised meanwhile.
void LetGoSigpipe(const HeldSigpipe *held)
{
    if (held->WasHeld) {
        return; // the host keeps it from this thread anyway
    }
    const sigset_t set = SigpipeAlone();
    const struct timespec atOnce = {};
    WITHOUT_CANCEL int restore = ForbidCancel();
    while (sigtimedwait(&set, nullptr, &atOnce) == SIGPIPE) {
    }
    pthread_sigmask(SIG_SETMASK, &held->Before, nullptr);
}

void ReportSendfileError()
{
    int previous;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous); // a cancelled perror leaves stderr locked
    perror(nullptr);
    pthread_setcancelstate(previous, nullptr);
}

int SendPiecesFromFile(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, uint8_t separator, int fd,
                       uint64_t mapBase, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    for (uint32_t i = 0; i < count; i++) {
        if (pieces[i].StartsChunk != 0 && SendClientBytes(client, &separator, 1) != 1) {
            // KEPT: spelt so, unlike the line below. Required.
            RtmpLogPrint(logger, RTMP_LOG_ERROR,
                         "ERROR: %s: SendFIle: Error occured while sending message using RtmpSendBytes\n",
                         who);
            return -1;
        }
        if (SendFromFile(client, &pieces[i], fd, mapBase) != 0) {
            ReportSendfileError();
            RtmpLogPrint(logger, RTMP_LOG_ERROR,
                         "ERROR: %s: SendFile: Error occured while sending message using sendfile\n", who);
            return -1;
        }
    }
    return 0;
}

} // namespace

int SendMessage(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, const RtmpSendPkt *message,
                bool moreFollows)
{
    const uint8_t separator = SeparatorOf(message);
    // A closed socket fails as a closed descriptor does, TLS or not: the handle's own descriptor may be
    // reused.
    const bool overTls = TlsInUse(client) != nullptr;
    const int result = overTls ? WriteTls(client, pieces, count, separator)
                               : WritePlain(client, pieces, count, separator, moreFollows);
    if (result != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: SendMessage: Error occured while sending message\n", __func__);
    }
    return result;
}

int SendFile(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, const RtmpSendPkt *message, int fd,
             uint64_t mapBase)
{
    const HeldSigpipe held = HoldSigpipe();
    const int result = SendPiecesFromFile(client, pieces, count, SeparatorOf(message), fd, mapBase, __func__);
    LetGoSigpipe(&held);
    return result;
}
