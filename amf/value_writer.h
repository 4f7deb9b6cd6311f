// AMF0 values written straight into a buffer, with members that EncodeAmfBuffer cannot write. Whether all had
// room, the writer says (Overrun).
#pragma once

#include "net/byte_writer.h"

extern "C" {

void PutNumberValue(ByteWriter *out, double value);
void PutTextValue(ByteWriter *out, const char *text); // at most 65,535 bytes; longer ones overrun
void PutNullValue(ByteWriter *out);

// The members of an object or of an ECMA array (AMF0, 2.5 and 2.10), put between beginning and end.
typedef struct MemberWriter {
    ByteWriter *Out;
    uint8_t *Count; // where the number of members goes; null: an object has none
    uint32_t Members;
} MemberWriter;

MemberWriter BeginObject(ByteWriter *out);
MemberWriter BeginEcmaArray(ByteWriter *out);
void EndMembers(MemberWriter *members);

void PutNumberMember(MemberWriter *members, const char *name, double value);
void PutBooleanMember(MemberWriter *members, const char *name, bool value);
void PutTextMember(MemberWriter *members, const char *name, const char *text);
}
