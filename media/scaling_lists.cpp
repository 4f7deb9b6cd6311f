#include "media/scaling_lists.h"

#include "media/bit_reader.h"
#include "media/h264.h"

#include <string.h>

namespace {

// Default_4x4_Intra and Default_4x4_Inter in zig-zag order (ITU-T H.264, table 7-3).
constexpr uint8_t defaultScaling4[] = {
    6,  13, 13, 20, 20, 20, 28, 28, 28, 28, 32, 32, 32, 37, 37, 42, // intra
    10, 14, 14, 20, 20, 20, 24, 24, 24, 24, 27, 27, 27, 30, 30, 34, // inter
};
static_assert(sizeof defaultScaling4 == 2 * kSize4x4, "two lists of 16");

// Default_8x8_Intra and Default_8x8_Inter in zig-zag order (table 7-4).
constexpr uint8_t defaultScaling8[] = {
    6,  10, 10, 13, 11, 13, 16, 16, 16, 16, 18, 18, 18, 18, 18, 23, // intra
    23, 23, 23, 23, 23, 25, 25, 25, 25, 25, 25, 25, 27, 27, 27, 27, //
    27, 27, 27, 27, 29, 29, 29, 29, 29, 29, 29, 31, 31, 31, 31, 31, //
    31, 33, 33, 33, 33, 33, 36, 36, 36, 36, 38, 38, 38, 40, 40, 42, //
    9,  13, 13, 15, 13, 15, 17, 17, 17, 17, 19, 19, 19, 19, 19, 21, // inter
    21, 21, 21, 21, 21, 22, 22, 22, 22, 22, 22, 22, 24, 24, 24, 24, //
    24, 24, 24, 24, 25, 25, 25, 25, 25, 25, 25, 27, 27, 27, 27, 27, //
    27, 28, 28, 28, 28, 28, 30, 30, 30, 30, 32, 32, 32, 33, 33, 35, //
};
static_assert(sizeof defaultScaling8 == 2 * kSize8x8, "two lists of 64");

// Raster position of each entry, frame scans (figure 6-12 and 8.5.6, 8.5.7).
constexpr uint8_t zigzagScan[] = {0, 1, 4, 8, 5, 2, 3, 6, 9, 12, 13, 10, 7, 11, 14, 15};
static_assert(sizeof zigzagScan == kSize4x4, "one position for each entry");

constexpr uint8_t zigzagScan8x8[] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  //
    12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28, //
    35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51, //
    58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63, //
};
static_assert(sizeof zigzagScan8x8 == kSize8x8, "one position for each entry");

// Three lists of one kind: the first falls back to the default, the others to the list before them.
void DecodeThree4x4Lists(BitStructure *bits, uint8_t *lists, const uint8_t *defaultList)
{
    const uint8_t *fallback = defaultList;
    for (int32_t i = 0; i < 3; i++) {
        uint8_t *list = lists + i * kSize4x4;
        DecodeScalingList(bits, list, kSize4x4, defaultList, fallback);
        fallback = list;
    }
}

} // namespace

void DecodeScalingList(BitStructure *bits, uint8_t *list, int32_t size, const uint8_t *defaultList,
                       const uint8_t *fallbackList)
{
    const uint64_t bytes = static_cast<uint64_t>(size);
    if (BitStructureReadOne(bits) == 0) {
        memcpy(list, fallbackList, bytes);
        return;
    }
    const uint8_t *scan = size == kSize8x8 ? zigzagScan8x8 : zigzagScan;
    int64_t last = 8;
    int64_t next = 8;
    for (int32_t j = 0; j < size; j++) {
        if (next != 0) {
            next = (last + BitStructureReadSe(bits)) & 255;
        }
        if (j == 0 && next == 0) {
            memcpy(list, defaultList, bytes);
            return;
        }
        last = next != 0 ? next : last;
        list[scan[j]] = static_cast<uint8_t>(last);
    }
}

// KEPT: two 8x8 lists for every chroma format. 4:4:4 has six, and what follows its matrices is misread.
// Required; changes the picture size in onMetaData.
void DecodeScalingMatrices(BitStructure *bits, uint8_t *lists4x4, uint8_t *lists8x8)
{
    if (BitStructureReadOne(bits) == 0) {
        return;
    }
    const uint8_t *intra4 = defaultScaling4;
    const uint8_t *inter4 = defaultScaling4 + kSize4x4;
    const uint8_t *intra8 = defaultScaling8;
    const uint8_t *inter8 = defaultScaling8 + kSize8x8;
    DecodeThree4x4Lists(bits, lists4x4, intra4);
    DecodeThree4x4Lists(bits, lists4x4 + 3 * kSize4x4, inter4);
    DecodeScalingList(bits, lists8x8, kSize8x8, intra8, intra8);
    DecodeScalingList(bits, lists8x8 + kSize8x8, kSize8x8, inter8, inter8);
}
