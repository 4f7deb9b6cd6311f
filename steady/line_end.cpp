#include "steady/line_end.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"

#include <sys/socket.h>

void SetDeadline(SteadyLine *line, enum SteadyWait wait, uint32_t milliseconds)
{
    StoreShared(&line->Deadline, uint64_t{0}); // the keeper takes no old time for a new reason
    StoreShared(&line->WaitsFor, static_cast<uint8_t>(wait));
    if (milliseconds > 0) {
        StoreShared(&line->Deadline, RtmpGetSystemTime() + milliseconds);
    }
}

void EndLine(SteadyLine *line, enum SteadyEnd reason)
{
    uint8_t goesOn = STEADY_GOES_ON;
    if (!__atomic_compare_exchange_n(&line->End, &goesOn, static_cast<uint8_t>(reason), false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        return;
    }
    // What was refused has been answered: the answer still leaves.
    (void)shutdown(SocketInUse(line->Client), reason == STEADY_END_REFUSED ? SHUT_RD : SHUT_RDWR);
}
