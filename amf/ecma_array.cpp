#include "amf/ecma_array.h"

#include "rtmpcast/types.h"

namespace {

// name length:16  name
void PutName(EcmaArray *array, const char *name)
{
    const uint32_t length = static_cast<uint32_t>(strlen(name));
    PutU16Be(array->Out, length);
    PutBytes(array->Out, name, length);
    array->Members++;
}

} // namespace

// marker:8  count:32  members
EcmaArray BeginEcmaArray(ByteWriter *out)
{
    PutU8(out, AMF_ECMA_ARRAY);
    uint8_t *count = out->Next;
    PutU32Be(out, 0);
    return {out, count, 0};
}

// empty name:16  object end:8
void EndEcmaArray(EcmaArray *array)
{
    PutU16Be(array->Out, 0);
    PutU8(array->Out, AMF_OBJECT_END);
    if (array->Out->Overrun) {
        return; // the count itself may have had no room
    }
    ByteWriter count = WriterOver(array->Count, sizeof array->Members);
    PutU32Be(&count, array->Members);
}

void PutNumberMember(EcmaArray *array, const char *name, double value)
{
    uint64_t bits = 0;
    static_assert(sizeof bits == sizeof value, "IEEE 754, double precision");
    memcpy(&bits, &value, sizeof bits);
    PutName(array, name);
    PutU8(array->Out, AMF_NUMBER);
    PutU64Be(array->Out, bits);
}

void PutBooleanMember(EcmaArray *array, const char *name, bool value)
{
    PutName(array, name);
    PutU8(array->Out, AMF_BOOLEAN);
    PutU8(array->Out, value ? 1 : 0);
}
