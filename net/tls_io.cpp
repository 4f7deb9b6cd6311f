#include "net/tls_io.h"

#include "net/platform.h"
#include "net/read_deadline.h"
#include "net/scope.h"
#include "rtmpcast/host.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

namespace {

constexpr int kNoDescriptor = -1;
constexpr int kNoLimit = -1;
constexpr int kMomentMs = 1;
constexpr int kSliceMs = 50;

struct ssl_st *HandleOf(const TlsLine *line)
{
    return static_cast<struct ssl_st *>(line->Handle);
}

int CallLength(uint32_t length)
{
    return static_cast<int>(length > INT32_MAX ? INT32_MAX : length);
}

// A turn is one thread's use of the handle: it holds the lock, and meanwhile the socket does not block, so
// that no turn lasts while the peer is silent or takes nothing. Nor is the thread cancelled: the handle would
// be left in the middle of a record.
struct TlsTurn {
    RtmpMutex *Lock; // null: the call is made without a turn, and blocks
    int Fd;
    int Flags;   // the descriptor's own
    bool Blocks; // it blocks outside of turns
    int Cancel;
};

void EndTurn(TlsTurn *turn)
{
    if (turn->Lock == nullptr) {
        return;
    }
    const int error = errno; // of the call
    if (turn->Blocks) {
        (void)fcntl(turn->Fd, F_SETFL, turn->Flags);
    }
    (void)RtmpMutexUnlock(turn->Lock); // a guard reports nothing
    RestoreScopedCancel(&turn->Cancel);
    errno = error;
}

#define END_TURN_AT_EXIT __attribute__((cleanup(EndTurn), unused))

bool StopBlocking(TlsTurn *turn)
{
    turn->Flags = fcntl(turn->Fd, F_GETFL);
    if (turn->Flags < 0) {
        return false;
    }
    turn->Blocks = (turn->Flags & O_NONBLOCK) == 0;
    return !turn->Blocks || fcntl(turn->Fd, F_SETFL, turn->Flags | O_NONBLOCK) == 0;
}

// A line without a descriptor gets no turn: its handle reads and writes elsewhere, and would block in it.
TlsTurn TakeTurn(const TlsLine *line)
{
    TlsTurn turn = {line->Lock, line->Fd, 0, false, 0};
    if (turn.Lock == nullptr) {
        return turn;
    }
    turn.Cancel = ForbidCancel();
    (void)HoldLeaf(turn.Lock);
    if (!StopBlocking(&turn)) {
        turn.Blocks = false;
        EndTurn(&turn);
        turn.Lock = nullptr;
    }
    return turn;
}

// On a descriptor that never blocks, EAGAIN is the answer.
bool WouldBlock(const TlsTurn *turn, int64_t result)
{
    return turn->Blocks && result < 0 && errno == EAGAIN;
}

bool IsOver(int fd)
{
    struct pollfd entry = {fd, POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0;
}

// In the middle of a record that waits for room, a handle that owes an answer to a renewal of keys would give
// it when a read finds another renewal. It is not read before the record is out.
bool MustNotRead(const TlsLine *line)
{
    return line->WriteWaits != nullptr && *line->WriteWaits != 0 && rtmpTlsOwesRenewal(HandleOf(line)) != 0 &&
           !IsOver(line->Fd);
}

enum class Asked { Done, WouldBlock, IsHeld };

int64_t ReadInTurn(const TlsLine *line, uint8_t *buf, uint32_t length, Asked *how)
{
    END_TURN_AT_EXIT TlsTurn turn = TakeTurn(line);
    if (MustNotRead(line)) {
        *how = Asked::IsHeld;
        return -1;
    }
    ERR_clear_error();
    errno = 0;
    const int result = SSL_read(HandleOf(line), buf, CallLength(length));
    *how = WouldBlock(&turn, result) ? Asked::WouldBlock : Asked::Done;
    return result;
}

int64_t WriteInTurn(const TlsLine *line, const uint8_t *buf, uint32_t length, bool *wouldBlock)
{
    END_TURN_AT_EXIT TlsTurn turn = TakeTurn(line);
    errno = 0;
    const int result = SSL_write(HandleOf(line), buf, CallLength(length));
    *wouldBlock = WouldBlock(&turn, result);
    if (line->WriteWaits != nullptr) {
        *line->WriteWaits = *wouldBlock ? 1 : 0;
    }
    return result;
}

// HostsLimit returns what the host has set with SO_RCVTIMEO or SO_SNDTIMEO, in milliseconds.
int HostsLimit(int fd, int option)
{
    struct timeval limit = {};
    socklen_t length = sizeof limit;
    if (getsockopt(fd, SOL_SOCKET, option, &limit, &length) != 0 ||
        (limit.tv_sec == 0 && limit.tv_usec == 0)) {
        return kNoLimit;
    }
    const int64_t milliseconds = static_cast<int64_t>(limit.tv_sec) * 1000 + (limit.tv_usec + 999) / 1000;
    return static_cast<int>(milliseconds < INT32_MAX ? milliseconds : INT32_MAX);
}

// With a limit, recv and send are ended by every signal handler, as poll is.
int WaitWithLimit(int fd, short events, int limit)
{
    struct pollfd entry = {fd, events, 0};
    const int ready = poll(&entry, 1, limit);
    if (ready == 0) {
        errno = EAGAIN;
    }
    return ready > 0 ? 0 : -1;
}

// The signals whose handlers let a blocked call go on, beside those that the thread blocks anyway.
sigset_t SignalsThatRestart()
{
    sigset_t set;
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    for (int number = 1; number <= SIGRTMAX; number++) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && (action.sa_flags & SA_RESTART) != 0) {
            sigaddset(&set, number);
        }
    }
    return set;
}

