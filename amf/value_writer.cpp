#include "amf/value_writer.h"

#include "rtmpcast/types.h"

namespace {

// length:16  text
void PutCountedText(ByteWriter *out, const char *text)
{
    const uint64_t length = strlen(text);
    if (length > UINT16_MAX) {
        out->Overrun = true;
        return;
    }
    PutU16Be(out, static_cast<uint32_t>(length));
    PutBytes(out, text, length);
}

void PutName(MemberWriter *members, const char *name)
{
    PutCountedText(members->Out, name);
    members->Members++;
}

} // namespace

void PutNumberValue(ByteWriter *out, double value)
{
    uint64_t bits = 0;
    static_assert(sizeof bits == sizeof value, "IEEE 754, double precision");
    memcpy(&bits, &value, sizeof bits);
    PutU8(out, AMF_NUMBER);
    PutU64Be(out, bits);
}

void PutTextValue(ByteWriter *out, const char *text)
{
    PutU8(out, AMF_STRING);
    PutCountedText(out, text);
}

void PutNullValue(ByteWriter *out)
{
    PutU8(out, AMF_NULL);
}

// marker:8  members
MemberWriter BeginObject(ByteWriter *out)
{
    PutU8(out, AMF_OBJECT);
    return {out, nullptr, 0};
}

// marker:8  count:32  members
MemberWriter BeginEcmaArray(ByteWriter *out)
{
    PutU8(out, AMF_ECMA_ARRAY);
    uint8_t *count = out->Next;
    PutU32Be(out, 0);
    return {out, count, 0};
}

// empty name:16  object end:8
void EndMembers(MemberWriter *members)
{
    PutU16Be(members->Out, 0);
    PutU8(members->Out, AMF_OBJECT_END);
    if (members->Count == nullptr || members->Out->Overrun) {
        return; // the count itself may have had no room
    }
    ByteWriter count = WriterOver(members->Count, sizeof members->Members);
    PutU32Be(&count, members->Members);
}

void PutNumberMember(MemberWriter *members, const char *name, double value)
{
    PutName(members, name);
    PutNumberValue(members->Out, value);
}

void PutBooleanMember(MemberWriter *members, const char *name, bool value)
{
    PutName(members, name);
    PutU8(members->Out, AMF_BOOLEAN);
    PutU8(members->Out, value ? 1 : 0);
}

void PutTextMember(MemberWriter *members, const char *name, const char *text)
{
    PutName(members, name);
    PutTextValue(members->Out, text);
}
