#include "steady/line_end.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"

#include <sys/socket.h>

namespace {

bool EndAfter(SteadyLine *line, enum SteadyEnd before, enum SteadyEnd reason)
{
    uint8_t expected = static_cast<uint8_t>(before);
    return __atomic_compare_exchange_n(&line->End, &expected, static_cast<uint8_t>(reason), false,
                                       __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
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
    if (EndAfter(line, STEADY_GOES_ON, reason) ||
        (!isRefusal && EndAfter(line, STEADY_END_REFUSED, reason))) {
        StoreShared(&line->Client->ToldToLeave, uint8_t{1}); // what it has sent already is not read
        (void)shutdown(SocketInUse(line->Client), isRefusal ? SHUT_RD : SHUT_RDWR);
    }
}
