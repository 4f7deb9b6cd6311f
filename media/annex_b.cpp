#include "media/annex_b.h"

#include "media/h264.h"
#include "net/byte_writer.h"
#include "net/record.h"

namespace {

constexpr uint64_t kPrefixLen = 3; // start_code_prefix_one_3bytes
constexpr uint32_t kLongestNal = 0xFFFF;

// FindPrefix returns the first position at or behind `from` of 00 00 01, or `length`.
uint64_t FindPrefix(const uint8_t *data, uint64_t length, uint64_t from)
{
    for (uint64_t i = from; i + kPrefixLen <= length; i++) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            return i;
        }
    }
    return length;
}

// forbidden_zero_bit:1  nal_ref_idc:2, not 0  nal_unit_type:5
bool IsParameterSet(uint8_t header, uint8_t type)
{
    return (header & 0x9F) == type && (header & 0x60) != 0;
}

// A NAL unit never ends in a zero byte: what stands there belongs to the next start code, or trails.
uint64_t WithoutTrailingZeros(const uint8_t *data, uint64_t from, uint64_t to)
{
    while (to > from && data[to - 1] == 0) {
        to--;
    }
    return to;
}

bool FindParameterSet(const uint8_t *data, uint64_t length, uint8_t type, const uint8_t **nal,
                      uint32_t *nalLen)
{
    uint64_t prefix = FindPrefix(data, length, 0);
    while (prefix + kPrefixLen < length) {
        const uint64_t start = prefix + kPrefixLen;
        prefix = FindPrefix(data, length, start);
        if (IsParameterSet(data[start], type)) {
            const uint64_t end = WithoutTrailingZeros(data, start, prefix);
            *nal = data + start;
            *nalLen = static_cast<uint32_t>(end - start);
            return *nalLen <= kLongestNal;
        }
    }
    return false;
}

} // namespace

bool FindParameterSets(const uint8_t *data, uint32_t length, ParameterSetPair *out)
{
    return FindParameterSet(data, length, kNalTypeSps, &out->Sps, &out->SpsLen) &&
           FindParameterSet(data, length, kNalTypePps, &out->Pps, &out->PpsLen);
}

uint8_t *JoinParameterSets(const ParameterSetPair *sets, uint32_t *length)
{
    const uint32_t size = 3 * kStartCodeLen + sets->SpsLen + sets->PpsLen;
    uint8_t *joined = NewArray<uint8_t>(size);
    if (joined == nullptr) {
        return nullptr;
    }
    ByteWriter out = WriterOver(joined, size);
    PutU32Be(&out, 1);
    PutBytes(&out, sets->Sps, sets->SpsLen);
    PutU32Be(&out, 1);
    PutBytes(&out, sets->Pps, sets->PpsLen);
    PutU32Be(&out, 1);
    *length = size;
    return joined;
}
