// One encoded frame on its way to the players: the FLV tag header in front of it, and captions in it.
#pragma once

#include "net/limits.h"
#include "rtmpcast/types.h"

extern "C" {

typedef struct RtmpFrame {
    const uint8_t *Data; // as the host gave it
    int32_t Length;
    int32_t Fd;
    uint64_t MapBase;
    uint64_t TimestampDelta; // ms since the previous frame of the same kind
    uint32_t Kind;           // RTMP_MSG_VIDEO or RTMP_MSG_AUDIO
    uint64_t Time;           // ms on the host's clock
    uint8_t LeadsTimeline;   // a picture, or sound of a session without pictures
    uint8_t IsKeyFrame;      // any of its NAL units is an IDR slice
    uint8_t ExactTag;        // the tag header's first byte by default
    uint8_t StandardTag;     // and for players of RTMP_PLAYERS_DESCRIPTION

    // What goes out: the prefix (tag header and, with captions, the frame's beginning and the SEI), then the
    // rest of the frame.
    uint8_t Prefix[kFramePrefixSize];
    uint32_t HeaderLength;
    uint32_t PrefixLength;
    const uint8_t *Payload;
    uint32_t PayloadLength;
} RtmpFrame;
}

// In whose name the fan-out and the captions within it log.
constexpr const char *kFanOut = "SendMsgToConnectedClients";
