// The media time of a player of RTMP_PLAYERS_TIMELINE: 0 with the first frame after "play", then on with the
// host's clock, the same for pictures and sound. By default media time is the age of the connection
// (header_fields.h, media.h).
//
// The caller holds the client's WriteLock.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// BeginTimeline makes the next frame the one at time 0, and is the time of replies until then.
void BeginTimeline(RtmpClient *client);

// InterruptTimeline makes the next frame follow the last one by its own delta, however long it took.
void InterruptTimeline(RtmpClient *client);

// A frame on the host's clock.
typedef struct RtmpFrameTime {
    uint64_t Time;
    uint64_t Delta; // since the previous frame of its kind
    uint8_t Leads;  // a picture, or sound in a session without pictures: the timeline follows its clock
} RtmpFrameTime;

// PlaceOnTimeline returns the media time of a frame that is sent to the client. A clock that jumps back is
// followed from where the timeline is, without a step; sound that is far from the pictures' clock has the
// time of what was sent last.
uint64_t PlaceOnTimeline(RtmpClient *client, const RtmpFrameTime *frame);

// StampReply gives a message that is no frame the time of the last frame, and its delta; a ping response
// keeps its header time of 0. Nothing to do without RTMP_PLAYERS_TIMELINE. -1: the send list could not be
// locked (logged).
RTMP_STATUS int StampReply(RtmpClient *client, RtmpSendPkt *message, uint32_t kind);
}
