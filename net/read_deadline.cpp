#include "net/read_deadline.h"

#include "net/platform.h"

#include <errno.h>
#include <poll.h>

int AwaitInput(int fd, uint64_t until)
{
    const uint64_t now = RtmpGetSystemTime();
    struct pollfd entry = {fd, POLLIN, 0};
    const uint64_t left = now < until ? until - now : 0;
    const int ready = left > 0 ? poll(&entry, 1, static_cast<int>(left < INT32_MAX ? left : INT32_MAX)) : 0;
    if (ready == 0) {
        errno = EAGAIN;
    }
    return ready > 0 ? 0 : -1;
}
