#include "media/sequence_parameters.h"
#include "tests/media/media_fixture.h"

#include <random>

namespace {

const SequenceParameters kUntouched = {91, 92, 93, 94, 95};

struct ReadResult {
    int status;
    SequenceParameters read;
};

ReadResult ReadExact(const Bytes &sps)
{
    const ExactBytes exact(sps);
    SequenceParameters out = kUntouched;
    const int status = ReadSequenceParameters(exact.data(), static_cast<uint32_t>(exact.size()), &out);
    return {status, out};
}

// "1920x1080 4:2:0 8/8", or "broken" when nothing was written.
std::string Summary(const Bytes &sps)
{
    const char *const formats[] = {"4:0:0", "4:2:0", "4:2:2", "4:4:4"};
    const ReadResult parsed = ReadExact(sps);
    const SequenceParameters &read = parsed.read;
    if (parsed.status != 0) {
        EXPECT_EQ(parsed.status, -1);
        EXPECT_EQ(memcmp(&read, &kUntouched, sizeof read), 0);
        return "broken";
    }
    return std::to_string(read.Width) + "x" + std::to_string(read.Height) + " " +
           formats[read.ChromaFormatIdc] + " " + std::to_string(read.BitDepthLumaMinus8 + 8) + "/" +
           std::to_string(read.BitDepthChromaMinus8 + 8);
}

// The NAL header, profile_idc, constraint flags 0, level_idc 40 and seq_parameter_set_id 0.
BitWriter SpsBitsOf(int profile)
{
    BitWriter written;
    written.u(8, 0x67).u(8, static_cast<uint64_t>(profile)).u(8, 0).u(8, 40).ue(0);
    return written;
}

BitWriter ChromaBitsOf(int profile, uint64_t format, uint64_t luma = 0, uint64_t chroma = 0)
{
    BitWriter written = SpsBitsOf(profile);
    written.ue(format);
    if (format == 3) {
        written.text("0"); // no separate planes
    }
    return written.ue(luma).ue(chroma).text("0"); // the scaling flag is the caller's
}

struct Picture {
    uint64_t mbsWide;
    uint64_t mapUnitsHigh;
    bool framesOnly = true;
    std::vector<uint64_t> cropping = {}; // left, right, top, bottom
};

// From log2_max_frame_num_minus4 on: picture order count type 2, four reference frames, no VUI.
BitWriter &Put(BitWriter &written, const Picture &picture)
{
    written.ue(0).ue(2).ue(4).text("0").ue(picture.mbsWide - 1).ue(picture.mapUnitsHigh - 1);
    written.text(picture.framesOnly ? "1 1" : "0 0 1");
    written.text(picture.cropping.empty() ? "0" : "1");
    for (const uint64_t side : picture.cropping) {
        written.ue(side);
    }
    return written.text("0 1");
}

Bytes With(BitWriter written, const Picture &picture)
{
    return Escaped(Put(written, picture).bytes());
}

const Picture kCropped1080 = {120, 68, true, {0, 0, 0, 4}};

// A scaling list of `size` entries that all differ from the one before.
void PutLongList(BitWriter &written, int size)
{
    written.text("1");
    for (int i = 0; i < size; i++) {
        written.se(i % 2 == 0 ? 3 : -2);
    }
}

} // namespace

