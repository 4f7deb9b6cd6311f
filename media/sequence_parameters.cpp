#include "media/sequence_parameters.h"

#include "media/h264.h"
#include "media/rbsp_reader.h"

namespace {

// Of 7.3.2.1.1; 144 is the High 4:4:4 profile of the edition of 2005, withdrawn since.
constexpr uint32_t kOldHigh444 = 144;
constexpr uint32_t kProfilesWithChroma[] = {
    100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135, kOldHigh444,
};
static_assert(sizeof kProfilesWithChroma / sizeof kProfilesWithChroma[0] == 14, "thirteen, and the old one");

// Pixels in a unit of the cropping, by chroma format; frame_mbs_only_flag 0 doubles the height (7-19 to
// 7-22). Separate colour planes are cropped as monochrome ones, which have the units of 4:4:4.
struct CropUnit {
    uint32_t Wide;
    uint32_t High;
};
constexpr uint32_t kChroma420 = 1;
constexpr CropUnit kCropUnits[] = {{1, 1}, {2, 2}, {2, 1}, {1, 1}};
static_assert(sizeof kCropUnits / sizeof kCropUnits[0] == kChroma444 + 1, "one for each chroma format");

// Level 6.2 allows 1,055 macroblocks in a row (A.3.1: the root of 8 * MaxFS), and no level allows more.
constexpr uint32_t kMostMacroblocks = 1055;
constexpr uint32_t kMostCropping = kMostMacroblocks * kMacroblock;
constexpr uint32_t kMostBitDepthMinus8 = 6;
constexpr uint32_t kMostSpsId = 31;
constexpr uint32_t kMostLog2Minus4 = 12;
constexpr uint32_t kMostOffsetsInCycle = 255;
constexpr uint32_t kHighestUe = 0xFFFFFFFE;
constexpr int32_t kFarthestOffset = 0x7FFFFFFF;
constexpr uint32_t kLists4x4 = 6;

// The size of the picture as it is coded, and what one unit of the cropping is.
struct CodedSize {
    uint32_t Width;
    uint32_t Height;
    CropUnit Unit;
};

// Once the next scale is 0, the rest of the list repeats the last one, and nothing more is written of it
// (7.3.2.1.1.1).
void SkipScalingList(RbspReader *bits, uint32_t size)
{
    int32_t scale = 8;
    for (uint32_t i = 0; i < size && !bits->Broken; i++) {
        scale = (scale + ReadRbspSe(bits, -128, 127) + 256) % 256;
        if (scale == 0) {
            return;
        }
    }
}

void SkipScalingMatrix(RbspReader *bits, uint32_t lists)
{
    for (uint32_t i = 0; i < lists; i++) {
        if (ReadRbspFlag(bits)) { // seq_scaling_list_present_flag
            SkipScalingList(bits, static_cast<uint32_t>(i < kLists4x4 ? kSize4x4 : kSize8x8));
        }
    }
}

// 4:4:4 has six lists of 8x8 where the other formats have two; it had two as well in the edition of 2005.
uint32_t ScalingLists(uint32_t profileIdc, uint32_t chromaFormatIdc)
{
    return chromaFormatIdc == kChroma444 && profileIdc != kOldHigh444 ? 12 : 8;
}

void ReadChroma(RbspReader *bits, uint32_t profileIdc, SequenceParameters *out)
{
    out->ChromaFormatIdc = ReadRbspUe(bits, kChroma444);
    if (out->ChromaFormatIdc == kChroma444) {
        (void)ReadRbspFlag(bits); // separate_colour_plane_flag
    }
    out->BitDepthLumaMinus8 = ReadRbspUe(bits, kMostBitDepthMinus8);
    out->BitDepthChromaMinus8 = ReadRbspUe(bits, kMostBitDepthMinus8);
    (void)ReadRbspFlag(bits); // qpprime_y_zero_transform_bypass_flag
    if (ReadRbspFlag(bits)) { // seq_scaling_matrix_present_flag
        SkipScalingMatrix(bits, ScalingLists(profileIdc, out->ChromaFormatIdc));
    }
}

void SkipOffset(RbspReader *bits)
{
    (void)ReadRbspSe(bits, -kFarthestOffset, kFarthestOffset);
}

void SkipPictureOrderCount(RbspReader *bits)
{
    const uint32_t type = ReadRbspUe(bits, 2);
    if (type == 0) {
        (void)ReadRbspUe(bits, kMostLog2Minus4); // log2_max_pic_order_cnt_lsb_minus4
        return;
    }
    if (type != 1) {
        return;
    }
    (void)ReadRbspFlag(bits); // delta_pic_order_always_zero_flag
    SkipOffset(bits);         // offset_for_non_ref_pic
    SkipOffset(bits);         // offset_for_top_to_bottom_field
    const uint32_t cycle = ReadRbspUe(bits, kMostOffsetsInCycle);
    for (uint32_t i = 0; i < cycle; i++) {
        SkipOffset(bits); // offset_for_ref_frame
    }
}

CodedSize ReadCodedSize(RbspReader *bits, CropUnit unit)
{
    const uint32_t mbsWide = ReadRbspUe(bits, kMostMacroblocks - 1) + 1;
    const uint32_t mapUnitsHigh = ReadRbspUe(bits, kMostMacroblocks - 1) + 1;
    const bool framesOnly = ReadRbspFlag(bits);
    const uint32_t fields = framesOnly ? 1 : 2;
    if (!framesOnly) {
        (void)ReadRbspFlag(bits); // mb_adaptive_frame_field_flag
    }
    (void)ReadRbspFlag(bits); // direct_8x8_inference_flag
    bits->Broken = bits->Broken || mapUnitsHigh * fields > kMostMacroblocks;
    return {mbsWide * kMacroblock, mapUnitsHigh * fields * kMacroblock, {unit.Wide, unit.High * fields}};
}

// Cropped is what is left of a side, of which something must be left.
uint32_t Cropped(RbspReader *bits, uint32_t side, uint32_t unit)
{
    const uint32_t units = ReadRbspUe(bits, kMostCropping) + ReadRbspUe(bits, kMostCropping);
    bits->Broken = bits->Broken || units * unit >= side;
    return bits->Broken ? side : side - units * unit;
}

void ReadSize(RbspReader *bits, SequenceParameters *out)
{
    const CodedSize coded = ReadCodedSize(bits, kCropUnits[out->ChromaFormatIdc]);
    out->Width = coded.Width;
    out->Height = coded.Height;
    if (ReadRbspFlag(bits)) { // frame_cropping_flag: left, right, top, bottom
        out->Width = Cropped(bits, coded.Width, coded.Unit.Wide);
        out->Height = Cropped(bits, coded.Height, coded.Unit.High);
    }
}

} // namespace

