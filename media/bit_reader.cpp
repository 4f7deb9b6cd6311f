#include "media/bit_reader.h"

#include "media/h264.h"

namespace {

constexpr uint32_t kLongestExpGolombPrefix = 32;

// mask[n] has the low n bits set.
constexpr uint32_t mask[] = {
    0x00000000, 0x00000001, 0x00000003, 0x00000007, 0x0000000F, 0x0000001F, 0x0000003F,
    0x0000007F, 0x000000FF, 0x000001FF, 0x000003FF, 0x000007FF, 0x00000FFF, 0x00001FFF,
    0x00003FFF, 0x00007FFF, 0x0000FFFF, 0x0001FFFF, 0x0003FFFF, 0x0007FFFF, 0x000FFFFF,
    0x001FFFFF, 0x003FFFFF, 0x007FFFFF, 0x00FFFFFF, 0x01FFFFFF, 0x03FFFFFF, 0x07FFFFFF,
    0x0FFFFFFF, 0x1FFFFFFF, 0x3FFFFFFF, 0x7FFFFFFF, 0xFFFFFFFF,
};
static_assert(sizeof mask / sizeof mask[0] == 33, "one mask for every count of bits from 0 to 32");

void StepToNextByte(BitStructure *bits)
{
    bits->cur++;
    bits->bitsLeft = kBitsInByte;
}

} // namespace

void BitStructureInit(BitStructure *bits, const uint8_t *data, int32_t len)
{
    bits->start = data;
    bits->cur = data;
    bits->end = data + len;
    bits->bitsLeft = kBitsInByte;
}

// What was there stands at the top of the n bits when the data ends within them.
uint32_t BitStructureRead(BitStructure *bits, uint32_t n)
{
    uint32_t result = 0;
    while (n > 0 && bits->cur < bits->end) {
        const uint32_t left = static_cast<uint32_t>(bits->bitsLeft);
        const uint32_t taken = n < left ? n : left;
        n -= taken;
        result |= ((*bits->cur >> (left - taken)) & mask[taken]) << n;
        bits->bitsLeft -= static_cast<int32_t>(taken);
        if (bits->bitsLeft == 0) {
            StepToNextByte(bits);
        }
    }
    return result;
}

uint32_t BitStructureReadOne(BitStructure *bits)
{
    if (bits->cur >= bits->end) {
        return 0;
    }
    bits->bitsLeft--;
    const uint32_t bit = (*bits->cur >> bits->bitsLeft) & 1U;
    if (bits->bitsLeft == 0) {
        StepToNextByte(bits);
    }
    return bit;
}

// The reader comes to rest at the end however far it is sent, where every read yields nothing.
void BitStructureSkip(BitStructure *bits, int32_t n)
{
    if (n <= 0) {
        return;
    }
    const int64_t target = static_cast<int64_t>(kBitsInByte - bits->bitsLeft) + n; // from the top of *cur
    const int64_t bytes = target / kBitsInByte;
    if (bytes >= bits->end - bits->cur) {
        bits->cur = bits->end;
        bits->bitsLeft = kBitsInByte;
        return;
    }
    bits->cur += bytes;
    bits->bitsLeft = kBitsInByte - static_cast<int32_t>(target % kBitsInByte);
}

// z zero bits, a one, z more bits; a prefix that the end cuts counts the zeros before its last.
uint32_t BitStructureReadUe(BitStructure *bits)
{
    uint32_t zeros = 0;
    while (BitStructureReadOne(bits) == 0 && bits->cur < bits->end && zeros < kLongestExpGolombPrefix) {
        zeros++;
    }
    const uint64_t first = (uint64_t{1} << zeros) - 1;
    return static_cast<uint32_t>(first + BitStructureRead(bits, zeros));
}

int32_t BitStructureReadSe(BitStructure *bits)
{
    const int64_t code = BitStructureReadUe(bits);
    return static_cast<int32_t>(code % 2 != 0 ? (code + 1) / 2 : -(code / 2));
}