// x264's, of real encodings, with croppings, VUI and emulation prevention bytes behind the size.
TEST(SequenceParameters, ParameterSetsOfX264)
{
    const Bytes high1080 = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5, 0xC0,
                            0x44, 0x00, 0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x3C};
    const Bytes interlaced1080 = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x04, 0x4F, 0xDE,
                                  0x02, 0x20, 0x00, 0x00, 0x03, 0x00, 0x20, 0x00, 0x00, 0x06, 0x43};
    EXPECT_EQ(Summary(high1080), "1920x1080 4:2:0 8/8");
    EXPECT_EQ(Summary(interlaced1080), "1920x1080 4:2:0 8/8");
    const Bytes high422 =
        Hex("67 7A 00 28 B6 CB 40 3C 01 13 F1 38 08 80 00 00 03 00 80 00 00 19 07 8C 19 50");
    const Bytes high444 =
        Hex("67 F4 00 1E 90 D9 68 0A 42 FE 3E 7C 04 40 00 00 03 00 40 00 00 0C 83 C5 8B A8"); // 10 bits
    const Bytes monochrome =
        Hex("67 64 00 0D F2 D0 2A 10 F1 F1 F8 0B 64 00 00 03 00 40 00 00 03 00 C8 3C 50 AA 80");
    const Bytes intra10 = // AVC-Intra class 50: interlaced, with matrices
        Hex("676E1028A6D42032330C7118886210191986388C44302102564E6E61873E734D980C03069C0B73E6"
            "C0B518630D39E05B02D4C6191A798C323424F0168113F787080000030008000003019420");
    EXPECT_EQ(Summary(high422), "1920x1080 4:2:2 10/10");
    EXPECT_EQ(Summary(high444), "642x362 4:4:4 10/10");
    EXPECT_EQ(Summary(monochrome), "322x242 4:0:0 8/8");
    EXPECT_EQ(Summary(intra10), "1440x1080 4:2:0 10/10");
    EXPECT_EQ(Summary(kSps25), "1280x720 4:2:0 8/8");
    EXPECT_EQ(Summary(kSps720), "1280x720 4:2:0 8/8");
}

// By hand: 1 1 011 00101 0 | 0000001111000 (119) | 0000001000100 (67) | 1 1 | 1: 1 1 1 00101 (4) | 0 1
TEST(SequenceParameters, A1080PictureIsCutOutOf1088Lines)
{
    const Bytes byHand = {0x67, 0x4D, 0x00, 0x28, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5, 0x40};
    EXPECT_EQ(Summary(byHand), "1920x1080 4:2:0 8/8");
    EXPECT_EQ(Summary(With(SpsBitsOf(77), {120, 68})), "1920x1088 4:2:0 8/8");
    EXPECT_EQ(Summary(With(ChromaBitsOf(100, 1).text("0"), kCropped1080)), "1920x1080 4:2:0 8/8");
}

TEST(SequenceParameters, EverySideIsCroppedInUnitsOfTheChromaFormat)
{
    struct Row {
        uint64_t format;
        bool framesOnly;
        const char *size;
    };
    // 16 by 8 macroblocks, or 8 map units of two; cropped by 1 + 2 and 3 + 5 units
    const Row rows[] = {
        {0, true, "253x120 4:0:0 8/8"},  {0, false, "253x240 4:0:0 8/8"}, {1, true, "250x112 4:2:0 8/8"},
        {1, false, "250x224 4:2:0 8/8"}, {2, true, "250x120 4:2:2 8/8"},  {2, false, "250x240 4:2:2 8/8"},
        {3, true, "253x120 4:4:4 8/8"},  {3, false, "253x240 4:4:4 8/8"},
    };
    for (const Row &row : rows) {
        const Picture picture = {16, 8, row.framesOnly, {1, 2, 3, 5}};
        EXPECT_EQ(Summary(With(ChromaBitsOf(244, row.format).text("0"), picture)), row.size);
    }
}

TEST(SequenceParameters, SeparateColourPlanesAreCroppedLikeOneAlone)
{
    BitWriter written = SpsBitsOf(244);
    written.ue(3).text("1").ue(0).ue(0).text("0 0");
    EXPECT_EQ(Summary(With(written, {16, 8, true, {1, 2, 3, 5}})), "253x120 4:4:4 8/8");
}