bool HasChromaFormat(uint32_t profileIdc)
{
    for (const uint32_t profile : kProfilesWithChroma) {
        if (profile == profileIdc) {
            return true;
        }
    }
    return false;
}

int ReadSequenceParameters(const uint8_t *sps, uint32_t spsLen, SequenceParameters *out)
{
    SequenceParameters read = {};
    read.ChromaFormatIdc = kChroma420;
    RbspReader bits = ReadRbspOf(sps, spsLen);
    (void)ReadRbspBits(&bits, 8); // NAL header
    const uint32_t profileIdc = ReadRbspBits(&bits, 8);
    (void)ReadRbspBits(&bits, 16); // constraint flags, level_idc
    (void)ReadRbspUe(&bits, kMostSpsId);
    if (HasChromaFormat(profileIdc)) {
        ReadChroma(&bits, profileIdc, &read);
    }
    (void)ReadRbspUe(&bits, kMostLog2Minus4); // log2_max_frame_num_minus4
    SkipPictureOrderCount(&bits);
    (void)ReadRbspUe(&bits, kHighestUe); // max_num_ref_frames
    (void)ReadRbspFlag(&bits);           // gaps_in_frame_num_value_allowed_flag
    ReadSize(&bits, &read);
    (void)ReadRbspFlag(&bits); // vui_parameters_present_flag: a whole SPS goes on at least as far
    if (bits.Broken) {
        return -1;
    }
    *out = read;
    return 0;
}
