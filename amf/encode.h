// Value lists to AMF0 bytes. The builders and EncodeAmfBuffer are in publish.h.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API int WriteAmfNumber(RtmpServer *server, AmfObject *into, const char *name, double value);
RTMP_API int WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value);
RTMP_API int WriteAmfString(RtmpServer *server, AmfObject *into, const char *name, const char *value);
RTMP_API int WriteAmfNull(RtmpServer *server, AmfObject *into);
RTMP_API int WriteAmfObject(RtmpServer *server, AmfObject *into, AmfObject *value);
RTMP_API int WriteAmfArray(RtmpServer *server, AmfObject *into, AmfObject *value);
RTMP_API uint32_t GetAmfEncBuffSize(RtmpServer *server, AmfObject *obj);
RTMP_API uint8_t *EncodeAmfBuffer(RtmpServer *server, int32_t size, AmfObject *obj);

// WriteDouble stores an IEEE 754 double, most significant byte first.
void WriteDouble(RtmpServer *server, uint8_t *out, double value);
}
