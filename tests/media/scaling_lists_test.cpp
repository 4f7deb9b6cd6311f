#include "media/scaling_lists.h"
#include "tests/media/bits.h"

namespace {

// The standard's default lists as runs of equal values along the zig-zag (tables 7-3 and 7-4).
Bytes Runs(const std::vector<std::pair<int, int>> &valuesAndCounts)
{
    Bytes out;
    for (const auto &[value, count] : valuesAndCounts) {
        out.insert(out.end(), static_cast<size_t>(count), static_cast<uint8_t>(value));
    }
    return out;
}

const Bytes kIntra4 = Runs({{6, 1}, {13, 2}, {20, 3}, {28, 4}, {32, 3}, {37, 2}, {42, 1}});
const Bytes kInter4 = Runs({{10, 1}, {14, 2}, {20, 3}, {24, 4}, {27, 3}, {30, 2}, {34, 1}});
const Bytes kIntra8 = Runs({{6, 1},
                            {10, 2},
                            {13, 1},
                            {11, 1},
                            {13, 1},
                            {16, 4},
                            {18, 5},
                            {23, 6},
                            {25, 7},
                            {27, 8},
                            {29, 7},
                            {31, 6},
                            {33, 5},
                            {36, 4},
                            {38, 3},
                            {40, 2},
                            {42, 1}});
const Bytes kInter8 = Runs({{9, 1},
                            {13, 2},
                            {15, 1},
                            {13, 1},
                            {15, 1},
                            {17, 4},
                            {19, 5},
                            {21, 6},
                            {22, 7},
                            {24, 8},
                            {25, 7},
                            {27, 6},
                            {28, 5},
                            {30, 4},
                            {32, 3},
                            {33, 2},
                            {35, 1}});

// Walks the diagonals of a square, turning at its edges: first right, then down-left.
std::vector<int> ZigZag(int side)
{
    std::vector<int> out;
    for (int diagonal = 0; diagonal < 2 * side - 1; diagonal++) {
        for (int step = 0; step <= diagonal; step++) {
            const int y = diagonal % 2 == 1 ? step : diagonal - step;
            const int x = diagonal - y;
            if (x < side && y < side) {
                out.push_back(y * side + x);
            }
        }
    }
    return out;
}

struct Matrices {
    Bytes lists4x4 = Bytes(LISTS_4X4_LEN, 0xEE);
    Bytes lists8x8 = Bytes(LISTS_8X8_LEN, 0xEE);
    size_t bitsUsed = 0;

    Bytes four(size_t i) const
    {
        return Bytes(lists4x4.begin() + 16 * static_cast<std::ptrdiff_t>(i),
                     lists4x4.begin() + 16 * static_cast<std::ptrdiff_t>(i + 1));
    }
    Bytes eight(size_t i) const
    {
        return Bytes(lists8x8.begin() + 64 * static_cast<std::ptrdiff_t>(i),
                     lists8x8.begin() + 64 * static_cast<std::ptrdiff_t>(i + 1));
    }
};

size_t BitsUsed(const BitStructure &bits)
{
    return static_cast<size_t>(bits.cur - bits.start) * 8 + static_cast<size_t>(8 - bits.bitsLeft);
}

Matrices Decode(const BitWriter &written)
{
    const ExactBytes bytes(written.bytes());
    BitStructure bits;
    BitStructureInit(&bits, bytes.data(), bytes.size());
    Matrices out;
    DecodeScalingMatrices(&bits, out.lists4x4.data(), out.lists8x8.data());
    out.bitsUsed = BitsUsed(bits);
    return out;
}

Bytes DecodeOne(const BitWriter &written, int32_t size)
{
    const ExactBytes bytes(written.bytes());
    BitStructure bits;
    BitStructureInit(&bits, bytes.data(), bytes.size());
    Bytes list(static_cast<size_t>(size), 0xEE);
    const Bytes defaults(static_cast<size_t>(size), 0xD0);
    const Bytes fallback(static_cast<size_t>(size), 0xFA);
    DecodeScalingList(&bits, list.data(), size, defaults.data(), fallback.data());
    return list;
}

} // namespace

TEST(ScalingMatrices, WithoutTheFlagOneBitIsReadAndNothingWritten)
{
    const Matrices out = Decode(BitWriter().text("0111 1111"));
    EXPECT_EQ(out.bitsUsed, 1U);
    EXPECT_EQ(out.lists4x4, Bytes(LISTS_4X4_LEN, 0xEE));
    EXPECT_EQ(out.lists8x8, Bytes(LISTS_8X8_LEN, 0xEE));
}

