#include "steady/counted_writes.h"

#include <atomic>
#include <sys/socket.h>

namespace {

thread_local uint64_t writes = 0;
std::atomic<uint64_t> writesInAll{0};

} // namespace

extern "C" {

ssize_t __real_sendmsg(int socket, const struct msghdr *message, int flags);

ssize_t __wrap_sendmsg(int socket, const struct msghdr *message, int flags)
{
    writes++;
    writesInAll++;
    return __real_sendmsg(socket, message, flags);
}
}

namespace wire {

uint64_t Writes()
{
    return writesInAll;
}

uint64_t WritesOfThisThread()
{
    return writes;
}

} // namespace wire
