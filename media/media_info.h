// Registration of a session's codecs; RtmpAddMediaInfo is in media.h of the interface.
#pragma once

#include "rtmpcast/media.h"

extern "C" {

RTMP_STATUS int AddVideoInfo(RtmpSession *session, const VideoMediaInfo *video);
RTMP_STATUS int AddAudioInfo(RtmpSession *session, const AudioMediaInfo *audio);

// They read the copies in the session's CodecInfo.
RTMP_STATUS int ParseVdConfigData(RtmpSession *session);
RTMP_STATUS int ParseAdConfigData(RtmpSession *session);

// FreeCodecInfo frees a record, the ones it replaced, and every buffer they own. Null is fine.
void FreeCodecInfo(CodecInfo *codecInfo);
}
