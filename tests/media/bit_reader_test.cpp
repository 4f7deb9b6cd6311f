#include "media/bit_reader.h"
#include "tests/media/bits.h"

#include <random>

namespace {

BitStructure ReaderOver(const ExactBytes &bytes)
{
    BitStructure bits;
    BitStructureInit(&bits, bytes.data(), bytes.size());
    return bits;
}

uint32_t UeOf(const std::string &text)
{
    const ExactBytes bytes(BitWriter().text(text).bytes());
    BitStructure bits = ReaderOver(bytes);
    return BitStructureReadUe(&bits);
}

int32_t SeOf(const std::string &text)
{
    const ExactBytes bytes(BitWriter().text(text).bytes());
    BitStructure bits = ReaderOver(bytes);
    return BitStructureReadSe(&bits);
}

const std::string kZeros31(31, '0');
const std::string kZeros32(32, '0');

} // namespace

TEST(BitReader, StartsAtTheTopBitOfTheFirstByte)
{
    const ExactBytes bytes(Bytes{0x80, 0x01});
    const BitStructure bits = ReaderOver(bytes);
    EXPECT_EQ(bits.start, bytes.data());
    EXPECT_EQ(bits.cur, bytes.data());
    EXPECT_EQ(bits.end, bytes.data() + 2);
    EXPECT_EQ(bits.bitsLeft, 8);
}

TEST(BitReader, ReadsMostSignificantBitsFirstAcrossBytes)
{
    const ExactBytes bytes(Bytes{0xA5, 0x3C, 0xFF, 0x00, 0x81, 0x7E});
    BitStructure bits = ReaderOver(bytes);
    EXPECT_EQ(BitStructureRead(&bits, 3), 5U);           // 101
    EXPECT_EQ(BitStructureRead(&bits, 7), 0x14U);        // 00101 00
    EXPECT_EQ(BitStructureRead(&bits, 0), 0U);           //
    EXPECT_EQ(BitStructureRead(&bits, 6), 0x3CU);        // 111100
    EXPECT_EQ(bits.cur, bytes.data() + 2);               //
    EXPECT_EQ(bits.bitsLeft, 8);                         //
    EXPECT_EQ(BitStructureRead(&bits, 32), 0xFF00817EU); // the rest
    EXPECT_EQ(bits.cur, bits.end);
}

TEST(BitReader, ReadsThirtyTwoBitsFromTheMiddleOfAByte)
{
    const ExactBytes bytes(Bytes{0xF1, 0x23, 0x45, 0x67, 0x8F});
    BitStructure bits = ReaderOver(bytes);
    EXPECT_EQ(BitStructureRead(&bits, 4), 0xFU);
    EXPECT_EQ(BitStructureRead(&bits, 32), 0x12345678U);
    EXPECT_EQ(bits.bitsLeft, 4);
}

TEST(BitReader, WhatTheEndCutsOffStandsAtTheTopOfTheResult)
{
    const ExactBytes bytes(Bytes{0xAB});
    BitStructure bits = ReaderOver(bytes);
    EXPECT_EQ(BitStructureRead(&bits, 16), 0xAB00U);
    EXPECT_EQ(BitStructureRead(&bits, 16), 0U);
    EXPECT_EQ(BitStructureReadOne(&bits), 0U);
    EXPECT_EQ(bits.cur, bits.end);
}

TEST(BitReader, ReadsSingleBits)
{
    const ExactBytes bytes(Bytes{0xB0, 0x80});
    BitStructure bits = ReaderOver(bytes);
    std::string read;
    for (int i = 0; i < 9; i++) {
        read += BitStructureReadOne(&bits) != 0 ? '1' : '0';
    }
    EXPECT_EQ(read, "101100001");
    EXPECT_EQ(bits.bitsLeft, 7);
}

TEST(BitReader, SkipsWithinAByteToItsEndAndAcrossSeveral)
{
    const ExactBytes bytes(Bytes{0x00, 0x11, 0x22, 0x33, 0x4F});
    BitStructure bits = ReaderOver(bytes);
    BitStructureSkip(&bits, 3);
    EXPECT_EQ(bits.cur, bytes.data());
    EXPECT_EQ(bits.bitsLeft, 5);
    BitStructureSkip(&bits, 5);
    EXPECT_EQ(bits.cur, bytes.data() + 1);
    EXPECT_EQ(bits.bitsLeft, 8);
    BitStructureSkip(&bits, 26);
    EXPECT_EQ(bits.cur, bytes.data() + 4);
    EXPECT_EQ(bits.bitsLeft, 6);
    EXPECT_EQ(BitStructureRead(&bits, 6), 0x0FU);
}

