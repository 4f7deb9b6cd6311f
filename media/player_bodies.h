// The well-formed bodies of RTMP_PLAYERS_DESCRIPTION, beside the exact ones of media/flv_tag.h.
#pragma once

#include "net/byte_writer.h"
#include "rtmpcast/types.h"

constexpr uint64_t kMetadataRoom = 512; // all members together take half of it

extern "C" {

// They build PlayerMetaData and PlayerAvccBox into the session's CodecInfo, whose exact bodies are there; on
// a server without the flag they do nothing. -1 (logged): no memory.
RTMP_STATUS int GeneratePlayerMetadata(RtmpSession *session);
RTMP_STATUS int CreatePlayerAvccBox(RtmpSession *session);

// WriteWholeMetadata writes "onMetaData" and the members of one registration of the session's, which the host
// may replace meanwhile.
void WriteWholeMetadata(RtmpSession *session, const CodecInfo *codecInfo, ByteWriter *out);
}
