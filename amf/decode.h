// AMF0 (Action Message Format 0) bytes to value lists; DecodeAmfBuffer is in publish.h.
//
// Nothing is read past the bytes given: a value that does not fit is refused. A length of 2^31 and more
// counts as nothing to read.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// Exported; documented in rtmpcast/publish.h.
RTMP_API int32_t DecodeAmfBuffer(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len,
                                 uint8_t noNames);

// ReadAmfProp reads one value, its name first when `noName` is 0. Bytes consumed, or -1; then the property
// may hold a part of a nested list.
int32_t ReadAmfProp(RtmpServer *server, AmfObjProperty *prop, const uint8_t *buf, uint32_t len,
                    uint8_t noName);

// ReadAmfStrictArray reads a count and that many unnamed values. Bytes consumed, or -1; `out` keeps what was
// appended.
int32_t ReadAmfStrictArray(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len);

// Scalars; the caller has checked that the bytes are there.
double ReadAmfNumber(RtmpServer *server, const uint8_t *p);
uint8_t ReadAmfBoolean(RtmpServer *server, const uint8_t *p); // 1 for a byte of 0, else 0
void ReadAmfString(RtmpServer *server, const uint8_t *p, AmfString *out);
}
