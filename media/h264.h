// Numbers of H.264 and of its access units that more than one file of this room goes by.
#pragma once

#include <stdint.h>

// ITU-T H.264
constexpr uint8_t kNalTypeSps = 7; // table 7-1
constexpr uint8_t kNalTypePps = 8;
constexpr uint8_t kStartCodeLen = 4; // Annex B: zero_byte and the prefix of three bytes
constexpr uint8_t kMacroblock = 16;  // samples a side
constexpr uint8_t kChroma444 = 3;    // chroma_format_idc
constexpr int64_t kSize4x4 = 16;     // entries of a scaling list
constexpr int64_t kSize8x8 = 64;

constexpr uint8_t kBitsInByte = 8;

// ISO/IEC 14496-15: lengthSizeMinusOne is 3
constexpr uint8_t kNalLengthSize = 4;
