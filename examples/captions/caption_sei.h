// Captions in H.264: ATSC A/53 Part 4 cc_data in user data registered by ITU-T T.35 (ITU-T H.264, D.1.6).
#pragma once

#include "cea608.h"

#include <cstdint>
#include <span>
#include <vector>

// The SEI message of one pair, without a NAL unit around it. Bytes 13 and 14 are the pair.
std::vector<uint8_t> captionMessage(CaptionPair pair);

// A NAL unit with the message in it, behind the four bytes of its length.
std::vector<uint8_t> seiUnit(std::span<const uint8_t> message);

// Bytes of a NAL unit with emulation prevention (ITU-T H.264, 7.4.1): no 00 00 00 to 00 00 03 is left.
std::vector<uint8_t> withEmulationPrevention(std::span<const uint8_t> bytes);

// Where a caption's NAL unit goes in an access unit of length-prefixed NAL units (lengths of four bytes):
// behind parameter sets and a buffering period, in front of other SEI and of slices. -1: there is no slice.
int32_t placeOfCaption(std::span<const uint8_t> accessUnit);
