#include "amf/encode.h"

#include "amf/object.h"
#include "net/byte_writer.h"
#include "net/log.h"
#include "net/record.h"

namespace {

// ------------------------------------------------------------------------------------------ building lists

AmfObjProperty *NewProp(RtmpServer *server, uint32_t type, const char *who)
{
    AmfObjProperty *prop = NewRecord<AmfObjProperty>();
    if (prop == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to amfObjProperty\n", who);
        return nullptr;
    }
    prop->type = type;
    return prop;
}

int CopyText(RtmpServer *server, AmfString *out, const char *text, const char *who)
{
    const uint64_t length = strlen(text);
    out->data = CopyOfText(text, length);
    if (out->data == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to amfObjProperty->ObjVal.StrObj.StrData\n", who);
        return -1;
    }
    // KEPT: the length is 16 bits wide and wraps; a longer text is sent as its first bytes, never as a long
    // string (marker 12). Required; changes bytes on the wire.
    out->len = static_cast<uint16_t>(length);
    return 0;
}

AmfObjProperty *NewNamedProp(RtmpServer *server, uint32_t type, const char *name, const char *who)
{
    AmfObjProperty *prop = NewProp(server, type, who);
    if (prop == nullptr || name == nullptr) {
        return prop;
    }
    if (CopyText(server, &prop->name, name, who) != 0) {
        free(prop);
        return nullptr;
    }
    return prop;
}

int AppendList(RtmpServer *server, AmfObject *into, uint32_t type, const AmfObject *list, const char *who)
{
    if (list == nullptr) {
        return -1;
    }
    AmfObjProperty *prop = NewProp(server, type, who);
    if (prop == nullptr) {
        return -1;
    }
    prop->ObjVal.object = *list;
    AddAmfProp(server, into, prop);
    return 0;
}

// ----------------------------------------------------------------------------------------- counting bytes

constexpr uint32_t kMarkerSize = 1;
constexpr uint32_t kNumberSize = kMarkerSize + 8;
constexpr uint32_t kBooleanSize = kMarkerSize + 1;
constexpr uint32_t kTextLengthSize = 2;
constexpr uint32_t kArrayCountSize = 4;
constexpr uint32_t kEndSequenceSize = 3;

uint32_t SizeOfText(const AmfString *text)
{
    return kTextLengthSize + text->len;
}

// KEPT: every member counts its marker, a boolean its byte too, though of most types only the name is
// written. Required; the zero bytes that this leaves at the end are on the wire.
uint32_t SizeOfMemberValue(const AmfObjProperty *member)
{
    switch (member->type) {
    case AMF_NUMBER:
        return kNumberSize;
    case AMF_BOOLEAN:
        return kBooleanSize;
    case AMF_STRING:
        return kMarkerSize + SizeOfText(&member->ObjVal.StrObj);
    default:
        return kMarkerSize;
    }
}

// Members of the other types are reduced to their name as well, but say so.
bool IsMemberTypeKnown(uint32_t type)
{
    switch (type) {
    case AMF_NUMBER:
    case AMF_BOOLEAN:
    case AMF_STRING:
    case AMF_NULL:
    case AMF_UNDEFINED:
    case AMF_REFERENCE:
    case AMF_ECMA_ARRAY:
        return true;
    default:
        return false;
    }
}

void ReportUnknownMember(RtmpServer *server, uint32_t type, const char *who)
{
    if (!IsMemberTypeKnown(type)) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Unsupported AMF data type\n", who);
    }
}

uint32_t SizeOfMembers(RtmpServer *server, const AmfObject *list, const char *who)
{
    uint32_t size = kEndSequenceSize;
    int32_t left = list->count;
    for (const AmfObjProperty *member = list->first; member != nullptr && left > 0; member = member->next) {
        ReportUnknownMember(server, member->type, who);
        size += SizeOfText(&member->name) + SizeOfMemberValue(member);
        left--;
    }
    return size;
}

uint32_t SizeOfValue(RtmpServer *server, const AmfObjProperty *prop, const char *who)
{
    switch (prop->type) {
    case AMF_NUMBER:
        return kNumberSize;
    case AMF_BOOLEAN:
        return kBooleanSize;
    case AMF_STRING:
        return kMarkerSize + SizeOfText(&prop->ObjVal.StrObj);
    case AMF_NULL:
        return kMarkerSize;
    case AMF_OBJECT:
        return kMarkerSize + SizeOfMembers(server, &prop->ObjVal.object, who);
    case AMF_ECMA_ARRAY:
        return kMarkerSize + kArrayCountSize + SizeOfMembers(server, &prop->ObjVal.object, who);
    default: // written without a marker
        return SizeOfMembers(server, &prop->ObjVal.object, who);
    }
}

// ------------------------------------------------------------------------------------------ writing bytes

// length:16  bytes
void PutText(ByteWriter *out, const AmfString *text)
{
    PutU16Be(out, text->len);
    PutBytes(out, text->data, text->len);
}

// marker:8  value:64
void PutNumber(RtmpServer *server, ByteWriter *out, double value)
{
    uint8_t bytes[8];
    WriteDouble(server, bytes, value);
    PutU8(out, AMF_NUMBER);
    PutBytes(out, bytes, sizeof bytes);
}

// marker:8  value:8, the byte as it is stored
void PutBoolean(ByteWriter *out, uint8_t value)
{
    PutU8(out, AMF_BOOLEAN);
    PutU8(out, value);
}

