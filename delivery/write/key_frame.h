// Where a player's pictures and sound begin (RTMP_PLAYERS_KEY_FRAME): at the next key frame after play,
// unpause and lost frames. By default with whatever frame comes next.
#pragma once

#include "delivery/write/frame.h"

extern "C" {

// NoteStreamBreak tells that frames were dropped that no player gets; those that wait for key frames begin
// anew. Ordered with the frames by whoever sends them.
void NoteStreamBreak(RtmpSession *session);

// MayHaveFrame tells whether the client gets this frame or still waits for a key frame. The caller holds the
// client's WriteLock.
bool MayHaveFrame(RtmpClient *client, const RtmpSession *session, const RtmpFrame *frame);

// StartAnew has the client begin with the next key frame, on the steady road with the last one that the
// session holds: after "play" (`again` 0) with media time 0, after an unpause where its timeline was. No
// frame is on its way to the client.
void StartAnew(RtmpClient *client, int again);

// SendWhatIsHeld sends a client that plays from now on what its session holds for newcomers; by default that
// is nothing.
void SendWhatIsHeld(RtmpClient *client);
}
