#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AcceptRtmpConnectionThread is the body of the RTMP accept thread; its argument is the RtmpServer. It ends
// when the listening socket is closed.
void *AcceptRtmpConnectionThread(void *argument);
}