TEST(SequenceParameters, AnInterlacedPictureIsCroppedInPairsOfLines)
{
    EXPECT_EQ(Summary(With(SpsBitsOf(77), {120, 34, false, {0, 0, 0, 2}})), "1920x1080 4:2:0 8/8");
    EXPECT_EQ(Summary(With(SpsBitsOf(77), {45, 18, false})), "720x576 4:2:0 8/8");
    EXPECT_EQ(Summary(With(ChromaBitsOf(122, 2, 2, 2).text("0"), {120, 34, false, {0, 0, 0, 4}})),
              "1920x1080 4:2:2 10/10");
}

TEST(SequenceParameters, ChromaFormatAndBitDepths)
{
    EXPECT_EQ(Summary(With(ChromaBitsOf(110, 1, 2, 2).text("0"), {20, 15})), "320x240 4:2:0 10/10");
    EXPECT_EQ(Summary(With(ChromaBitsOf(244, 3, 6, 4).text("0"), {20, 15})), "320x240 4:4:4 14/12");
    EXPECT_EQ(Summary(With(ChromaBitsOf(100, 0).text("0"), {20, 15})), "320x240 4:0:0 8/8");
}

TEST(SequenceParameters, FourteenProfilesHaveChromaFieldsAndNoOtherHas)
{
    const std::vector<int> with = {44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 144, 244};
    for (int profile = 0; profile < 256; profile++) {
        const bool has = std::find(with.begin(), with.end(), profile) != with.end();
        EXPECT_EQ(HasChromaFormat(static_cast<uint32_t>(profile)), has) << profile;
        const BitWriter written = has ? ChromaBitsOf(profile, 2).text("0") : SpsBitsOf(profile);
        EXPECT_EQ(Summary(With(written, {80, 45})), has ? "1280x720 4:2:2 8/8" : "1280x720 4:2:0 8/8")
            << profile;
    }
    EXPECT_FALSE(HasChromaFormat(100 + 256));
}

TEST(SequenceParameters, ScalingListsOfEveryLength)
{
    BitWriter written = ChromaBitsOf(100, 1).text("1");
    PutLongList(written, 16);
    written.text("0").text("1").se(-8); // left out; the default one
    PutLongList(written, 16);
    written.text("1").se(4).se(-12).text("0"); // 12, then 0: the rest repeats it
    PutLongList(written, 64);
    written.text("1");
    for (int i = 0; i < 63; i++) {
        written.se(1);
    }
    written.se(-71); // 71, then 0 at the last entry
    EXPECT_EQ(Summary(With(written, kCropped1080)), "1920x1080 4:2:0 8/8");
}

TEST(SequenceParameters, AScaleGoesRoundAt256)
{
    BitWriter written = ChromaBitsOf(100, 1).text("1");
    written.text("1").se(127).se(121); // 135, then 256: that is 0, and the end of the list
    written.text("1").se(-128);        // 136
    for (int i = 1; i < 16; i++) {
        written.se(i % 2 == 0 ? -128 : 127);
    }
    written.text("0000 00");
    EXPECT_EQ(Summary(With(written, {20, 15})), "320x240 4:2:0 8/8");
    BitWriter tooFar = ChromaBitsOf(100, 1).text("1").text("1").se(128);
    EXPECT_EQ(Summary(With(tooFar.text("1111 1111 1111 1111 000 0000"), {20, 15})), "broken");
}

TEST(SequenceParameters, FourFourFourHasTwelveScalingListsAndTheOthersEight)
{
    for (const int lists : {8, 12}) {
        BitWriter written = ChromaBitsOf(244, lists == 12 ? 3 : 2).text("1");
        for (int i = 0; i < lists; i++) {
            PutLongList(written, i < 6 ? 16 : 64);
        }
        EXPECT_EQ(Summary(With(written, kCropped1080)),
                  lists == 12 ? "1920x1084 4:4:4 8/8" : "1920x1084 4:2:2 8/8");
    }
    BitWriter flags = ChromaBitsOf(44, 3).text("1").text("0000 0000 0000");
    EXPECT_EQ(Summary(With(flags, {80, 45})), "1280x720 4:4:4 8/8");
    BitWriter old = ChromaBitsOf(144, 3).text("1").text("0000 0000"); // as the edition of 2005 has it
    EXPECT_EQ(Summary(With(old, {80, 45})), "1280x720 4:4:4 8/8");
}