// PollFor is poll, but that only those signals end it which would end a blocked read or write. The others
// wait.
int PollFor(int fd, short events, int milliseconds)
{
    struct pollfd entry = {fd, events, 0};
    const struct timespec time = {0, milliseconds * 1000000L};
    const sigset_t waiting = SignalsThatRestart();
    return ppoll(&entry, 1, &time, &waiting);
}

// A call that wants input or room does not say which. In a renegotiation a read may want room, and a write
// input: where what it should lack is there, it wants the other, or has only just got it. Wait a moment.
// 1: it is there; 0: it lacks; -1: interrupted.
int ThereAlready(int fd, short events)
{
    struct pollfd entry = {fd, events, 0};
    if (poll(&entry, 1, 0) <= 0) {
        return 0;
    }
    return PollFor(fd, events == POLLIN ? POLLOUT : POLLIN, kMomentMs) < 0 ? -1 : 1;
}

// A read of the socket itself waits for input, so that signals do to it what they do to any read.
int WaitForInput(int fd)
{
    const int there = ThereAlready(fd, POLLIN);
    if (there != 0) {
        return there > 0 ? 0 : -1;
    }
    const int limit = HostsLimit(fd, SO_RCVTIMEO);
    if (limit != kNoLimit) {
        return WaitWithLimit(fd, POLLIN, limit);
    }
    uint8_t byte;
    if (recv(fd, &byte, 1, MSG_PEEK) >= 0) {
        return 0;
    }
    // EAGAIN: it is another thread's turn. EIO: the kernel does the TLS, and the next record holds no data.
    return errno == EAGAIN || errno == EIO ? 0 : -1;
}

// A held handle may have the bytes itself: what is in the socket says nothing.
int WaitAMoment(const TlsLine *line)
{
    if (line->Until != 0 && RtmpGetSystemTime() >= line->Until) {
        errno = EAGAIN;
        return -1;
    }
    return PollFor(kNoDescriptor, 0, kMomentMs);
}

// -1: interrupted, or the time has come.
int WaitToRead(const TlsLine *line, Asked how)
{
    if (how == Asked::IsHeld) {
        return WaitAMoment(line);
    }
    return line->Until != 0 ? AwaitInput(line->Fd, line->Until) : WaitForInput(line->Fd);
}

// In slices, because signals are kept waiting.
int WaitForRoom(int fd)
{
    const int there = ThereAlready(fd, POLLOUT);
    if (there != 0) {
        return there > 0 ? 0 : -1;
    }
    const int limit = HostsLimit(fd, SO_SNDTIMEO);
    if (limit != kNoLimit) {
        return WaitWithLimit(fd, POLLOUT, limit);
    }
    int ready = 0;
    while (ready == 0) {
        ready = PollFor(fd, POLLOUT, kSliceMs);
    }
    return ready > 0 ? 0 : -1;
}

// What is half out stays so, and nobody waits for it.
void GiveUpWrite(const TlsLine *line)
{
    const int error = errno;
    if (line->WriteWaits != nullptr) {
        (void)HoldLeaf(line->Lock);
        *line->WriteWaits = 0;
        (void)RtmpMutexUnlock(line->Lock);
    }
    errno = error;
}

} // namespace

int64_t TlsRead(const TlsLine *line, uint8_t *buf, uint32_t length)
{
    if (length == 0) {
        return 0; // the handle would wait for a record
    }
    // The handle is asked first: it may hold bytes of a record that the socket no longer has.
    Asked how = Asked::Done;
    int64_t result = ReadInTurn(line, buf, length, &how);
    while (how != Asked::Done) {
        if (WaitToRead(line, how) != 0) {
            return -1;
        }
        result = ReadInTurn(line, buf, length, &how);
    }
    return result;
}

int64_t TlsWrite(const TlsLine *line, const uint8_t *buf, uint32_t length)
{
    bool wouldBlock = false;
    int64_t result = WriteInTurn(line, buf, length, &wouldBlock);
    while (wouldBlock) {
        if (WaitForRoom(line->Fd) != 0) {
            GiveUpWrite(line);
            return -1;
        }
        result = WriteInTurn(line, buf, length, &wouldBlock); // the same bytes, as SSL_write demands
    }
    return result;
}

int64_t TlsWriteNow(const TlsLine *line, const uint8_t *buf, uint32_t length)
{
    bool wouldBlock = false;
    return WriteInTurn(line, buf, length, &wouldBlock); // errno says what wouldBlock does
}

void TlsReportEnd(const TlsLine *line, RtmpLogger *logger)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    const bool shared = line->Handle != nullptr && line->Lock != nullptr;
    UNLOCK_AT_EXIT RtmpMutex *held = shared ? HoldLeaf(line->Lock) : nullptr;
    TLS_print_error(logger, line->Handle, 0);
}