TEST(BitReader, ASkipBeyondTheEndRestsThereAndReadsNothing)
{
    const ExactBytes bytes(Bytes{0xFF, 0xFF});
    for (const int32_t n : {16, 17, 1000, INT32_MAX}) {
        BitStructure bits = ReaderOver(bytes);
        BitStructureSkip(&bits, n);
        EXPECT_EQ(bits.bitsLeft, 8) << n;
        BitStructureSkip(&bits, n);
        EXPECT_EQ(bits.cur, bits.end) << n;
        EXPECT_EQ(BitStructureReadOne(&bits), 0U);
        EXPECT_EQ(BitStructureRead(&bits, 32), 0U);
    }
}

TEST(BitReader, ASkipOfNothingOrBackwardsMovesNothing)
{
    const ExactBytes bytes(Bytes{0xFF});
    BitStructure bits = ReaderOver(bytes);
    BitStructureSkip(&bits, 0);
    BitStructureSkip(&bits, -5);
    EXPECT_EQ(bits.cur, bytes.data());
    EXPECT_EQ(bits.bitsLeft, 8);
}

TEST(ExpGolomb, UnsignedCodesOfTheStandardsTable)
{
    EXPECT_EQ(UeOf("1"), 0U);
    EXPECT_EQ(UeOf("010"), 1U);
    EXPECT_EQ(UeOf("011"), 2U);
    EXPECT_EQ(UeOf("00100"), 3U);
    EXPECT_EQ(UeOf("00111"), 6U);
    EXPECT_EQ(UeOf("0001000"), 7U);
    EXPECT_EQ(UeOf("000010001"), 16U);
}

TEST(ExpGolomb, SignedCodesAlternateAroundZero)
{
    EXPECT_EQ(SeOf("1"), 0);
    EXPECT_EQ(SeOf("010"), 1);
    EXPECT_EQ(SeOf("011"), -1);
    EXPECT_EQ(SeOf("00100"), 2);
    EXPECT_EQ(SeOf("00101"), -2);
}

TEST(ExpGolomb, TheLongestCodesAreTruncatedToThirtyTwoBits)
{
    EXPECT_EQ(UeOf(kZeros31 + "1" + std::string(31, '1')), 0xFFFFFFFEU);
    EXPECT_EQ(UeOf(kZeros32 + "1" + kZeros32), 0xFFFFFFFFU);
    EXPECT_EQ(UeOf(kZeros32 + "1" + std::string(29, '0') + "101"), 4U); // 2^32 + 5 - 1
    EXPECT_EQ(SeOf(kZeros31 + "1" + std::string(31, '1')), -INT32_MAX);
    EXPECT_EQ(SeOf(kZeros32 + "1" + kZeros32), INT32_MIN); // 2^31
}

TEST(ExpGolomb, APrefixOfMoreThanThirtyTwoZerosStopsAtTheThirtyThird)
{
    const ExactBytes bytes(BitWriter().text(kZeros32 + "0").u(32, 0x12345679).u(7, 0x55).bytes());
    BitStructure bits = ReaderOver(bytes);
    EXPECT_EQ(BitStructureReadUe(&bits), 0x12345678U);
    EXPECT_EQ(BitStructureRead(&bits, 7), 0x55U);
}

TEST(ExpGolomb, APrefixCutByTheEndCountsTheZerosBeforeItsLast)
{
    EXPECT_EQ(UeOf("00000000"), 127U);        // seven counted, nothing behind them
    EXPECT_EQ(UeOf("00000001"), 127U);        // complete prefix, suffix gone
    EXPECT_EQ(UeOf("0000001 1"), 63U + 0x20); // the one suffix bit that is there stands at its top
    const ExactBytes none(Bytes{});
    BitStructure bits = ReaderOver(none);
    EXPECT_EQ(BitStructureReadUe(&bits), 0U);
    EXPECT_EQ(BitStructureReadSe(&bits), 0);
}

TEST(ExpGolomb, ReadsBackEveryValueThatAnIndependentWriterWrote)
{
    std::mt19937 random(7);
    for (int round = 0; round < 2000; round++) {
        const uint32_t value = static_cast<uint32_t>(random()) >> random() % 32;
        const int32_t sign = static_cast<int32_t>(value / 2) * (round % 2 == 0 ? 1 : -1);
        const int lead = static_cast<int>(random() % 8);
        const ExactBytes bytes(BitWriter().u(lead, 0x7F).ue(value).se(sign).u(3, 5).bytes());
        BitStructure bits = ReaderOver(bytes);
        BitStructureSkip(&bits, lead);
        ASSERT_EQ(BitStructureReadUe(&bits), value);
        ASSERT_EQ(BitStructureReadSe(&bits), sign);
        ASSERT_EQ(BitStructureRead(&bits, 3), 5U);
    }
}
