#pragma once

#include "delivery/write/frame.h"

extern "C" {

// InsertCaptions puts the session's closed captions into a video frame whose tag header stands in its prefix
// (mode 0), or sends them to the first client of the session (mode 1). A frame without a place for captions,
// and every failure, leaves the frame as it is. Logs as SendMsgToConnectedClients.
void InsertCaptions(RtmpSession *session, RtmpFrame *frame);
}
