// Value lists to AMF0 bytes. The builders and EncodeAmfBuffer are in publish.h.
#pragma once

#include "rtmpcast/publish.h"

extern "C" {

// WriteDouble stores an IEEE 754 double, most significant byte first.
void WriteDouble(RtmpServer *server, uint8_t *out, double value);
}
