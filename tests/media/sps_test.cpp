#include "media/scaling_lists.h"
#include "media/sps.h"
#include "tests/media/media_fixture.h"

#include <random>

namespace {

VdCodecInfo Parse(const Bytes &sps)
{
    const ExactBytes exact(sps);
    VdCodecInfo out = {};
    ParseSPSHeader(exact.data(), static_cast<uint32_t>(exact.size()), &out);
    return out;
}

std::string SizeOf(const Bytes &sps)
{
    const VdCodecInfo info = Parse(sps);
    return std::to_string(info.width) + "x" + std::to_string(info.height);
}

// profile_idc, constraint flags, level_idc and seq_parameter_set_id 0 behind the NAL header.
BitWriter SpsOfProfile(uint8_t profile)
{
    BitWriter written;
    written.u(8, 0x67).u(8, profile).u(8, 0).u(8, 40).ue(0);
    return written;
}

// From log2_max_frame_num_minus4 (0) to frame_mbs_only_flag (1), with pic_order_cnt_type 2.
Bytes WithSize(BitWriter written, uint32_t mbsWide, uint32_t mapUnitsHigh)
{
    written.ue(0).ue(2).ue(1).text("0").ue(mbsWide - 1).ue(mapUnitsHigh - 1).text("1 1 0 0 1");
    return written.bytes();
}

} // namespace

TEST(Sps, BaselineOf1280x720)
{
    const VdCodecInfo info = Parse(kSps720);
    EXPECT_EQ(info.width, 1280U);
    EXPECT_EQ(info.height, 720U);
    EXPECT_EQ(info.profileIdc, 66U);
    EXPECT_EQ(info.constraintFlags, 0xC0U);
    EXPECT_EQ(info.levelIdc, 31U);
}

TEST(Sps, NothingButTheFiveFieldsIsWritten)
{
    const ExactBytes exact(kSps720);
    VdCodecInfo info;
    memset(&info, 0xEE, sizeof info);
    ParseSPSHeader(exact.data(), static_cast<uint32_t>(exact.size()), &info);
    EXPECT_EQ(info.bitrate, 0xEEEEEEEEU);
    EXPECT_EQ(info.opaque[0], 0xEEEEEEEEU);
    EXPECT_EQ(info.opaque[2], 0xEEEEEEEEU);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(info.AvccBox), 0xEEEEEEEEEEEEEEEEU);
    EXPECT_EQ(info.AvccBoxLen, static_cast<int32_t>(0xEEEEEEEE));
}

TEST(Sps, AnInterlacedHeightCountsPairsOfMacroblocks)
{
    BitWriter written;
    written.u(8, 0x67).u(8, 77).u(8, 0x40).u(8, 40).ue(0); // Main
    written.ue(4).ue(0).ue(2).ue(4).text("0").ue(119).ue(34).text("0 1 1 0 0 1");
    EXPECT_EQ(SizeOf(written.bytes()), "1920x1120");
}

// The sequence parameter sets of x264 for known pictures; croppings and VUI follow and are not looked at.
TEST(Sps, ParameterSetsOfX264)
{
    const Bytes high1080 = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5, 0xC0,
                            0x44, 0x00, 0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x3C};
    const Bytes interlaced1080 = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x04, 0x4F, 0xDE,
                                  0x02, 0x20, 0x00, 0x00, 0x03, 0x00, 0x20, 0x00, 0x00, 0x06, 0x43};
    const Bytes high480 = {0x67, 0x64, 0x00, 0x1E, 0xAC, 0xD9, 0x40, 0xA0, 0x3D, 0xB0, 0x11};
    const Bytes mainQcif = {0x67, 0x4D, 0x40, 0x0B, 0xEC, 0xA1, 0x62, 0x76, 0x02, 0x20};
    EXPECT_EQ(SizeOf(high1080), "1920x1088");
    EXPECT_EQ(SizeOf(interlaced1080), "1920x1088");
    EXPECT_EQ(SizeOf(high480), "640x480");
    EXPECT_EQ(SizeOf(mainQcif), "176x144");
    EXPECT_EQ(SizeOf(kSps25), "1280x720");
    EXPECT_EQ(Parse(high1080).profileIdc, 100U);
    EXPECT_EQ(Parse(high1080).levelIdc, 40U);
    EXPECT_EQ(Parse(mainQcif).constraintFlags, 0x40U);
}

