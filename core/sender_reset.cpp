// Dropping what a session's sender thread holds, and closing it.
#include "rtmpcast/sender.h"

#include "delivery/senders/threaded_queue.h"
#include "delivery/steady/steady_sender.h"
#include "net/atomic.h"

namespace {

bool IsSteadyAndThreaded(const RtmpSession *session)
{
    return session != nullptr && session->Stream != nullptr &&
           LoadShared(&session->SenderMode) == RTMP_SENDER_THREADED;
}

} // namespace

int32_t RtmpThreadedQueueReset(RtmpSession *session)
{
    if (IsSteadyAndThreaded(session)) {
        ResetSteadySender(session->Stream, 0);
        return 0;
    }
    return ResetThreadedQueue(session);
}

int32_t RtmpThreadedQueueClose(RtmpSession *session)
{
    if (IsSteadyAndThreaded(session)) {
        ResetSteadySender(session->Stream, 1);
        return 0;
    }
    return CloseThreadedQueue(session);
}
