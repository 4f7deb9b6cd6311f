#include "amf/decode.h"

#include "amf/object.h"
#include "net/byte_order.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/record.h"

namespace {

// All levels of one value read on from one another's end: one cursor serves them all.
struct AmfReader {
    RtmpServer *Server;
    const uint8_t *Next;
    int32_t Rest;
    int32_t Depth; // objects and arrays that are open
};

constexpr char kDecodeAmfBuffer[] = "DecodeAmfBuffer";
constexpr char kReadAmfProp[] = "ReadAmfProp";
constexpr char kReadAmfStrictArray[] = "ReadAmfStrictArray";

int ReadNested(AmfReader *in, AmfObjProperty *prop);

AmfReader ReaderOver(RtmpServer *server, const uint8_t *buf, uint32_t len)
{
    return {server, buf, static_cast<int32_t>(len), 0};
}

int32_t ConsumedBy(const AmfReader *in, uint32_t len)
{
    return static_cast<int32_t>(len) - in->Rest;
}

// Take consumes `count` bytes and returns their start; null when they are not there.
const uint8_t *Take(AmfReader *in, int64_t count)
{
    if (in->Next == nullptr || count > in->Rest) {
        return nullptr;
    }
    const uint8_t *taken = in->Next;
    in->Next += count;
    in->Rest -= static_cast<int32_t>(count);
    return taken;
}

// An empty name and the object-end marker.
bool IsAtEndSequence(const AmfReader *in)
{
    return in->Rest > 2 && in->Next != nullptr && GetU24Be(in->Next) == AMF_OBJECT_END;
}

// length:16  bytes
int ReadText(AmfReader *in, AmfString *out)
{
    const uint8_t *start = Take(in, 2);
    if (start == nullptr) {
        return -1;
    }
    const uint32_t length = GetU16Be(start);
    if (Take(in, length) == nullptr) {
        return -1;
    }
    if (length > 0) {
        ReadAmfString(in->Server, start, out);
    }
    return 0;
}

// length:32  bytes
int ReadLongText(AmfReader *in, AmfObjProperty *prop)
{
    const uint8_t *start = Take(in, 4);
    if (start == nullptr || Take(in, GetU32Be(start)) == nullptr) {
        return -1;
    }
    // KEPT: the text is taken as if a 16-bit length stood there: as long as the upper half says, beginning
    // with the lower half. Required; changes what a command says. What follows is found all the same.
    ReadAmfString(in->Server, start, &prop->ObjVal.StrObj);
    prop->type = AMF_STRING;
    return 0;
}

// value:64
int ReadNumber(AmfReader *in, AmfObjProperty *prop)
{
    const uint8_t *value = Take(in, 8);
    if (value == nullptr) {
        return -1;
    }
    prop->ObjVal.number = ReadAmfNumber(in->Server, value);
    return 0;
}

// value:8
int ReadBoolean(AmfReader *in, AmfObjProperty *prop)
{
    const uint8_t *value = Take(in, 1);
    if (value == nullptr) {
        return -1;
    }
    prop->ObjVal.boolean = ReadAmfBoolean(in->Server, value);
    return 0;
}

// milliseconds:64  time zone:16
int ReadDate(AmfReader *in, AmfObjProperty *prop)
{
    const uint8_t *value = Take(in, 10);
    if (value == nullptr) {
        return -1;
    }
    prop->ObjVal.number = ReadAmfNumber(in->Server, value);
    prop->dateTz = static_cast<int16_t>(GetU16Be(value + 8));
    return 0;
}

int ReadValue(AmfReader *in, AmfObjProperty *prop)
{
    switch (prop->type) {
    case AMF_NUMBER:
        return ReadNumber(in, prop);
    case AMF_BOOLEAN:
        return ReadBoolean(in, prop);
    case AMF_STRING:
        return ReadText(in, &prop->ObjVal.StrObj);
    case AMF_OBJECT:
    case AMF_ECMA_ARRAY:
    case AMF_STRICT_ARRAY:
        return ReadNested(in, prop);
    case AMF_DATE:
        return ReadDate(in, prop);
    case AMF_LONG_STRING:
        return ReadLongText(in, prop);
    case AMF_REFERENCE: // KEPT: its index stays unread and is read as the next value. Required.
    case AMF_NULL:
    case AMF_UNDEFINED:
    case AMF_OBJECT_END:
    case AMF_UNSUPPORTED:
        return 0;
    case AMF_MOVIE_CLIP:
    case AMF_RECORD_SET:
    case AMF_XML_DOCUMENT:
    case AMF_TYPED_OBJECT:
    case AMF_AVM_PLUS:
        return -1;
    default:
        RtmpLogPrint(LoggerOf(in->Server), RTMP_LOG_ERROR, "ERROR: %s: Invalid object type\n", kReadAmfProp);
        return -1;
    }
}

// [name length:16  name]  marker:8  value
int ReadProp(AmfReader *in, AmfObjProperty *prop, bool named)
{
    // A name and a marker take at least this much, together with one byte more.
    if (named && (in->Rest < 4 || ReadText(in, &prop->name) != 0)) {
        return -1;
    }
    const uint8_t *marker = Take(in, 1);
    if (marker == nullptr) {
        return -1;
    }
    prop->type = *marker;
    return ReadValue(in, prop);
}

// AppendNext reads one value and appends it; `who` is the procedure that the log lines name.
int AppendNext(AmfReader *in, AmfObject *out, bool named, const char *who)
{
    AmfObjProperty *prop = NewRecord<AmfObjProperty>();
    if (prop == nullptr) {
        RtmpLogPrint(LoggerOf(in->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to amfObjProperty\n", who);
        return -1;
    }
    if (ReadProp(in, prop, named) != 0) {
        RtmpLogPrint(LoggerOf(in->Server), RTMP_LOG_ERROR, "ERROR: %s: Corrupted Property\n", who);
        FreeAmfProps(prop, 0, INT32_MAX); // whole, however much of a nested list was read
        return -1;
    }
    AddAmfProp(in->Server, out, prop);
    return 0;
}

int ReadValues(AmfReader *in, AmfObject *out, bool named)
{
    while (in->Rest >= 1) {
        // KEPT: also among unnamed values, where these bytes may begin a number. Required; changes where a
        // command ends.
        if (IsAtEndSequence(in)) {
            (void)Take(in, 3); // it is there
            return 0;
        }
        if (AppendNext(in, out, named, kDecodeAmfBuffer) != 0) {
            return -1;
        }
    }
    return 0;
}

// count:32  values
int ReadElements(AmfReader *in, AmfObject *out)
{
    const uint8_t *start = Take(in, 4);
    if (start == nullptr) {
        return -1;
    }
    const int32_t count = static_cast<int32_t>(GetU32Be(start));
    // One by one: a count that lies costs no memory.
    for (int32_t i = 0; i < count; i++) {
        if (AppendNext(in, out, false, kReadAmfStrictArray) != 0) {
            return -1;
        }
    }
    return 0;
}

// Objects and both kinds of array are stored as objects.
int ReadNested(AmfReader *in, AmfObjProperty *prop)
{
    if (in->Depth >= kDeepestAmf) {
        return -1;
    }
    const uint32_t marker = prop->type;
    prop->type = AMF_OBJECT;
    // An ECMA array is an object behind a count, which is not needed to read it.
    if (marker == AMF_ECMA_ARRAY && Take(in, 4) == nullptr) {
        return -1;
    }
    in->Depth++;
    const int status = marker == AMF_STRICT_ARRAY ? ReadElements(in, &prop->ObjVal.object)
                                                  : ReadValues(in, &prop->ObjVal.object, true);
    in->Depth--;
    return status;
}

} // namespace

double ReadAmfNumber(RtmpServer *, const uint8_t *p)
{
    const uint64_t bits = static_cast<uint64_t>(GetU32Be(p)) << 32 | GetU32Be(p + 4);
    double number;
    static_assert(sizeof number == sizeof bits, "IEEE 754 double precision");
    memcpy(&number, &bits, sizeof number);
    return number;
}

uint8_t ReadAmfBoolean(RtmpServer *, const uint8_t *p)
{
    // KEPT: inverted. Required; hosts read it, it tells pause from resume, and it shows in a log line.
    return *p == 0 ? 1 : 0;
}

void ReadAmfString(RtmpServer *, const uint8_t *p, AmfString *out)
{
    out->len = static_cast<uint16_t>(GetU16Be(p));
    out->StrData = reinterpret_cast<char *>(const_cast<uint8_t *>(p + 2)); // borrowed, never written
}

int32_t ReadAmfProp(RtmpServer *server, AmfObjProperty *prop, const uint8_t *buf, uint32_t len,
                    uint8_t noName)
{
    AmfReader in = ReaderOver(server, buf, len);
    return ReadProp(&in, prop, noName == 0) == 0 ? ConsumedBy(&in, len) : -1;
}

int32_t ReadAmfStrictArray(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len)
{
    AmfReader in = ReaderOver(server, buf, len);
    return ReadElements(&in, out) == 0 ? ConsumedBy(&in, len) : -1;
}

int32_t DecodeAmfBuffer(RtmpServer *server, AmfObject *out, const uint8_t *buf, uint32_t len, uint8_t noNames)
{
    AmfReader in = ReaderOver(server, buf, len);
    return ReadValues(&in, out, noNames == 0) == 0 ? ConsumedBy(&in, len) : -1;
}
