// Scaling lists of a sequence parameter set (ITU-T H.264, 7.3.2.1.1.1). Nobody uses their values here: they
// are read so that the reader stands behind them.
#pragma once

#include "media/bit_reader.h"

extern "C" {

enum { LISTS_4X4_LEN = 6 * 16, LISTS_8X8_LEN = 2 * 64 };

// DecodeScalingList reads one list of `size` 16 or 64 into `list`, the scan undone. Default and fallback
// lists have `size` entries.
void DecodeScalingList(BitStructure *bits, uint8_t *list, int32_t size, const uint8_t *defaultList,
                       const uint8_t *fallbackList);

// DecodeScalingMatrices reads seq_scaling_matrix_present_flag and what it announces. `lists4x4` has
// LISTS_4X4_LEN entries, `lists8x8` LISTS_8X8_LEN; without the flag they are left alone.
void DecodeScalingMatrices(BitStructure *bits, uint8_t *lists4x4, uint8_t *lists8x8);
}
