// A second reader and writer of AMF0 values (AMF0, 2.1 to 2.18), over plain vectors, with the oddities that
// the library keeps: what a fuzzed body must decode to, how many lines are logged on the way, and what the
// values are encoded as.
#pragma once

#include "checked_input.h"

#include <string>

namespace amf_model {

struct Value {
    std::string name;
    uint32_t type = 0;
    uint64_t bits = 0; // of a number or a date
    uint8_t boolean = 0;
    int16_t zone = 0;
    std::string text;
    std::vector<Value> members;
};

class Reader {
  public:
    explicit Reader(const FuzzBytes &bytes) : bytes_(bytes) {}

    bool readList(bool named, std::vector<Value> *out);
    bool readElements(std::vector<Value> *out);
    bool readValue(bool named, Value *out);

    size_t consumed() const
    {
        return at_;
    }
    size_t lines = 0; // that the library logs
    static constexpr int kDeepest = 1024;

  private:
    size_t left() const
    {
        return bytes_.size() - at_;
    }
    bool number(size_t width, uint64_t *out)
    {
        if (left() < width) {
            return false;
        }
        *out = 0;
        for (size_t i = 0; i < width; i++) {
            *out = *out << 8 | bytes_[at_++];
        }
        return true;
    }
    bool text(uint64_t length, std::string *out)
    {
        if (left() < length) {
            return false;
        }
        out->assign(reinterpret_cast<const char *>(bytes_.data()) + at_, length);
        at_ += length;
        return true;
    }
    bool append(bool named, std::vector<Value> *out)
    {
        Value value;
        if (!readValue(named, &value)) {
            lines++;
            return false;
        }
        out->push_back(std::move(value));
        return true;
    }
    bool readLongText(Value *out);
    bool readNested(Value *out);

