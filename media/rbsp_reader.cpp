#include "media/rbsp_reader.h"

#include "media/h264.h"

namespace {

constexpr uint32_t kEmulationPrevention = 3; // behind two zero bytes
constexpr uint32_t kLongestUePrefix = 31;    // ue(v) goes up to 2^32 - 2

void StepToPayloadByte(RbspReader *bits)
{
    if (bits->Zeros >= 2 && bits->Next < bits->End && *bits->Next == kEmulationPrevention) {
        bits->Next++;
        bits->Zeros = 0;
    }
    if (bits->Next >= bits->End) {
        bits->Broken = true;
        return;
    }
    bits->Byte = *bits->Next++;
    bits->BitsLeft = kBitsInByte;
    bits->Zeros = bits->Byte == 0 ? bits->Zeros + 1 : 0;
}

// z zero bits, a one, z more bits
uint64_t ReadCodeNumber(RbspReader *bits)
{
    uint32_t zeros = 0;
    while (!ReadRbspFlag(bits) && !bits->Broken) {
        zeros++;
        bits->Broken = zeros > kLongestUePrefix;
    }
    if (bits->Broken) {
        return 0;
    }
    return (uint64_t{1} << zeros) - 1 + ReadRbspBits(bits, zeros);
}

} // namespace

RbspReader ReadRbspOf(const uint8_t *data, uint32_t length)
{
    RbspReader bits = {};
    bits.Next = data;
    bits.End = data + length;
    return bits;
}

bool ReadRbspFlag(RbspReader *bits)
{
    if (!bits->Broken && bits->BitsLeft == 0) {
        StepToPayloadByte(bits);
    }
    if (bits->Broken) {
        return false;
    }
    bits->BitsLeft--;
    return (bits->Byte >> bits->BitsLeft & 1U) != 0;
}

uint32_t ReadRbspBits(RbspReader *bits, uint32_t count)
{
    uint32_t value = 0;
    for (uint32_t i = 0; i < count; i++) {
        value = value << 1 | (ReadRbspFlag(bits) ? 1U : 0U);
    }
    return bits->Broken ? 0 : value;
}

uint32_t ReadRbspUe(RbspReader *bits, uint32_t most)
{
    const uint64_t value = ReadCodeNumber(bits);
    bits->Broken = bits->Broken || value > most;
    return bits->Broken ? 0 : static_cast<uint32_t>(value);
}

int32_t ReadRbspSe(RbspReader *bits, int32_t least, int32_t most)
{
    const int64_t code = static_cast<int64_t>(ReadCodeNumber(bits));
    const int64_t value = code % 2 != 0 ? (code + 1) / 2 : -(code / 2);
    bits->Broken = bits->Broken || value < least || value > most;
    return bits->Broken ? 0 : static_cast<int32_t>(value);
}
