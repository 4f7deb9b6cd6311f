#include "steady/farewell.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "net/scope.h"
#include "steady/line.h"
#include "steady/line_end.h"
#include "steady/line_flush.h"

#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr uint64_t kFarewellMs = 1000;

bool FlushesAll(SteadyLine *line, uint64_t now)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    FlushLine(line, now);
    return HasAllOut(line);
}

// WaitFor returns whether the socket is ready before `end`; not once it has been shut down.
bool WaitFor(const SteadyLine *line, short events, uint64_t end)
{
    const uint64_t now = RtmpGetSystemTime();
    const uint64_t left = now < end ? end - now : 0;
    struct pollfd entry = {SocketInUse(line->Client), events, 0};
    return left > 0 && poll(&entry, 1, static_cast<int>(left < INT32_MAX ? left : INT32_MAX)) > 0 &&
           (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
}

bool HasAnswersOutBy(SteadyLine *line, uint64_t end)
{
    while (!FlushesAll(line, RtmpGetSystemTime())) {
        if (!WaitFor(line, POLLOUT, end)) {
            return false;
        }
    }
    return true;
}

uint64_t EndOfRing(SteadyStream *stream)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    return stream->Next;
}

// A client that waits for a key frame has nothing in front of it.
bool HasSentUpTo(SteadyLine *line, uint64_t number)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    FlushLine(line, RtmpGetSystemTime());
    return line->Place.Next >= number;
}

void ReadUntilEnd(const SteadyLine *line, uint64_t end)
{
    uint8_t ignored[512];
    while (WaitFor(line, POLLIN, end) &&
           recv(SocketInUse(line->Client), ignored, sizeof ignored, MSG_DONTWAIT) > 0) {
    }
}

} // namespace

bool HasFramesWaiting(const SteadyLine *line)
{
    if (line->Stream == nullptr) {
        return false;
    }
    const uint64_t end = EndOfRing(line->Stream);
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    return line->Place.Next < end;
}

void SeeFramesOut(SteadyLine *line, uint64_t until)
{
    const uint64_t end = EndOfRing(line->Stream);
    while (!HasSentUpTo(line, end) && WaitFor(line, POLLOUT, until)) {
    }
}

void SeeRepliesOut(SteadyLine *line, uint64_t until)
{
    (void)HasAnswersOutBy(line, until); // nobody is told of what is lost: the connection is over
}

void SeeAnswersOut(SteadyLine *line)
{
    SetDeadline(line, STEADY_WAITS_FOR_NOTHING, 0);
    const uint64_t end = RtmpGetSystemTime() + kFarewellMs;
    if (!HasAnswersOutBy(line, end) || LoadShared(&line->BytesOut) == 0) {
        return; // there is nothing to lose
    }
    EndTls(line->Client);
    (void)shutdown(SocketInUse(line->Client), SHUT_WR); // of a connection that is already gone: nothing to do
    ReadUntilEnd(line, end);
}