// Offsets of millions, as an encoder with picture order count type 1 may write them, bring zero bytes in
// front of the size.
TEST(SequenceParameters, EmulationPreventionBytesInFrontOfTheSizeAreLeftOut)
{
    BitWriter written = SpsBitsOf(66);
    written.ue(0).ue(1).text("1").se(-4194304).se(8388608).ue(3).se(1 << 24).se(0).se(-(1 << 25));
    written.ue(2).text("0").ue(119).ue(67).text("1 1 1").ue(0).ue(0).ue(0).ue(4).text("0 1");
    const Bytes rbsp = written.bytes();
    const Bytes nal = Escaped(rbsp);
    ASSERT_GT(nal.size(), rbsp.size() + 2);
    EXPECT_EQ(Summary(nal), "1920x1080 4:2:0 8/8");
    EXPECT_NE(Summary(rbsp), "broken"); // nothing there is taken for one
}

// kSps720 with constraint flags and level 0: 00 00 is followed by 03, and then by the same bits.
TEST(SequenceParameters, AnEmulationPreventionByteBehindTheLevelIsLeftOut)
{
    EXPECT_EQ(Summary({0x67, 0x42, 0x00, 0x00, 0x03, 0xDA, 0x01, 0x40, 0x16, 0xE4}), "1280x720 4:2:0 8/8");
    EXPECT_EQ(Summary({0x67, 0x42, 0x00, 0x01, 0x03, 0xDA, 0x01, 0x40, 0x16, 0xE4}), "broken");
}

TEST(SequenceParameters, PictureOrderCountsOfEveryType)
{
    BitWriter zero = SpsBitsOf(66);
    zero.ue(12).ue(0).ue(12).ue(2).text("0").ue(39).ue(29).text("1 1 0 0 1");
    EXPECT_EQ(Summary(zero.bytes()), "640x480 4:2:0 8/8");

    for (const int cycle : {0, 1, 255, 256}) {
        BitWriter one = SpsBitsOf(66);
        one.ue(0).ue(1).text("1").se(-3).se(0x7FFFFFFF).ue(static_cast<uint64_t>(cycle));
        for (int i = 0; i < cycle; i++) {
            one.se(-i);
        }
        one.ue(2).text("1").ue(39).ue(29).text("1 1 0 0 1");
        EXPECT_EQ(Summary(Escaped(one.bytes())), cycle < 256 ? "640x480 4:2:0 8/8" : "broken") << cycle;
    }

    BitWriter three = SpsBitsOf(66); // not in the standard
    three.ue(0).ue(3).ue(2).text("0").ue(39).ue(29).text("1 1 0 0 1");
    EXPECT_EQ(Summary(three.bytes()), "broken");
}

TEST(SequenceParameters, ValuesThatTheStandardRulesOutAreBroken)
{
    const Picture small = {20, 15};
    EXPECT_EQ(Summary(With(ChromaBitsOf(100, 4).text("0"), small)), "broken");
    EXPECT_EQ(Summary(With(ChromaBitsOf(100, 1, 7, 0).text("0"), small)), "broken");
    EXPECT_EQ(Summary(With(ChromaBitsOf(100, 1, 0, 7).text("0"), small)), "broken");
    BitWriter id;
    id.u(8, 0x67).u(8, 66).u(8, 0).u(8, 40).ue(32);
    EXPECT_EQ(Summary(With(id, small)), "broken");
    BitWriter frameNum = SpsBitsOf(66);
    frameNum.ue(13).ue(2).ue(4).text("0").ue(19).ue(14).text("1 1 0 0 1");
    EXPECT_EQ(Summary(frameNum.bytes()), "broken");
}

