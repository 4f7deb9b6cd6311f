// What has come on a socket and nobody has read.
#pragma once

#include <sys/ioctl.h>

// -1 where it is no socket any more.
inline int UnreadBytes(int socket)
{
    int bytes = 0;
    return ioctl(socket, FIONREAD, &bytes) == 0 ? bytes : -1;
}