TEST(ScalingMatrices, AbsentListsAreTheStandardsDefaults)
{
    const Matrices out = Decode(BitWriter().text("1 000000 00 1111111"));
    EXPECT_EQ(out.bitsUsed, 9U);
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(out.four(i), kIntra4) << i;
        EXPECT_EQ(out.four(i + 3), kInter4) << i;
    }
    EXPECT_EQ(out.eight(0), kIntra8);
    EXPECT_EQ(out.eight(1), kInter8);
}

TEST(ScalingMatrices, AnAbsentListCopiesTheOneBeforeItAmongItsOwnKind)
{
    BitWriter written;
    written.text("1 1").se(1);         // list 0: 9, then
    for (int j = 1; j < 16; j++) {     // 9 for the rest
        written.se(0);                 //
    }                                  //
    written.text("0 0").text("1");     // 1 and 2 absent, 3:
    written.se(-8);                    // the default
    written.text("0 1").se(2).se(-10); // 4 absent, 5: 10 throughout
    written.text("1").se(-8).text("0");
    const Matrices out = Decode(written);
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(out.four(i), Bytes(16, 9)) << i;
    }
    EXPECT_EQ(out.four(3), kInter4);
    EXPECT_EQ(out.four(4), kInter4);
    EXPECT_EQ(out.four(5), Bytes(16, 10));
    EXPECT_EQ(out.eight(0), kIntra8);
    EXPECT_EQ(out.eight(1), kInter8);
    EXPECT_EQ(out.bitsUsed, written.count());
}

TEST(ScalingMatrices, TheInterListsDoNotFallBackToTheIntraOnes)
{
    BitWriter written;
    written.text("1 1").se(1).se(-9).text("00 000 1").se(3).se(-11).text("0");
    const Matrices out = Decode(written);
    EXPECT_EQ(out.four(2), Bytes(16, 9));
    EXPECT_EQ(out.four(3), kInter4);
    EXPECT_EQ(out.eight(0), Bytes(64, 11));
    EXPECT_EQ(out.eight(1), kInter8);
}

TEST(ScalingList, AnAbsentListIsTheFallback)
{
    EXPECT_EQ(DecodeOne(BitWriter().text("0"), 16), Bytes(16, 0xFA));
    EXPECT_EQ(DecodeOne(BitWriter().text("0"), 64), Bytes(64, 0xFA));
}

TEST(ScalingList, AFirstValueOfZeroMeansTheDefault)
{
    EXPECT_EQ(DecodeOne(BitWriter().text("1").se(-8), 16), Bytes(16, 0xD0));
    EXPECT_EQ(DecodeOne(BitWriter().text("1").se(248), 64), Bytes(64, 0xD0)); // 8 + 248 wraps to 0
}

TEST(ScalingList, EntriesGoToTheirRasterPositions)
{
    BitWriter four;
    four.text("1").se(-7);
    for (int j = 1; j < 16; j++) {
        four.se(1);
    }
    EXPECT_EQ(DecodeOne(four, 16), (Bytes{1, 2, 6, 7, 3, 5, 8, 13, 4, 9, 12, 14, 10, 11, 15, 16}));

    BitWriter eight;
    eight.text("1").se(-7);
    for (int j = 1; j < 64; j++) {
        eight.se(1);
    }
    const Bytes list = DecodeOne(eight, 64);
    const std::vector<int> scan = ZigZag(8);
    ASSERT_EQ(scan.size(), 64U);
    for (size_t j = 0; j < 64; j++) {
        EXPECT_EQ(list[static_cast<size_t>(scan[j])], j + 1) << j;
    }
}

TEST(ScalingList, AZeroInTheMiddleRepeatsTheLastEntryToTheEnd)
{
    const Bytes list = DecodeOne(BitWriter().text("1").se(-7).se(4).se(-5), 16); // 1, 5, 0
    EXPECT_EQ(list, (Bytes{1, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5}));
}

TEST(ScalingList, ValuesWrapAtTwoHundredFiftySix)
{
    const Bytes list = DecodeOne(BitWriter().text("1").se(250).se(-7).se(5), 16); // 2, 251, 0
    EXPECT_EQ(list[0], 2);
    EXPECT_EQ(list[1], 251);
    EXPECT_EQ(list[15], 251);
}

TEST(ScalingList, ADataEndInTheMiddleLeavesAWholeList)
{
    const Bytes list =
        DecodeOne(BitWriter().text("1 010 010 1"), 16); // 9, 10, 10, and no more bits: deltas of 0
    EXPECT_EQ(list, (Bytes{9, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10}));
}
