// Bits, most significant first, and Exp-Golomb codes (ITU-T H.264, 9.1).
#pragma once

#include <stdint.h>

extern "C" {

typedef struct BitStructure {
    const uint8_t *start;
    const uint8_t *cur;
    const uint8_t *end;
    int32_t bitsLeft; // unread bits in *cur: 8 down to 1
} BitStructure;

void BitStructureInit(BitStructure *bits, const uint8_t *data, int32_t len);
uint32_t BitStructureRead(BitStructure *bits, uint32_t n); // n up to 32; bits behind the end read as nothing
uint32_t BitStructureReadOne(BitStructure *bits);
void BitStructureSkip(BitStructure *bits, int32_t n);
uint32_t BitStructureReadUe(BitStructure *bits);
int32_t BitStructureReadSe(BitStructure *bits);
}
