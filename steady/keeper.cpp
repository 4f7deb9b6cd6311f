#include "steady/keeper.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "net/scope.h"
#include "steady/line_end.h"
#include "steady/line_flush.h"
#include "steady/room.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr int kTickMs = 100; // between two looks at the deadlines
constexpr int kNoLines = -1; // and while there is no connection
constexpr int kEventsAtOnce = 64;

constexpr enum SteadyEnd kEndOfWait[] = {STEADY_GOES_ON, STEADY_END_HANDSHAKE_LATE, STEADY_END_PLAY_LATE,
                                         STEADY_END_TUNNEL};

void TakeWakes(const SteadyService *service)
{
    uint64_t count = 0;
    if (read(service->Wake, &count, sizeof count) < 0) {
        return; // none
    }
}

void GoOn(SteadyLine *line, uint64_t now)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    FlushLine(line, now);
}

// What is asked for under the lock concerns lines that are still watched.
void ServeRoom(SteadyService *service, uint64_t now)
{
    struct epoll_event events[kEventsAtOnce];
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    const int count = epoll_wait(service->Epoll, events, kEventsAtOnce, 0);
    for (int i = 0; i < count; i++) {
        if (events[i].data.ptr == nullptr) {
            TakeWakes(service);
        } else {
            GoOn(static_cast<SteadyLine *>(events[i].data.ptr), now);
        }
    }
}

// A connection that was accepted before this road was chosen, or that a host joined by hand, may wait as long
// as it likes.
bool IsStalled(SteadyLine *line, uint64_t now)
{
    if ((line->OwnsSocket == 0 && LoadShared(&line->IsPublisher) == 0) || LoadShared(&line->WantsRoom) == 0) {
        return false; // as most are: nobody's lock is taken for it
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    return line->WantsRoom != 0 &&
           MillisecondsSince(line->LastProgress, now) > line->Service->Limits.StallMilliseconds;
}

void CheckLine(SteadyLine *line, uint64_t now)
{
    const uint64_t deadline = LoadShared(&line->Deadline);
    if (deadline != 0 && now > deadline) {
        EndLine(line, kEndOfWait[LoadShared(&line->WaitsFor)]);
    }
    if (IsStalled(line, now)) {
        EndLine(line, STEADY_END_STALLED);
    }
}

// CheckLines returns how long the keeper may sleep.
int CheckLines(SteadyService *service, uint64_t now)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    for (SteadyLine *line = service->FirstLine; line != nullptr; line = line->NextLine) {
        CheckLine(line, now);
    }
    return service->LineCount > 0 ? kTickMs : kNoLines;
}

void *KeepLines(void *argument)
{
    SteadyService *service = static_cast<SteadyService *>(argument);
    uint64_t nextCheck = 0;
    int timeout = 0;
    while (LoadShared(&service->KeeperEnds) == 0) {
        struct pollfd entry = {service->Epoll, POLLIN, 0};
        (void)poll(&entry, 1, timeout); // interrupted or not, it looks
        const uint64_t now = RtmpGetSystemTime();
        ServeRoom(service, now);
        if (now >= nextCheck || timeout == kNoLines) {
            timeout = CheckLines(service, now);
            nextCheck = now + kTickMs;
        }
    }
    return nullptr;
}

int OpenDescriptors(SteadyService *service)
{
    service->Epoll = epoll_create1(EPOLL_CLOEXEC);
    service->Wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct epoll_event event = {};
    event.events = EPOLLIN;
    return service->Epoll >= 0 && service->Wake >= 0 &&
                   epoll_ctl(service->Epoll, EPOLL_CTL_ADD, service->Wake, &event) == 0
               ? 0
               : -1;
}

void CloseOne(int *fd)
{
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

void CloseDescriptors(SteadyService *service)
{
    CloseOne(&service->Epoll);
    CloseOne(&service->Wake);
}

} // namespace

int StartKeeper(SteadyService *service)
{
    if (OpenDescriptors(service) != 0 || RtmpThreadCreate(&service->Keeper, KeepLines, service) != 0) {
        CloseDescriptors(service);
        return RTMP_ERR_THREAD_CREATE;
    }
    return 0;
}

void StopKeeper(SteadyService *service)
{
    StoreShared(&service->KeeperEnds, uint8_t{1});
    WakeKeeper(service);
    (void)RtmpWaitForThreadCompletion(service->Keeper); // started, and joined once
    CloseDescriptors(service);
}

void EndLines(SteadyService *service)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    service->Closing = 1;
    for (SteadyLine *line = service->FirstLine; line != nullptr; line = line->NextLine) {
        if (line->OwnsSocket != 0) {
            EndLine(line, STEADY_END_SERVER);
        }
    }
    while (service->AcceptedCount > 0) {
        (void)RtmpConditionWaitSlice(&service->LineLeft, &service->Lock); // the count decides
    }
}
