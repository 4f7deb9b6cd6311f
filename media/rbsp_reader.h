// Bits of a NAL unit, most significant first, its emulation prevention bytes left out (ITU-T H.264, 7.3.1 and
// 9.1), and whether they were really there.
#pragma once

#include <stdint.h>

extern "C" {

typedef struct RbspReader {
    const uint8_t *Next;
    const uint8_t *End;
    uint32_t Zeros; // zero bytes just in front of Next
    uint32_t Byte;  // the byte being read
    uint32_t BitsLeft;
    // The data ended too early, or held a value that may not be there. From then on everything reads as zero.
    bool Broken;
} RbspReader;

RbspReader ReadRbspOf(const uint8_t *data, uint32_t length);

uint32_t ReadRbspBits(RbspReader *bits, uint32_t count); // up to 32
bool ReadRbspFlag(RbspReader *bits);

// They read Exp-Golomb values. One above `most`, or out of the range, breaks the reader and is 0.
uint32_t ReadRbspUe(RbspReader *bits, uint32_t most);
int32_t ReadRbspSe(RbspReader *bits, int32_t least, int32_t most);
}
