#include "net/read_deadline.h"

#include "net/platform.h"

#include <errno.h>
#include <poll.h>

namespace {

constexpr uint64_t kLookMs = 50; // who is told to leave, leaves so soon

} // namespace

int AwaitInput(int fd, uint64_t until)
{
    const uint64_t now = RtmpGetSystemTime();
    if (now >= until) {
        errno = EAGAIN;
        return -1;
    }
    const uint64_t left = until - now;
    struct pollfd entry = {fd, POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(left < kLookMs ? left : kLookMs));
    if (ready == 0) {
        errno = EINTR;
    }
    return ready > 0 ? 0 : -1;
}
