#include "delivery/write/socket_writer.h"

#include "delivery/write/line_writer.h"
#include "message/standard_header.h"
#include "net/client_state.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/scope.h"
#include "net/socket_io.h"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/uio.h>
#include <time.h>

namespace {

// What goes in front of each chunk of a message but the first.
struct Separator {
    uint8_t Bytes[RTMP_SEPARATOR_MAX];
    uint32_t Length;
};

// KEPT: by default the continuation header has one byte, whatever the chunk stream and the time. Required;
// bytes on the wire. The library assigns ids below 64 only.
Separator SeparatorOf(const RtmpClient *client, const RtmpSendPkt *message)
{
    Separator separator = {{static_cast<uint8_t>(message->ChunkStreamId | 0xC0)}, 1};
    if (Allows(client, RULE_EXTENDED_TIME_OUT)) {
        separator.Length = PutStandardSeparator(separator.Bytes, message);
    }
    return separator;
}

// FillVectors lays out pieces from `*next` on, and moves `*next` behind those that fit. Returns how many
// vectors it filled.
uint32_t FillVectors(struct iovec *vectors, uint32_t capacity, const RtmpPiece *pieces, uint32_t count,
                     uint32_t *next, Separator *separator)
{
    uint32_t filled = 0;
    for (; *next < count && filled + 2 <= capacity; (*next)++) {
        const RtmpPiece *piece = &pieces[*next];
        if (piece->StartsChunk != 0) {
            vectors[filled++] = {separator->Bytes, separator->Length};
        }
        if (piece->Length > 0) {
            vectors[filled++] = {const_cast<uint8_t *>(piece->Address), piece->Length};
        }
    }
    return filled;
}

// The rest of an open message will not come. A guard does this, though guards otherwise only unlock and free:
// no other way out of a cancelled write is left, shutdown is no cancellation point, and the client's
// WriteLock is given back later.
void CutOpenMessage(RtmpClient **client)
{
    if (*client != nullptr && (*client)->MessageState == MESSAGE_OPEN) {
        (*client)->MessageState = MESSAGE_CUT;
        (void)shutdown(SocketInUse(*client), SHUT_RDWR); // the peer may have gone first
    }
}

// CUT_AT_EXIT RtmpClient *unfinished = client; ... `unfinished = nullptr` leaves the message open.
#define CUT_AT_EXIT __attribute__((cleanup(CutOpenMessage), unused))

// A gathered write, repeated until its vectors are out.
struct GatheredWrite {
    RtmpClient *Client;
    struct mmsghdr Call; // msg_len: what the call has put out, and has not been accounted for
    bool EndsMessage;
};

// Account moves the vectors behind what is out, and notes how far the message is. It is also a guard: a
// thread that is cancelled in the call may have written something.
void Account(GatheredWrite *write)
{
    struct msghdr *left = &write->Call.msg_hdr;
    uint64_t out = write->Call.msg_len;
    if (out == 0) {
        return;
    }
    write->Call.msg_len = 0;
    while (left->msg_iovlen > 0 && out >= left->msg_iov->iov_len) {
        out -= left->msg_iov->iov_len;
        left->msg_iov++;
        left->msg_iovlen--;
    }
    if (left->msg_iovlen > 0) {
        left->msg_iov->iov_base = static_cast<uint8_t *>(left->msg_iov->iov_base) + out;
        left->msg_iov->iov_len -= out;
    }
    const bool isWhole = left->msg_iovlen == 0 && write->EndsMessage;
    write->Client->MessageState = isWhole ? MESSAGE_WHOLE : MESSAGE_OPEN;
}

#define ACCOUNT_AT_EXIT __attribute__((cleanup(Account)))

// A write may end short: go on where it ended.
int WriteVectors(RtmpClient *client, struct iovec *vectors, uint32_t count, int flags, bool endsMessage)
{
    ACCOUNT_AT_EXIT GatheredWrite write = {client, {}, endsMessage};
    write.Call.msg_hdr.msg_iov = vectors;
    write.Call.msg_hdr.msg_iovlen = count;
    while (write.Call.msg_hdr.msg_iovlen > 0) {
        if (SendCountedBytes(LoggerOf(client->Server), SocketInUse(client), &write.Call, flags) < 0) {
            return -1;
        }
        Account(&write);
    }
    return 0;
}

int WriteThrough(struct iovec *vectors, uint32_t capacity, RtmpClient *client, const RtmpPiece *pieces,
                 uint32_t count, Separator *separator, enum RtmpFollowing following)
{
    uint32_t next = 0;
    while (next < count) {
        const uint32_t filled = FillVectors(vectors, capacity, pieces, count, &next, separator);
        const int flags = following != NOTHING_FOLLOWS || next < count ? MSG_MORE : 0;
        const bool endsMessage = following != REST_FOLLOWS && next == count;
        if (WriteVectors(client, vectors, filled, flags, endsMessage) != 0) {
            return -1;
        }
    }
    return 0;
}

// Not inlined, so that a short message does not pay for a long one's stack.
__attribute__((noinline)) int WriteLong(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                                        Separator *separator, enum RtmpFollowing following)
{
    struct iovec vectors[kVectorsOfFrame];
    return WriteThrough(vectors, kVectorsOfFrame, client, pieces, count, separator, following);
}

__attribute__((noinline)) int WriteShort(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                                         Separator *separator, enum RtmpFollowing following)
{
    struct iovec vectors[kVectorsOfReply];
    return WriteThrough(vectors, kVectorsOfReply, client, pieces, count, separator, following);
}

int WritePlain(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, Separator *separator,
               enum RtmpFollowing following)
{
    return count <= kVectorsOfReply / 2 ? WriteShort(client, pieces, count, separator, following)
                                        : WriteLong(client, pieces, count, separator, following);
}

// What a call through the handle leaves out is not known before it has come back: a cancel may end it in the
// middle of a record.
int SendThroughHandle(RtmpClient *client, const uint8_t *bytes, uint32_t length)
{
    const uint8_t before = client->MessageState;
    client->MessageState = MESSAGE_OPEN;
    const int result = SendClientBytes(client, bytes, length);
    if (result <= 0) {
        client->MessageState = before;
    }
    return result;
}

// WriteTlsPiece returns the bytes written, or the negative or zero result that ended the piece early.
int64_t WriteTlsPiece(RtmpClient *client, const uint8_t *bytes, uint32_t length)
{
    int64_t written = 0;
    while (written < length) {
        const int result =
            SendThroughHandle(client, bytes + written, length - static_cast<uint32_t>(written));
        if (result <= 0) {
            return written + result;
        }
        written += result;
    }
    return written;
}

// KEPT: over TLS only a negative sum is a failure, so one failed piece hides behind the bytes of the others.
// Required; changes a code and a log line.
int WriteTls(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, const Separator *separator)
{
    int64_t total = 0;
    int64_t wanted = 0;
    for (uint32_t i = 0; i < count; i++) {
        if (pieces[i].StartsChunk != 0) {
            total += WriteTlsPiece(client, separator->Bytes, separator->Length);
            wanted += separator->Length;
        }
        total += WriteTlsPiece(client, pieces[i].Address, pieces[i].Length);
        wanted += pieces[i].Length;
    }
    if (total == wanted) {
        client->MessageState = MESSAGE_WHOLE;
    }
    return total < 0 ? -1 : 0;
}

// What is called while a cancel may strike at any moment is called by its address, which the loader writes
// here and no compiler looks through. The linker's stubs for calls into the C library have no unwind
// information on 64-bit ARM: a thread that is cancelled inside one ends without its guards, and the locks it
// holds stay taken. And the C library declares that sendfile throws nothing: a compiler that saw it called
// would leave the guards of the callers out of the way that a cancel takes, and the process would end there.
struct CallsUnderCancel {
    int (*SetCancelType)(int type, int *previous);
    ssize_t (*SendFile)(int out, int fd, off_t *offset, size_t length);
};

const volatile CallsUnderCancel kUnderCancel = {pthread_setcanceltype, sendfile};

// SendFileAsCancellationPoint is sendfile, which is no cancellation point: a sender that waits in it for a
// player that takes nothing could not be ended. Only the system call runs while a cancel may strike at any
// moment. Not inlined: a cancel between two calls of a procedure that has guards of its own would end the
// process.
__attribute__((noinline)) ssize_t SendFileAsCancellationPoint(int out, int fd, off_t *offset, uint32_t length)
{
    int previous;
    // NOLINTNEXTLINE(concurrency-thread-canceltype-asynchronous): around one system call
    kUnderCancel.SetCancelType(PTHREAD_CANCEL_ASYNCHRONOUS, &previous);
    const ssize_t sent = kUnderCancel.SendFile(out, fd, offset, length);
    kUnderCancel.SetCancelType(previous, nullptr);
    return sent;
}

// A piece on its way out of a file. The kernel moves Offset, also for a thread that is cancelled in the call.
struct FilePiece {
    RtmpClient *Client;
    off_t Offset;
    off_t End;
    bool EndsMessage;
};

void AccountForFile(FilePiece *piece)
{
    if (piece->Offset == piece->End && piece->EndsMessage) {
        piece->Client->MessageState = MESSAGE_WHOLE;
    }
}

#define ACCOUNT_FOR_FILE_AT_EXIT __attribute__((cleanup(AccountForFile)))

// SendFromFile writes one piece. A file that ends before the piece does is a failure: nothing else could take
// the missing bytes' place in the chunk.
int SendFromFile(RtmpClient *client, const RtmpPiece *piece, int fd, uint64_t mapBase, bool endsMessage)
{
    const off_t start = static_cast<off_t>(reinterpret_cast<uintptr_t>(piece->Address) - mapBase);
    ACCOUNT_FOR_FILE_AT_EXIT FilePiece way = {client, start, start + piece->Length, endsMessage};
    while (way.Offset < way.End) {
        const uint32_t rest = static_cast<uint32_t>(way.End - way.Offset);
        if (SendFileAsCancellationPoint(SocketInUse(client), fd, &way.Offset, rest) <= 0) {
            return -1;
        }
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

int SendSeparator(RtmpClient *client, const Separator *separator)
{
    uint32_t sent = 0;
    while (sent < separator->Length) {
        const int result = SendClientBytes(client, separator->Bytes + sent, separator->Length - sent);
        if (result <= 0) {
            return -1;
        }
        sent += static_cast<uint32_t>(result);
    }
    return 0;
}

int SendPiecesFromFile(RtmpClient *client, const RtmpPiece *pieces, uint32_t count,
                       const Separator *separator, int fd, uint64_t mapBase, const char *who)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    for (uint32_t i = 0; i < count; i++) {
        if (pieces[i].StartsChunk != 0 && SendSeparator(client, separator) != 0) {
            // KEPT: spelt so, unlike the line below. Required.
            RtmpLogPrint(logger, RTMP_LOG_ERROR,
                         "ERROR: %s: SendFIle: Error occured while sending message using RtmpSendBytes\n",
                         who);
            return -1;
        }
        if (SendFromFile(client, &pieces[i], fd, mapBase, i + 1 == count) != 0) {
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
                enum RtmpFollowing following)
{
    Separator separator = SeparatorOf(client, message);
    if (client->Line != nullptr) {
        return PutOnLine(client->Line, pieces, count, separator.Bytes, separator.Length);
    }
    CUT_AT_EXIT RtmpClient *unfinished = client;
    // A closed socket fails as a closed descriptor does, TLS or not: the handle's own descriptor may be
    // reused. And the handle would write to a socket that has been shut down, signal or not.
    const bool overTls = TlsInUse(client) != nullptr && client->MessageState != MESSAGE_CUT;
    const int result = overTls ? WriteTls(client, pieces, count, &separator)
                               : WritePlain(client, pieces, count, &separator, following);
    if (result != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: SendMessage: Error occured while sending message\n", __func__);
    } else if (following == REST_FOLLOWS) {
        unfinished = nullptr;
    }
    return result;
}

int SendFile(RtmpClient *client, const RtmpPiece *pieces, uint32_t count, const RtmpSendPkt *message, int fd,
             uint64_t mapBase)
{
    CUT_AT_EXIT RtmpClient *unfinished = client;
    const Separator separator = SeparatorOf(client, message);
    const HeldSigpipe held = HoldSigpipe();
    const int result = SendPiecesFromFile(client, pieces, count, &separator, fd, mapBase, __func__);
    LetGoSigpipe(&held);
    return result;
}