// marker:8  length:16  bytes
void PutString(ByteWriter *out, const AmfString *text)
{
    PutU8(out, AMF_STRING);
    PutText(out, text);
}

// name length:16  name  [value]
void PutMember(RtmpServer *server, ByteWriter *out, const AmfObjProperty *member, const char *who)
{
    ReportUnknownMember(server, member->type, who);
    PutText(out, &member->name);
    if (member->type == AMF_NUMBER) {
        PutNumber(server, out, member->ObjVal.number);
    } else if (member->type == AMF_STRING) {
        PutString(out, &member->ObjVal.StrObj);
    }
}

// members  00 00 09
void PutMembers(RtmpServer *server, ByteWriter *out, const AmfObject *list, const char *who)
{
    int32_t left = list->count;
    for (const AmfObjProperty *member = list->first; member != nullptr && left > 0; member = member->next) {
        PutMember(server, out, member, who);
        left--;
    }
    PutU24Be(out, AMF_OBJECT_END);
}

// marker:8  [count:32]  members  00 00 09
void PutValue(RtmpServer *server, ByteWriter *out, const AmfObjProperty *prop, const char *who)
{
    switch (prop->type) {
    case AMF_NUMBER:
        PutNumber(server, out, prop->ObjVal.number);
        return;
    case AMF_BOOLEAN:
        PutBoolean(out, prop->ObjVal.boolean);
        return;
    case AMF_STRING:
        PutString(out, &prop->ObjVal.StrObj);
        return;
    case AMF_NULL:
        PutU8(out, AMF_NULL);
        return;
    case AMF_OBJECT:
        PutU8(out, AMF_OBJECT);
        break;
    case AMF_ECMA_ARRAY:
        PutU8(out, AMF_ECMA_ARRAY);
        PutU32Be(out, static_cast<uint32_t>(prop->ObjVal.object.count));
        break;
    default: // KEPT: of other types only the members and their end are written. Required: bytes on the wire.
        break;
    }
    PutMembers(server, out, &prop->ObjVal.object, who);
}

} // namespace

int WriteAmfNumber(RtmpServer *server, AmfObject *into, const char *name, double value)
{
    AmfObjProperty *prop = NewNamedProp(server, AMF_NUMBER, name, __func__);
    if (prop == nullptr) {
        return -1;
    }
    prop->ObjVal.number = value;
    AddAmfProp(server, into, prop);
    return 0;
}

int WriteAmfBoolean(RtmpServer *server, AmfObject *into, const char *name, uint8_t value)
{
    AmfObjProperty *prop = NewNamedProp(server, AMF_BOOLEAN, name, __func__);
    if (prop == nullptr) {
        return -1;
    }
    prop->ObjVal.boolean = value;
    AddAmfProp(server, into, prop);
    return 0;
}

int WriteAmfString(RtmpServer *server, AmfObject *into, const char *name, const char *value)
{
    if (value == nullptr) {
        return -1;
    }
    AmfObjProperty *prop = NewNamedProp(server, AMF_STRING, name, __func__);
    if (prop == nullptr) {
        return -1;
    }
    if (CopyText(server, &prop->ObjVal.StrObj, value, __func__) != 0) {
        free(prop->name.data);
        free(prop);
        return -1;
    }
    AddAmfProp(server, into, prop);
    return 0;
}

int WriteAmfNull(RtmpServer *server, AmfObject *into)
{
    AmfObjProperty *prop = NewProp(server, AMF_NULL, __func__);
    if (prop == nullptr) {
        return -1;
    }
    AddAmfProp(server, into, prop);
    return 0;
}

int WriteAmfObject(RtmpServer *server, AmfObject *into, AmfObject *value)
{
    return AppendList(server, into, AMF_OBJECT, value, __func__);
}

int WriteAmfArray(RtmpServer *server, AmfObject *into, AmfObject *value)
{
    return AppendList(server, into, AMF_ECMA_ARRAY, value, __func__);
}

void WriteDouble(RtmpServer *, uint8_t *out, double value)
{
    uint64_t bits;
    static_assert(sizeof bits == sizeof value, "IEEE 754 double precision");
    memcpy(&bits, &value, sizeof bits);
    ByteWriter writer = WriterOver(out, sizeof bits);
    PutU64Be(&writer, bits);
}

uint32_t GetAmfEncBuffSize(RtmpServer *server, AmfObject *obj)
{
    uint32_t size = 0;
    int32_t left = obj->count;
    for (const AmfObjProperty *prop = obj->first; prop != nullptr && left > 0; prop = prop->next) {
        size += SizeOfValue(server, prop, __func__);
        left--;
    }
    return size;
}

uint8_t *EncodeAmfBuffer(RtmpServer *server, int32_t size, AmfObject *obj)
{
    uint8_t *payload = size < 0 ? nullptr : NewArray<uint8_t>(static_cast<uint64_t>(size));
    if (payload == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to payloadData\n",
                     __func__);
        return nullptr;
    }
    // What does not fit is not written: the size is the caller's word, the end of the buffer is not.
    ByteWriter out = WriterOver(payload, static_cast<uint64_t>(size));
    int32_t left = obj->count;
    for (const AmfObjProperty *prop = obj->first; prop != nullptr && left > 0; prop = prop->next) {
        PutValue(server, &out, prop, __func__);
        left--;
    }
    return payload;
}
