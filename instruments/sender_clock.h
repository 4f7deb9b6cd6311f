// The times last stamped on a session's media messages. The session's sender puts audio and video in order by
// them.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// NoteStampedTime records the time of a media message in the clock of the client's session: the threaded
// queue's in sender mode 1, else the packet monitor's. Nothing to do without a session or a sender. Any
// thread.
void NoteStampedTime(const RtmpClient *client, const RtmpSendPkt *pkt);
}
