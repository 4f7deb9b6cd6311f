#include "support/amf_rows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

std::string TextOf(const AmfString &text)
{
    return text.len > 0 ? std::string(text.data, text.len) : std::string();
}

std::string NumberText(double number)
{
    char text[40];
    snprintf(text, sizeof text, "%.17g", number);
    return text;
}

std::string DescribeValue(const AmfObjProperty &prop)
{
    switch (prop.type) {
    case AMF_NUMBER:
        return NumberText(prop.ObjVal.number);
    case AMF_BOOLEAN:
        return "stored " + std::to_string(prop.ObjVal.boolean);
    case AMF_STRING:
        return "\"" + TextOf(prop.ObjVal.StrObj) + "\"";
    case AMF_OBJECT:
        return "{" + Describe(prop.ObjVal.object) + "}";
    case AMF_NULL:
        return "null";
    case AMF_UNDEFINED:
        return "undefined";
    case AMF_DATE:
        return "date " + NumberText(prop.ObjVal.number) + " zone " + std::to_string(prop.dateTz);
    default:
        return "type " + std::to_string(prop.type);
    }
}

// The builders fail only without memory; then the bytes show it.
AmfObject Level(const char *text)
{
    AmfObject list = {};
    (void)WriteAmfString(nullptr, &list, "level", text);
    return list;
}

const std::vector<std::string> kRefusedOnce = {"3 ERROR: DecodeAmfBuffer: Corrupted Property"};
const std::vector<std::string> kRefusedTwice = {"3 ERROR: DecodeAmfBuffer: Corrupted Property",
                                                "3 ERROR: DecodeAmfBuffer: Corrupted Property"};
const std::vector<std::string> kRefusedElement = {"3 ERROR: ReadAmfStrictArray: Corrupted Property",
                                                  "3 ERROR: DecodeAmfBuffer: Corrupted Property"};
const std::vector<std::string> kInvalidType = {"3 ERROR: ReadAmfProp: Invalid object type",
                                               "3 ERROR: DecodeAmfBuffer: Corrupted Property"};

} // namespace

std::string Describe(const AmfObject &list)
{
    std::string text;
    for (const AmfObjProperty *prop = list.first; prop != nullptr; prop = prop->next) {
        text += text.empty() ? "" : " ";
        text += prop->name.len > 0 ? TextOf(prop->name) + "=" : "";
        text += DescribeValue(*prop);
    }
    return text;
}

DecodedAmf::DecodedAmf(RtmpServer *server, const Bytes &bytes, size_t length, uint8_t noNames)
    : input(new uint8_t[length])
{
    if (length > 0) {
        memcpy(input.get(), bytes.data(), length);
    }
    consumed = DecodeAmfBuffer(server, &list, input.get(), static_cast<uint32_t>(length), noNames);
}

DecodedAmf::~DecodedAmf()
{
    FreeAmfObject(nullptr, &list, 0);
}

