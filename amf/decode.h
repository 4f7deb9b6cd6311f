// AMF0 (Action Message Format 0) bytes to value lists; DecodeAmfBuffer is in publish.h.
#pragma once

#include "rtmpcast/publish.h"

extern "C" {

// ReadAmfProp reads one value, its name first when `noName` is 0. Bytes consumed, or -1.
int32_t ReadAmfProp(RtmpServer *server, AmfObjProperty *prop, const uint8_t *buf, uint32_t len,
                    uint8_t noName);

// ReadAmfStrictArray reads a count and that many unnamed values. Bytes consumed, or -1.
int32_t ReadAmfStrictArray(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len);

// Scalars; the caller has checked that the bytes are there.
double ReadAmfNumber(RtmpServer *server, const uint8_t *p);
uint8_t ReadAmfBoolean(RtmpServer *server, const uint8_t *p); // 1 for a byte of 0, else 0
void ReadAmfString(RtmpServer *server, const uint8_t *p, AmfString *out);
}
