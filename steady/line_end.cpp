#include "steady/line_end.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/host.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool EndAfter(SteadyLine *line, enum SteadyEnd before, enum SteadyEnd reason)
{
    uint8_t expected = static_cast<uint8_t>(before);
    return __atomic_compare_exchange_n(&line->End, &expected, static_cast<uint8_t>(reason), false,
                                       __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

struct ssl_st *TakeHandle(RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    void *handle = client->Tls;
    client->Tls = nullptr;
    return static_cast<struct ssl_st *>(handle);
}

void MarkClosed(RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    MarkSocketClosed(client);
}

// A farewell that the host sends waits for nobody.
void UnblockSocket(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        (void)fcntl(fd, F_SETFL, flags | O_NONBLOCK); // of an open socket: cannot fail
    }
}

} // namespace

void SetDeadline(SteadyLine *line, enum SteadyWait wait, uint32_t milliseconds)
{
    StoreShared(&line->Deadline, uint64_t{0}); // the keeper takes no old time for a new reason
    StoreShared(&line->WaitsFor, static_cast<uint8_t>(wait));
    if (milliseconds > 0) {
        StoreShared(&line->Deadline, RtmpGetSystemTime() + milliseconds);
    }
}

// What was refused has been answered, and the answer still leaves; unless its peer does not take it.
void EndLine(SteadyLine *line, enum SteadyEnd reason)
{
    const bool isRefusal = reason == STEADY_END_REFUSED;
    if (!EndAfter(line, STEADY_GOES_ON, reason) &&
        (isRefusal || !EndAfter(line, STEADY_END_REFUSED, reason))) {
        return;
    }
    StoreShared(&line->Client->ToldToLeave, uint8_t{1}); // what it has sent already is not read
    if (!isRefusal || line->OwnsSocket == 0) {
        (void)shutdown(SocketInUse(line->Client), SHUT_RDWR); // a connection that is gone already needs none
    }
}

bool HasFailed(const SteadyLine *line)
{
    const uint8_t end = LoadShared(&line->End);
    return end != STEADY_GOES_ON && end != STEADY_END_SESSION && end != STEADY_END_SERVER;
}

void EndTls(RtmpClient *client)
{
    struct ssl_st *handle = TakeHandle(client);
    if (handle != nullptr) {
        UnblockSocket(client->Socket);
        WITHOUT_CANCEL int restore = ForbidCancel();
        rtmpTlsEnd(handle);
    }
}

void CloseLine(RtmpClient *client)
{
    MarkClosed(client);
    EndTls(client);
    close(client->Socket);
}