const std::vector<AmfRow> &AmfRows()
{
    static const std::vector<AmfRow> rows = {
        {"nothing", "", "", {}, [](AmfObject *) {}},
        {"a number is a big-endian double",
         "00 3FF8000000000000",
         "1.5",
         {9},
         [](AmfObject *into) { (void)WriteAmfNumber(nullptr, into, nullptr, 1.5); }},
        {"a negative number",
         "00 C059000000000000",
         "-100",
         {9},
         [](AmfObject *into) { (void)WriteAmfNumber(nullptr, into, nullptr, -100); }},
        {"a boolean byte of 1 is stored as 0", "01 01", "stored 0", {2}, nullptr},
        {"a boolean byte of 0 is stored as 1", "01 00", "stored 1", {2}, nullptr},
        {"a string counts its bytes in 16 bits",
         "02 0004 'live'",
         "\"live\"",
         {7},
         [](AmfObject *into) { (void)WriteAmfString(nullptr, into, nullptr, "live"); }},
        {"an empty string",
         "02 0000",
         "\"\"",
         {3},
         [](AmfObject *into) { (void)WriteAmfString(nullptr, into, nullptr, ""); }},
        {"null is its marker", "05", "null", {1}, [](AmfObject *into) { (void)WriteAmfNull(nullptr, into); }},
        {"undefined is its marker", "06", "undefined", {1}, nullptr},
        {"a reference's index is taken for values", "07 05 06", "type 7 null undefined", {1, 2, 3}, nullptr},
        {"object end without an empty name is a value", "09", "type 9", {1}, nullptr},
        {"unsupported is its marker", "0D", "type 13", {1}, nullptr},
        {"a date has milliseconds and a zone", "0B 4024000000000000 FFC4", "date 10 zone -60", {11}, nullptr},
        {"a long string keeps the upper half of its length",
         "0C 00000005 'hello' 05",
         "\"\" null",
         {10, 11},
         nullptr},
        {"a command: string, number, null",
         "02 0007 'connect' 00 3FF0000000000000 05",
         "\"connect\" 1 null",
         {10, 19, 20},
         [](AmfObject *into) {
             (void)WriteAmfString(nullptr, into, nullptr, "connect");
             (void)WriteAmfNumber(nullptr, into, nullptr, 1);
             (void)WriteAmfNull(nullptr, into);
         }},
        {"a reply: string, number, null",
         "02 0007 '_result' 00 3FF0000000000000 05",
         "\"_result\" 1 null",
         {10, 19, 20},
         [](AmfObject *into) {
             (void)WriteAmfString(nullptr, into, nullptr, "_result");
             (void)WriteAmfNumber(nullptr, into, nullptr, 1);
             (void)WriteAmfNull(nullptr, into);
         }},
        // An object may end with the bytes: cut behind its marker or a member, it is whole.
        {"an empty object",
         "03 000009",
         "{}",
         {1, 4},
         [](AmfObject *into) {
             AmfObject none = {};
             (void)WriteAmfObject(nullptr, into, &none);
         }},
        {"an object with a named string",
         "03 0005 'level' 02 0006 'status' 000009",
         "{level=\"status\"}",
         {1, 17, 20},
         [](AmfObject *into) {
             AmfObject members = Level("status");
             (void)WriteAmfObject(nullptr, into, &members);
         }},
        {"values go on behind an object",
         "03 0001 'a' 00 4000000000000000 000009 05",
         "{a=2} null",
         {1, 13, 16, 17},
         [](AmfObject *into) {
             AmfObject members = {};
             (void)WriteAmfNumber(nullptr, &members, "a", 2);
             (void)WriteAmfObject(nullptr, into, &members);
             (void)WriteAmfNull(nullptr, into);
         }},
        {"an object within an object",
         "03 0001 'o' 03 0001 'n' 05 000009 0001 'm' 05 000009",
         "{o={n=null} m=null}",
         {1, 5, 9, 12, 16, 19},
         nullptr},
        {"a member may have an empty name", "03 0000 05 000009", "{null}", {1, 7}, nullptr},
        {"an ECMA array is stored as an object",
         "08 00000002 0001 'a' 00 3FF0000000000000 0001 'b' 00 4000000000000000 000009",
         "{a=1 b=2}",
         {5, 17, 29, 32},
         nullptr},
        {"the count of an ECMA array says nothing",
         "08 FFFFFFFF 0001 'a' 05 000009",
         "{a=null}",
         {5, 9, 12},
         nullptr},
        {"a strict array is stored as an object without names",
         "0A 00000002 00 3FF0000000000000 00 4000000000000000",
         "{1 2}",
         {23},
         nullptr},
        {"an empty strict array", "0A 00000000", "{}", {5}, nullptr},
        {"a negative count of a strict array means none", "0A FFFFFFFF 05", "{} null", {5, 6}, nullptr},
        {"a strict array within a strict array",
         "0A 00000001 0A 00000002 05 06",
         "{{null undefined}}",
         {12},
         nullptr},
        {"an object within a strict array",
         "0A 00000002 03 0001 'a' 05 000009 06",
         "{{a=null} undefined}",
         {14},
         nullptr},
        {"the end sequence ends unnamed values too", "05 000009", "null", {1, 4}, nullptr},
    };
    return rows;
}

const std::vector<RefusedAmfRow> &RefusedAmfRows()
{
    static const std::vector<RefusedAmfRow> rows = {
        {"a movie clip", "04", kRefusedOnce},
        {"a record set", "0E", kRefusedOnce},
        {"an XML document", "0F 00000000", kRefusedOnce},
        {"a typed object", "10 0001 'a' 000009", kRefusedOnce},
        {"the switch to AMF3", "11 05", kRefusedOnce},
        {"the first marker that does not exist", "12", kInvalidType},
        {"a marker far out", "20", kInvalidType},
        {"the last marker", "FF", kInvalidType},
        {"a string one byte longer than the rest", "02 0005 'live'", kRefusedOnce},
        {"a string of the greatest length", "02 FFFF 'live'", kRefusedOnce},
        {"a long string one byte longer than the rest", "0C 00000005 'live'", kRefusedOnce},
        {"a long string whose length would be negative", "0C FFFFFFFF 'live'", kRefusedOnce},
        {"a long string whose length would lead back", "0C FFFFFFFB 'live'", kRefusedOnce},
        {"a long string of 2^31 bytes", "0C 80000000 'live'", kRefusedOnce},
        {"a name longer than the rest", "03 0005 'live'", kRefusedTwice},
        {"a name that leaves no marker", "03 0004 'live'", kRefusedTwice},
        {"a member of three bytes", "03 0001 'a'", kRefusedTwice},
        {"an ECMA array without its count", "08 000000", kRefusedOnce},
        {"a strict array without its count", "0A 000000", kRefusedOnce},
        {"a strict array that claims more than there is", "0A 7FFFFFFF 05 05", kRefusedElement},
        {"a strict array with a refused element", "0A 00000002 05 04", kRefusedElement},
        {"an invalid type within an object",
         "03 0001 'a' 20",
         {"3 ERROR: ReadAmfProp: Invalid object type", "3 ERROR: DecodeAmfBuffer: Corrupted Property",
          "3 ERROR: DecodeAmfBuffer: Corrupted Property"}},
        {"a refused value behind good ones", "05 05 04", kRefusedOnce},
    };
    return rows;
}
