// What the host is told behind each frame: how its encoder should go on, and what players miss. All on the
// thread that calls RtmpSendData, under no lock.
#pragma once

#include "delivery/steady/sender_record.h"
#include "delivery/write/frame.h"

extern "C" {

// FollowFrame feeds the instruments of the session's sender. `time`: the frame's on the session's clock.
void FollowFrame(SteadyStream *stream, const RtmpFrame *frame, uint64_t time);

// TellHost reports frames that players have missed, and asks for a key frame that one waits for; both at most
// once a second.
void TellHost(SteadyStream *stream);
}
