// Audio and video messages (RTMP 1.0, 7.1.4 and 7.1.5). GenerateRtmpMediaMsg is in publish.h.
#pragma once

#include "message/timeline.h"
#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API RtmpSendPkt *GenerateRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length,
                                           const uint8_t *data, uint64_t wantedDelta);

// FillRtmpMediaMsg fills `pkt`, which is zero, as GenerateRtmpMediaMsg does, without allocating. -1 (logged):
// the send list could not be locked, or the kind is neither video nor audio.
RTMP_STATUS int FillRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data,
                                 uint64_t wantedDelta, RtmpSendPkt *pkt);

// FillTimelineMediaMsg fills `pkt` for a frame that is sent to a player with a timeline of its own
// (RTMP_PLAYERS_TIMELINE). The time of its chunk stream never goes back. The caller holds the WriteLock. -1
// as above.
RTMP_STATUS int FillTimelineMediaMsg(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data,
                                     const RtmpFrameTime *time, RtmpSendPkt *pkt);
}
