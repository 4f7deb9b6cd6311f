// FLV tag bodies (Adobe Flash Video File Format, annex E.4) and the AVC decoder configuration record
// (ISO/IEC 14496-15, 5.3.3.1).
#pragma once

#include "rtmpcast/types.h"

extern "C" {

enum { FLV_VIDEO_HDR_LEN = 5, FLV_AUDIO_HDR_LEN = 2 };

// They build into the session's CodecInfo. -1 (logged).
RTMP_STATUS int GenerateFlvMetadata(RtmpSession *session);
RTMP_STATUS int CreateAVCCBox(RtmpSession *session);

// They write the header of one tag body and return its length; -1 when `out` is null. `nal` starts at the
// NAL header byte.
int GenerateFlvH264Hdr(RtmpSession *session, const uint8_t *nal, uint32_t nalLen, uint32_t ignored,
                       uint8_t *out, uint8_t isSequenceHeader);
int GenerateFlvAACHdr(RtmpSession *session, uint8_t *out, uint8_t isSequenceHeader);

// FlvVideoTag returns the first byte of a video tag body: frame type and codec.
uint8_t FlvVideoTag(int isKeyFrame);
}
