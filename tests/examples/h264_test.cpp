#include "common/h264.h"

#include <gtest/gtest.h>

namespace {

using Vector = std::vector<uint8_t>;

const ParameterSets kSets = {.sps = {0x67, 0x4D, 0x40, 0x1F}, .pps = {0x68, 0xE9}};

Vector accessUnit(const Vector &packet, NalFraming framing)
{
    Vector out;
    toAccessUnit(packet, framing, kSets, out);
    return out;
}

} // namespace

TEST(H264, AConfigurationRecordGivesTheLengthSizeAndTheFirstSets)
{
    const Vector record = {1,    0x4D, 0x40, 0x1F, 0xFD,                               // lengths of 2 bytes
                           0xE2, 0,    4,    0x67, 0x4D, 0x40, 0x1F, 0, 2, 0x67, 0x42, // two SPS
                           1,    0,    2,    0x68, 0xE9};
    NalFraming framing;
    const ParameterSets sets = parseExtradata(record, framing);
    EXPECT_EQ(framing.lengthSize, 2);
    EXPECT_EQ(sets.sps, kSets.sps);
    EXPECT_EQ(sets.pps, kSets.pps);
}

TEST(H264, AConfigurationRecordCutAnywhereGivesNoWrongSets)
{
    const Vector record = {1,    0x4D, 0x40, 0x1F, 0xFF, 0xE1, 0,    4,   0x67,
                           0x4D, 0x40, 0x1F, 1,    0,    2,    0x68, 0xE9};
    for (size_t length = 0; length < record.size(); ++length) {
        NalFraming framing;
        const ParameterSets sets = parseExtradata(Bytes(record).first(length), framing);
        EXPECT_TRUE(sets.sps.empty() || sets.sps == kSets.sps) << length;
        EXPECT_TRUE(sets.pps.empty()) << length;
    }
}

TEST(H264, StartCodesOfThreeAndFourBytesAndTrailingZerosAreTold)
{
    const Vector data = {0, 0, 0, 1, 0x67, 0x4D, 0x40, 0x1F, 0, 0, 1, 0x68, 0xE9, 0, 0};
    NalFraming framing;
    const ParameterSets sets = parseExtradata(data, framing);
    EXPECT_EQ(framing.lengthSize, 0);
    EXPECT_EQ(sets.sps, kSets.sps);
    EXPECT_EQ(sets.pps, kSets.pps);
}

TEST(H264, TheConfigurationForPlayersEndsWithAStartCode)
{
    EXPECT_EQ(annexBConfig(kSets),
              (Vector{0, 0, 0, 1, 0x67, 0x4D, 0x40, 0x1F, 0, 0, 0, 1, 0x68, 0xE9, 0, 0, 0, 1}));
}

TEST(H264, AnnexBBecomesFourByteLengthsWithoutDelimiters)
{
    const Vector packet = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x41, 0x9A, 0x02};
    EXPECT_EQ(accessUnit(packet, {0}), (Vector{0, 0, 0, 3, 0x41, 0x9A, 0x02}));
}

TEST(H264, ShortLengthsBecomeFourByteLengths)
{
    EXPECT_EQ(accessUnit({3, 0x65, 0x88, 0x84}, {1}), (Vector{0, 0, 0, 3, 0x65, 0x88, 0x84}));
}

TEST(H264, AKeyFrameBehindAnSeiGetsTheParameterSetsInFront)
{
    const Vector packet = {0, 0, 0, 2, 0x06, 0x05, 0, 0, 0, 2, 0x65, 0x88};
    EXPECT_EQ(accessUnit(packet, {4}), (Vector{0,    0, 0, 4, 0x67, 0x4D, 0x40, 0x1F, 0, 0, 0, 2,    0x68,
                                               0xE9, 0, 0, 0, 2,    0x06, 0x05, 0,    0, 0, 2, 0x65, 0x88}));
}

TEST(H264, AFrameBehindAnSeiThatIsNoKeyFrameStaysAsItIs)
{
    const Vector packet = {0, 0, 0, 2, 0x06, 0x05, 0, 0, 0, 2, 0x41, 0x9A};
    EXPECT_EQ(accessUnit(packet, {4}), packet);
}

TEST(H264, APacketWithoutASliceIsNoAccessUnit)
{
    EXPECT_TRUE(accessUnit({0, 0, 0, 2, 0x06, 0x05}, {4}).empty());
    EXPECT_TRUE(accessUnit({}, {4}).empty());
    EXPECT_TRUE(accessUnit({0, 0, 1}, {0}).empty());
}

TEST(H264, ALengthThatLiesIsCutToWhatIsThere)
{
    EXPECT_EQ(accessUnit({0xFF, 0xFF, 0xFF, 0xFF, 0x65, 0x88}, {4}), (Vector{0, 0, 0, 2, 0x65, 0x88}));
}
