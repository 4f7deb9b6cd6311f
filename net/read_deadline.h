// Waiting for input until a moment, whatever signals come and however slowly the bytes.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AwaitInput returns 0 when `fd` has something to read, or its end. -1: `until` (ms of RtmpGetSystemTime) has
// come (EAGAIN); or a signal, or it is time to look whether there is still somebody to wait for (EINTR).
RTMP_STATUS int AwaitInput(int fd, uint64_t until);
}
