// An ECMA array (AMF0, 2.10) written straight into a buffer, with members that EncodeAmfBuffer cannot write.
#pragma once

#include "net/byte_writer.h"

extern "C" {

typedef struct EcmaArray {
    ByteWriter *Out;
    uint8_t *Count; // where the number of members goes
    uint32_t Members;
} EcmaArray;

// Members are put between the two. Whether all had room, the writer says (Overrun).
EcmaArray BeginEcmaArray(ByteWriter *out);
void EndEcmaArray(EcmaArray *array);

void PutNumberMember(EcmaArray *array, const char *name, double value);
void PutBooleanMember(EcmaArray *array, const char *name, bool value);
}