    const FuzzBytes &bytes_;
    size_t at_ = 0;
    int depth_ = 0;
};

inline bool Reader::readList(bool named, std::vector<Value> *out)
{
    while (left() > 0) {
        if (left() > 2 && bytes_[at_] == 0 && bytes_[at_ + 1] == 0 && bytes_[at_ + 2] == 9) {
            at_ += 3;
            return true;
        }
        if (!append(named, out)) {
            return false;
        }
    }
    return true;
}

inline bool Reader::readElements(std::vector<Value> *out)
{
    uint64_t count = 0;
    if (!number(4, &count)) {
        return false;
    }
    for (uint64_t i = 0; count < 0x80000000 && i < count; i++) {
        if (!append(false, out)) {
            return false;
        }
    }
    return true;
}

// A text as long as the upper half of its length says, from the lower half on.
inline bool Reader::readLongText(Value *out)
{
    const size_t start = at_;
    uint64_t length = 0;
    std::string whole;
    if (!number(4, &length) || !text(length, &whole)) {
        return false;
    }
    out->type = 2;
    out->text.assign(reinterpret_cast<const char *>(bytes_.data()) + start + 2, length >> 16);
    return true;
}

inline bool Reader::readNested(Value *out)
{
    const uint32_t marker = out->type;
    uint64_t ignored = 0;
    out->type = 3;
    if (depth_ == kDeepest || (marker == 8 && !number(4, &ignored))) {
        return false;
    }
    depth_++;
    const bool whole = marker == 10 ? readElements(&out->members) : readList(true, &out->members);
    depth_--;
    return whole;
}

inline bool Reader::readValue(bool named, Value *out)
{
    uint64_t value = 0;
    if (named && (left() < 4 || !number(2, &value) || !text(value, &out->name))) {
        return false;
    }
    if (!number(1, &value)) {
        return false;
    }
    out->type = static_cast<uint32_t>(value);
    switch (out->type) {
    case 0:
        return number(8, &out->bits);
    case 1:
        if (!number(1, &value)) {
            return false;
        }
        out->boolean = value == 0 ? 1 : 0;
        return true;
    case 2:
        return number(2, &value) && text(value, &out->text);
    case 3:
    case 8:
    case 10:
        return readNested(out);
    case 5:
    case 6:
    case 7:
    case 9:
    case 13:
        return true;
    case 11:
        if (!number(8, &out->bits) || !number(2, &value)) {
            return false;
        }
        out->zone = static_cast<int16_t>(value);
        return true;
    case 12:
        return readLongText(out);
    default:
        lines += out->type > 17 ? 1 : 0;
        return false;
    }
}

// What a list is encoded as: the bytes, what they are counted as, and the lines that both passes log.
struct Encoded {
    FuzzBytes bytes;
    size_t counted = 0;
    size_t lines = 0;
};

inline void PutNumber(Encoded *out, uint64_t value, int width)
{
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        out->bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

inline void PutText(Encoded *out, const std::string &text)
{
    PutNumber(out, text.size(), 2);
    out->bytes.insert(out->bytes.end(), text.begin(), text.end());
}

// A name, and of numbers and strings the value; the others are counted longer than they are written.
inline void EncodeMember(Encoded *out, const Value &member)
{
    PutText(out, member.name);
    switch (member.type) {
    case 0:
        PutNumber(out, 0, 1);
        PutNumber(out, member.bits, 8);
        return;
    case 2:
        PutNumber(out, 2, 1);
        PutText(out, member.text);
        return;
    case 1:
        out->counted += 2;
        return;
    case 5:
    case 6:
    case 7:
        out->counted += 1;
        return;
    default:
        out->counted += 1;
        out->lines += 2;
        return;
    }
}

inline void EncodeValue(Encoded *out, const Value &value)
{
    switch (value.type) {
    case 0:
        PutNumber(out, 0, 1);
        PutNumber(out, value.bits, 8);
        return;
    case 1:
        PutNumber(out, 1, 1);
        PutNumber(out, value.boolean, 1);
        return;
    case 2:
        PutNumber(out, 2, 1);
        PutText(out, value.text);
        return;
    case 5:
        PutNumber(out, 5, 1);
        return;
    case 3:
        PutNumber(out, 3, 1);
        break;
    default:
        break;
    }
    for (const Value &member : value.members) {
        EncodeMember(out, member);
    }
    PutNumber(out, 9, 3);
}

inline Encoded Encode(const std::vector<Value> &values)
{
    Encoded out;
    for (const Value &value : values) {
        EncodeValue(&out, value);
    }
    out.counted += out.bytes.size();
    out.bytes.resize(out.counted); // the difference stands at the end, as zeros
    return out;
}

// Whether the system promises that these values decode to themselves once encoded, but for booleans, which
// invert.
inline bool SurvivesEncoding(const Value &value, bool isMember)
{
    switch (value.type) {
    case 0:
        return isMember || value.bits >> 48 != 9; // 00 00 09 would end the list
    case 2:
        return true;
    case 1:
    case 5:
        return !isMember;
    case 3:
        if (isMember) {
            return false;
        }
        for (const Value &member : value.members) {
            if (!SurvivesEncoding(member, true)) {
                return false;
            }
        }
        return true;
    default:
        return false;
    }
}

inline bool SameText(const AmfString &text, const std::string &expected, const ExactCopy &input)
{
    if (text.len != expected.size()) {
        return false;
    }
    return text.len == 0 ||
           (input.holds(text.data, text.len) && memcmp(text.data, expected.data(), text.len) == 0);
}

inline void CheckSame(const AmfObject &list, const std::vector<Value> &expected, const ExactCopy &input);

inline void CheckSame(const AmfObjProperty &prop, const Value &expected, const ExactCopy &input)
{
    uint64_t bits = 0;
    memcpy(&bits, &prop.ObjVal.number, sizeof bits);
    FUZZ_CHECK(prop.type == expected.type);
    FUZZ_CHECK(SameText(prop.name, expected.name, input));
    if (prop.type == AMF_NUMBER || prop.type == AMF_DATE) {
        FUZZ_CHECK(bits == expected.bits);
        FUZZ_CHECK(prop.dateTz == expected.zone);
    } else if (prop.type == AMF_BOOLEAN) {
        FUZZ_CHECK(prop.ObjVal.boolean == expected.boolean);
    } else if (prop.type == AMF_STRING) {
        FUZZ_CHECK(SameText(prop.ObjVal.StrObj, expected.text, input));
    } else if (prop.type == AMF_OBJECT) {
        CheckSame(prop.ObjVal.object, expected.members, input);
    }
}

inline void CheckSame(const AmfObject &list, const std::vector<Value> &expected, const ExactCopy &input)
{
    FUZZ_CHECK(list.count == static_cast<int32_t>(expected.size()));
    const AmfObjProperty *before = nullptr;
    const AmfObjProperty *prop = list.first;
    for (const Value &value : expected) {
        FUZZ_CHECK(prop != nullptr && prop->prev == before);
        CheckSame(*prop, value, input);
        before = prop;
        prop = prop->next;
    }
    FUZZ_CHECK(prop == nullptr && list.last == before);
}

} // namespace amf_model