TEST(SequenceParameters, NoSizeIsBeyondTheHighestLevel)
{
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {1055, 1055})), "16880x16880 4:2:0 8/8");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {1056, 45})), "broken");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {80, 1056})), "broken");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {80, 527, false})), "1280x16864 4:2:0 8/8");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {80, 528, false})), "broken");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {0xFFFFFFFF, 0xFFFFFFFF})), "broken");
}

TEST(SequenceParameters, SomethingIsLeftByTheCropping)
{
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {1, 1, true, {0, 7, 7, 0}})), "2x2 4:2:0 8/8");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {1, 1, true, {1, 7, 0, 0}})), "broken");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {1, 1, true, {0, 0, 4, 4}})), "broken");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {80, 45, true, {0xFFFFFFFE, 2, 0, 0}})), "broken");
    EXPECT_EQ(Summary(With(SpsBitsOf(66), {80, 45, true, {0, 0, 16880, 16880}})), "broken");
}

TEST(SequenceParameters, ACutSpsIsBrokenAndAWholeOneIsNot)
{
    BitWriter lists = ChromaBitsOf(244, 3, 2, 2).text("1");
    for (int i = 0; i < 12; i++) {
        PutLongList(lists, i < 6 ? 16 : 64);
    }
    BitWriter offsets = SpsBitsOf(66);
    offsets.ue(0).ue(1).text("1").se(-4194304).se(8388608).ue(2).se(1 << 24).se(0).ue(2).text("0");
    offsets.ue(119).ue(67).text("1 1 1").ue(0).ue(0).ue(0).ue(4).text("0 1");
    for (const Bytes &sps : {With(lists, {16, 8, false, {1, 2, 3, 5}}), Escaped(offsets.bytes()),
                             With(SpsBitsOf(77), kCropped1080)}) {
        for (size_t cut = 0; cut < sps.size(); cut++) {
            // The last byte may hold the stop bit alone.
            if (cut + 1 < sps.size() || (sps.back() & 0x7F) != 0) {
                EXPECT_EQ(Summary(Slice(sps, 0, cut)), "broken") << cut << " of " << ToHex(sps);
            }
        }
        EXPECT_NE(Summary(sps), "broken");
    }
}

TEST(SequenceParameters, DamagedAndInventedOnesStayInsideAndYieldNoNonsense)
{
    std::mt19937 random(2606);
    BitWriter lists = ChromaBitsOf(244, 3, 2, 2).text("1");
    for (int i = 0; i < 12; i++) {
        PutLongList(lists, i < 6 ? 16 : 64);
    }
    const Bytes whole = With(lists, kCropped1080);
    size_t readable = 0;
    for (int round = 0; round < 30000; round++) {
        Bytes sps = round % 2 == 0 ? whole : Bytes(random() % 64);
        for (size_t i = 0; i < sps.size(); i++) {
            const bool invent = round % 2 != 0 && i != 1;
            sps[i] = static_cast<uint8_t>(invent ? random() & random() : sps[i]);
        }
        if (round % 2 == 0) {
            sps[random() % sps.size()] = static_cast<uint8_t>(random());
        } else if (sps.size() > 1) {
            sps[1] = static_cast<uint8_t>(random() % 2 == 0 ? 66 : 244);
        }
        const ReadResult parsed = ReadExact(sps);
        if (parsed.status != 0) {
            ASSERT_EQ(memcmp(&parsed.read, &kUntouched, sizeof kUntouched), 0);
            continue;
        }
        readable++;
        ASSERT_LE(parsed.read.Width - 1, 16879U);
        ASSERT_LE(parsed.read.Height - 1, 16879U);
        ASSERT_LE(parsed.read.ChromaFormatIdc, 3U);
        ASSERT_LE(parsed.read.BitDepthLumaMinus8, 6U);
        ASSERT_LE(parsed.read.BitDepthChromaMinus8, 6U);
    }
    EXPECT_GT(readable, 1000U); // both ends were reached
    EXPECT_LT(readable, 29000U);
}
