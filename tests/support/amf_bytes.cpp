#include "support/amf_bytes.h"

#include <bit>

namespace amf0 {
namespace {

// A name, or a string behind its marker: length:16, text.
Bytes Counted(const std::string &text)
{
    return BigEndian(text.size(), 2) + text;
}

Value Whole(Bytes bytes)
{
    const size_t length = bytes.size();
    return {std::move(bytes), {length}};
}

void AppendValue(Value &to, const Value &more)
{
    for (const size_t whole : more.wholeAt) {
        to.wholeAt.push_back(to.bytes.size() + whole);
    }
    Append(to.bytes, more.bytes);
}

// What stands in front of the members; then name and value of each; then 00 00 09.
Value Members(const Bytes &head, const std::vector<Member> &members)
{
    Value out = Whole(head);
    for (const Member &member : members) {
        Append(out.bytes, Counted(member.first));
        AppendValue(out, member.second);
    }
    Append(out.bytes, Hex("00 00 09"));
    out.wholeAt.push_back(out.bytes.size());
    return out;
}

} // namespace

Value Number(double value)
{
    return Whole(Hex("00") + BigEndian(std::bit_cast<uint64_t>(value), 8));
}

Value Boolean(bool value)
{
    return Whole(Hex(value ? "01 01" : "01 00"));
}

Value String(const std::string &text)
{
    return Whole(Hex("02") + Counted(text));
}

Value Null()
{
    return Whole(Hex("05"));
}

Value Object(const std::vector<Member> &members)
{
    return Members(Hex("03"), members);
}

Value EcmaArray(const std::vector<Member> &members)
{
    return Members(Hex("08") + BigEndian(members.size(), 4), members);
}

Value StrictArray(const std::vector<Value> &elements)
{
    return Whole(Hex("0A") + BigEndian(elements.size(), 4) + Values(elements).bytes);
}

Value Values(const std::vector<Value> &values)
{
    Value out = {{}, {0}};
    for (const Value &value : values) {
        AppendValue(out, value);
    }
    return out;
}

} // namespace amf0
