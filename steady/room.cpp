#include "steady/room.h"

#include "net/client_state.h"

#include <sys/epoll.h>
#include <unistd.h>

namespace {

int Control(const SteadyService *service, int operation, SteadyLine *line, uint32_t events)
{
    struct epoll_event event = {};
    event.events = events;
    event.data.ptr = line;
    return epoll_ctl(service->Epoll, operation, SocketInUse(line->Client), &event);
}

} // namespace

int WatchLine(SteadyLine *line)
{
    // Nothing is awaited yet. An error of the connection would be reported all the same, once.
    if (Control(line->Service, EPOLL_CTL_ADD, line, EPOLLONESHOT) != 0) {
        return -1;
    }
    WakeKeeper(line->Service);
    return 0;
}

void UnwatchLine(SteadyLine *line)
{
    (void)Control(line->Service, EPOLL_CTL_DEL, line, 0); // a descriptor that is closed has left by itself
}

void AwaitRoom(SteadyLine *line)
{
    (void)Control(line->Service, EPOLL_CTL_MOD, line, EPOLLOUT | EPOLLONESHOT); // watched
}

void WakeKeeper(const SteadyService *service)
{
    const uint64_t one = 1;
    if (write(service->Wake, &one, sizeof one) < 0) {
        return; // full: it is awake
    }
}
