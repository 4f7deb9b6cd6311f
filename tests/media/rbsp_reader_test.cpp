#include "media/rbsp_reader.h"
#include "tests/media/bits.h"

#include <initializer_list>

namespace {

constexpr uint32_t kAny = 0xFFFFFFFF;

struct Opened {
    explicit Opened(const Bytes &data)
        : bytes(data), bits(ReadRbspOf(bytes.data(), static_cast<uint32_t>(bytes.size())))
    {
    }
    ExactBytes bytes;
    RbspReader bits;
};

} // namespace

TEST(RbspReader, BitsComeMostSignificantFirst)
{
    Opened data({0xA5, 0x3C, 0xFF, 0x01, 0x80});
    EXPECT_EQ(ReadRbspBits(&data.bits, 4), 0xAU);
    EXPECT_EQ(ReadRbspBits(&data.bits, 8), 0x53U);
    EXPECT_TRUE(ReadRbspFlag(&data.bits));
    EXPECT_TRUE(ReadRbspFlag(&data.bits));
    EXPECT_FALSE(ReadRbspFlag(&data.bits));
    EXPECT_EQ(ReadRbspBits(&data.bits, 0), 0U);
    EXPECT_EQ(ReadRbspBits(&data.bits, 25), 0x0FF0180U & 0x1FFFFFFU);
    EXPECT_FALSE(data.bits.Broken);
}

TEST(RbspReader, ABitBehindTheLastBreaksItForGood)
{
    Opened data({0xFF});
    EXPECT_EQ(ReadRbspBits(&data.bits, 8), 0xFFU);
    EXPECT_FALSE(data.bits.Broken);
    EXPECT_FALSE(ReadRbspFlag(&data.bits));
    EXPECT_TRUE(data.bits.Broken);
    EXPECT_EQ(ReadRbspBits(&data.bits, 32), 0U);
    EXPECT_EQ(ReadRbspUe(&data.bits, kAny), 0U);
    EXPECT_EQ(ReadRbspSe(&data.bits, -9, 9), 0);
}

TEST(RbspReader, OfANumberThatIsCutNothingIsLeft)
{
    Opened data({0xFF});
    EXPECT_EQ(ReadRbspBits(&data.bits, 9), 0U);
    EXPECT_TRUE(data.bits.Broken);
    Opened nothing({});
    EXPECT_FALSE(ReadRbspFlag(&nothing.bits));
    EXPECT_TRUE(nothing.bits.Broken);
}

TEST(RbspReader, EmulationPreventionBytesAreLeftOut)
{
    const std::vector<std::pair<Bytes, Bytes>> rows = {
        {{0, 0, 3, 1}, {0, 0, 1}},
        {{0, 0, 3, 0, 0, 3, 3}, {0, 0, 0, 0, 3}},
        {{1, 0, 0, 3, 3, 3}, {1, 0, 0, 3, 3}},
        {{0, 0, 3, 0, 3, 5}, {0, 0, 0, 3, 5}}, // one zero alone needs none
        {{0, 3, 0, 0, 3}, {0, 3, 0, 0}},       // at the very end
        {{0, 0, 0, 3, 7}, {0, 0, 0, 7}},       // not allowed, and read all the same
    };
    for (const auto &[nal, rbsp] : rows) {
        SCOPED_TRACE(ToHex(nal));
        Opened data(nal);
        Bytes read;
        for (size_t i = 0; i < rbsp.size(); i++) {
            read.push_back(static_cast<uint8_t>(ReadRbspBits(&data.bits, 8)));
        }
        EXPECT_EQ(read, rbsp);
        EXPECT_FALSE(data.bits.Broken);
        EXPECT_FALSE(ReadRbspFlag(&data.bits));
        EXPECT_TRUE(data.bits.Broken);
    }
}

TEST(RbspReader, ExpGolombValuesAcrossTheRange)
{
    for (const uint64_t value :
         std::initializer_list<uint64_t>{0, 1, 2, 3, 254, 255, 65535, 0x7FFFFFFF, 0xFFFFFFFE}) {
        BitWriter written;
        written.text("1 010").ue(value).text("011");
        Opened data(Escaped(written.bytes()));
        EXPECT_EQ(ReadRbspUe(&data.bits, kAny), 0U);
        EXPECT_EQ(ReadRbspUe(&data.bits, kAny), 1U);
        EXPECT_EQ(ReadRbspUe(&data.bits, kAny), value);
        EXPECT_EQ(ReadRbspUe(&data.bits, kAny), 2U);
        EXPECT_FALSE(data.bits.Broken) << value;
    }
}

TEST(RbspReader, SignedValuesAlternate)
{
    BitWriter written;
    for (const int64_t value : {0, 1, -1, 2, -2, 0x7FFFFFFF, -0x7FFFFFFF}) {
        written.se(value);
    }
    Opened data(Escaped(written.bytes()));
    for (const int32_t value : {0, 1, -1, 2, -2, 0x7FFFFFFF, -0x7FFFFFFF}) {
        EXPECT_EQ(ReadRbspSe(&data.bits, -0x7FFFFFFF, 0x7FFFFFFF), value);
    }
    EXPECT_FALSE(data.bits.Broken);
}

TEST(RbspReader, AValueOutOfItsRangeBreaksIt)
{
    BitWriter written;
    written.ue(31).ue(32).text("1111");
    Opened data(written.bytes());
    EXPECT_EQ(ReadRbspUe(&data.bits, 31), 31U);
    EXPECT_FALSE(data.bits.Broken);
    EXPECT_EQ(ReadRbspUe(&data.bits, 31), 0U);
    EXPECT_TRUE(data.bits.Broken);
    EXPECT_FALSE(ReadRbspFlag(&data.bits));

    for (const int value : {-129, 128}) {
        BitWriter one;
        Opened signedData(one.se(value).text("1").bytes());
        EXPECT_EQ(ReadRbspSe(&signedData.bits, -128, 127), 0);
        EXPECT_TRUE(signedData.bits.Broken) << value;
    }
}

TEST(RbspReader, APrefixOf32ZerosIsNoValue)
{
    BitWriter written;
    Opened data(Escaped(written.u(32, 0).u(33, 1ULL << 32).u(31, 0x7FFFFFFF).bytes()));
    EXPECT_EQ(ReadRbspUe(&data.bits, kAny), 0U);
    EXPECT_TRUE(data.bits.Broken);
    Opened zeros(Bytes(100000, 0));
    EXPECT_EQ(ReadRbspUe(&zeros.bits, kAny), 0U);
    EXPECT_TRUE(zeros.bits.Broken);
    EXPECT_LE(zeros.bits.Next - zeros.bytes.data(), 5); // it does not look for the one any further
}