TEST(Sps, PictureOrderCountsOfEveryType)
{
    BitWriter zero = SpsOfProfile(66);
    zero.ue(3).ue(0).ue(6).ue(2).text("0").ue(39).ue(29).text("1");
    EXPECT_EQ(SizeOf(zero.bytes()), "640x480");

    BitWriter one = SpsOfProfile(66);
    one.ue(0).ue(1).text("1").se(-3).se(17).ue(3).se(1).se(-200).se(0);
    one.ue(2).text("1").ue(39).ue(29).text("1");
    EXPECT_EQ(SizeOf(one.bytes()), "640x480");

    BitWriter three = SpsOfProfile(66); // not in the standard: nothing behind the type
    three.ue(0).ue(3).ue(2).text("0").ue(39).ue(29).text("1");
    EXPECT_EQ(SizeOf(three.bytes()), "640x480");
}

TEST(Sps, AnOffsetCycleIsReadForAtMost256Entries)
{
    for (const int claimed : {256, 257, 100000}) {
        BitWriter written = SpsOfProfile(66);
        written.ue(0).ue(1).text("0").se(0).se(0).ue(static_cast<uint64_t>(claimed));
        for (int i = 0; i < 256; i++) {
            written.se(1);
        }
        written.ue(2).text("0").ue(39).ue(29).text("1");
        EXPECT_EQ(SizeOf(written.bytes()), "640x480") << claimed;
    }
}

TEST(Sps, HighProfileWithAScalingMatrix)
{
    BitWriter written = SpsOfProfile(100);
    written.ue(1).ue(0).ue(0).text("0").text("1"); // 4:2:0, 8 bits, matrix present
    written.text("1").se(-7);                      // first 4x4 list: 16 entries
    for (int i = 1; i < 16; i++) {
        written.se(i % 3);
    }
    written.text("0").text("1").se(-8).text("000");         // fallback, default, fallbacks
    written.text("1").se(4).se(3).se(-15).text("1").se(-8); // 8x8: 12, 15, 15, ...; default
    EXPECT_EQ(SizeOf(WithSize(written, 120, 68)), "1920x1088");
}

TEST(Sps, EveryProfileAbove99HasChromaFieldsAndNoOtherHas)
{
    for (const int profile : {66, 77, 88, 99}) {
        EXPECT_EQ(SizeOf(WithSize(SpsOfProfile(static_cast<uint8_t>(profile)), 20, 15)), "320x240")
            << profile;
    }
    for (const int profile : {100, 101, 110, 122, 144, 200, 244, 255}) {
        BitWriter written = SpsOfProfile(static_cast<uint8_t>(profile));
        written.ue(1).ue(2).ue(2).text("0").text("0");
        EXPECT_EQ(SizeOf(WithSize(written, 20, 15)), "320x240") << profile;
    }
}

TEST(Sps, ColourPlaneFlagOfFourFourFourIsSkipped)
{
    BitWriter written = SpsOfProfile(244);
    written.ue(3).text("1").ue(0).ue(0).text("1").text("0");
    EXPECT_EQ(SizeOf(WithSize(written, 20, 15)), "320x240");
}

TEST(Sps, FourFourFourReadsTwo8x8ListsOnly)
{
    BitWriter eightFlags = SpsOfProfile(244);
    eightFlags.ue(3).text("0").ue(0).ue(0).text("0").text("1 000000 00");
    EXPECT_EQ(SizeOf(WithSize(eightFlags, 20, 15)), "320x240");
    BitWriter twelveFlags = eightFlags; // a true 4:4:4 matrix: four more lists, taken for the fields behind
    twelveFlags.text("0000");
    EXPECT_NE(SizeOf(WithSize(twelveFlags, 20, 15)), "320x240");
}

