// The times last stamped on a session's media messages. The session's sender puts audio and video in order by
// them.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// MovesSenderClock tells whether the times on a client's messages are ages of its connection, without gaps:
// those of players with a timeline of their own, or that wait for key frames, say nothing about the order of
// others'.
bool MovesSenderClock(const RtmpClient *client);

// IsSoundDue tells whether a sound goes in front of a picture, by the host's clock: when it is not later, or
// so much later that its clock must be another, and nobody would wait for it.
bool IsSoundDue(uint64_t soundTime, uint64_t pictureTime);

// NoteStampedTime records the time of a media message in the clock of the client's session: the threaded
// queue's in sender mode 1, else the packet monitor's. Nothing to do without a session or a sender, or for a
// client that does not move the clock. Any thread.
void NoteStampedTime(const RtmpClient *client, const RtmpSendPkt *pkt);
}
