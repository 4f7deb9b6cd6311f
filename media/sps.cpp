#include "media/sps.h"

#include "media/bit_reader.h"
#include "media/h264.h"
#include "media/scaling_lists.h"

namespace {

constexpr uint32_t kMostRefFramesInCycle = 256; // 255 in a valid stream
constexpr uint32_t kHighestProfileWithoutChroma = 99;

void SkipChromaAndScaling(BitStructure *bits)
{
    const uint32_t chromaFormatIdc = BitStructureReadUe(bits);
    if (chromaFormatIdc == kChroma444) {
        BitStructureSkip(bits, 1); // separate_colour_plane_flag
    }
    (void)BitStructureReadUe(bits);  // bit_depth_luma_minus8: only its length matters
    (void)BitStructureReadUe(bits);  // bit_depth_chroma_minus8
    (void)BitStructureReadOne(bits); // qpprime_y_zero_transform_bypass_flag
    uint8_t lists4x4[LISTS_4X4_LEN];
    uint8_t lists8x8[LISTS_8X8_LEN];
    DecodeScalingMatrices(bits, lists4x4, lists8x8);
}

void SkipPicOrderCount(BitStructure *bits)
{
    const uint32_t type = BitStructureReadUe(bits);
    if (type == 0) {
        (void)BitStructureReadUe(bits); // log2_max_pic_order_cnt_lsb_minus4
        return;
    }
    if (type != 1) {
        return;
    }
    (void)BitStructureReadOne(bits); // delta_pic_order_always_zero_flag
    (void)BitStructureReadSe(bits);  // offset_for_non_ref_pic
    (void)BitStructureReadSe(bits);  // offset_for_top_to_bottom_field
    uint32_t cycle = BitStructureReadUe(bits);
    if (cycle > kMostRefFramesInCycle) {
        cycle = kMostRefFramesInCycle;
    }
    for (uint32_t i = 0; i < cycle; i++) {
        (void)BitStructureReadSe(bits); // offset_for_ref_frame
    }
}

uint32_t ReadPixels(BitStructure *bits)
{
    const uint64_t macroblocks = uint64_t{BitStructureReadUe(bits)} + 1;
    return static_cast<uint32_t>(macroblocks * kMacroblock);
}

// An SPS without a byte behind its NAL header leaves nothing to read.
void StartBehindNalHeader(BitStructure *bits, const uint8_t *sps, uint32_t spsLen)
{
    if (spsLen < 1) {
        BitStructureInit(bits, sps, 0);
        return;
    }
    BitStructureInit(bits, sps + 1, static_cast<int32_t>(spsLen - 1));
}

} // namespace

// KEPT: emulation prevention bytes are read as data, every profile above 99 and no other counts as one with
// chroma fields (44, 83 and 86 have them too), and cropping is not applied (1080 lines are reported as 1088).
// Required; all three change the picture size in onMetaData.
void ParseSPSHeader(const uint8_t *sps, uint32_t spsLen, VdCodecInfo *out)
{
    BitStructure bits;
    StartBehindNalHeader(&bits, sps, spsLen);
    out->profileIdc = BitStructureRead(&bits, 8);
    out->constraintFlags = BitStructureRead(&bits, 8);
    out->levelIdc = BitStructureRead(&bits, 8);
    (void)BitStructureReadUe(&bits); // seq_parameter_set_id
    if (out->profileIdc > kHighestProfileWithoutChroma) {
        SkipChromaAndScaling(&bits);
    }
    (void)BitStructureReadUe(&bits); // log2_max_frame_num_minus4
    SkipPicOrderCount(&bits);
    (void)BitStructureReadUe(&bits); // max_num_ref_frames
    BitStructureSkip(&bits, 1);      // gaps_in_frame_num_value_allowed_flag
    out->width = ReadPixels(&bits);
    out->height = ReadPixels(&bits);
    const uint32_t frameMbsOnly = BitStructureReadOne(&bits);
    out->height *= 2 - frameMbsOnly; // map units of field pairs are two macroblocks high
}
