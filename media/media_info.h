// Registration of a session's codecs; RtmpAddMediaInfo is in media.h of the interface.
#pragma once

#include "rtmpcast/media.h"

extern "C" {

// They fill one half of the session's CodecInfo, which must be empty. -1 (logged): that half owns nothing.
RTMP_STATUS int AddVideoInfo(RtmpSession *session, const VideoMediaInfo *video);
RTMP_STATUS int AddAudioInfo(RtmpSession *session, const AudioMediaInfo *audio);

// They read the copies in the session's CodecInfo into its VdCodecInfo and AdCodecInfo. -1 (logged).
RTMP_STATUS int ParseVdConfigData(RtmpSession *session);
RTMP_STATUS int ParseAdConfigData(RtmpSession *session);

// FreeCodecInfo frees a record, those behind it in NextRetired, and every buffer they own. Null is fine. A
// session that ends frees both its CodecInfo and its RetiredCodecInfo.
void FreeCodecInfo(CodecInfo *codecInfo);
}