// Level 0 makes 00 00 03 of the bytes behind the profile. As data, 03 DA 01 40 16 E4 reads: ue 0000001
// 111011; 010; 0000000 1 0000000 -> type 127...; what follows is stated below bit by bit.
TEST(Sps, EmulationPreventionBytesAreReadAsData)
{
    // 0000001 111011 (id 122) | 010 (1) | 00000001 0100000 (type 159) | 0 0001 0110 (21) | 1 (skipped) |
    // 1 (width 16) | 1 (height 16) | 0 (pairs of fields)
    const Bytes sps = {0x67, 0x42, 0x00, 0x00, 0x03, 0xDA, 0x01, 0x40, 0x16, 0xE4};
    EXPECT_EQ(SizeOf(sps), "16x32");
}

TEST(Sps, SizesAreTruncatedToThirtyTwoBits)
{
    BitWriter written = SpsOfProfile(66);
    written.ue(0).ue(2).ue(1).text("0");
    written.ue(0xFFFFFFFF).ue(0x10000001).text("0"); // 2^32 * 16; (2^28 + 2) * 16 * 2
    EXPECT_EQ(SizeOf(written.bytes()), "0x64");
}

TEST(Sps, ACutSpsYieldsZeroOrPartialValues)
{
    EXPECT_EQ(Parse({}).profileIdc, 0U);
    EXPECT_EQ(Parse({0x67}).profileIdc, 0U);
    const VdCodecInfo info = Parse(Slice(kSps720, 0, 3));
    EXPECT_EQ(info.profileIdc, 66U);
    EXPECT_EQ(info.constraintFlags, 0xC0U);
    EXPECT_EQ(info.levelIdc, 0U);
    // Behind the end every field is 0: one macroblock, and map units of two.
    EXPECT_EQ(SizeOf(Slice(kSps720, 0, 4)), "16x32");
    // 1 1 011 010 | nothing
    EXPECT_EQ(SizeOf(Slice(kSps720, 0, 5)), "16x32");
    // 0 | 0000001 : six zeros and the one, of whose suffix nothing is left: 63 + 1 macroblocks
    EXPECT_EQ(SizeOf(Slice(kSps720, 0, 6)), "1024x32");
    // 0000001 010000 | 00: the suffix is whole, and the height is a prefix of two zeros, one counted: 1 + 1
    EXPECT_EQ(SizeOf(Slice(kSps720, 0, 7)), "1280x64");
}

TEST(Sps, EveryCutOfEverySpsStaysInside)
{
    for (const Bytes &sps : {kSps720, kSps25}) {
        for (size_t cut = 0; cut <= sps.size(); cut++) {
            const VdCodecInfo info = Parse(Slice(sps, 0, cut));
            EXPECT_EQ(info.profileIdc, cut > 1 ? 66U : 0U) << cut;
            EXPECT_EQ(info.levelIdc, cut > 3 ? 31U : 0U) << cut;
            EXPECT_EQ(info.width % 16, 0U) << cut;
        }
    }
}

TEST(Sps, RandomBytesStayInside)
{
    std::mt19937 random(1305);
    for (int round = 0; round < 20000; round++) {
        Bytes sps(random() % 64);
        const uint32_t ones = static_cast<uint32_t>(random() % 3); // sparse, even and dense bits
        for (uint8_t &byte : sps) {
            const uint32_t draw = static_cast<uint32_t>(random());
            byte = static_cast<uint8_t>(ones == 0   ? draw & (draw >> 8) & (draw >> 16)
                                        : ones == 1 ? draw
                                                    : draw | (draw >> 8));
        }
        const VdCodecInfo info = Parse(sps);
        ASSERT_EQ(info.profileIdc, sps.size() > 1 ? sps[1] : 0U);
        ASSERT_EQ(info.constraintFlags, sps.size() > 2 ? sps[2] : 0U);
        ASSERT_EQ(info.levelIdc, sps.size() > 3 ? sps[3] : 0U);
        ASSERT_EQ(info.width % 16, 0U);
        ASSERT_EQ(info.height % 16, 0U);
    }
}
