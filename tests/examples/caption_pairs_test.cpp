// Text as pairs of line 21, against bytes worked out from the tables of ANSI/CTA-608-E.
#include "captions/cea608.h"

#include <gtest/gtest.h>

#include <bit>

namespace {

using Pairs = std::vector<CaptionPair>;

constexpr CaptionPair kRcl = {0x94, 0x20};
constexpr CaptionPair kEnm = {0x94, 0xAE};
constexpr CaptionPair kRow15 = {0x94, 0x70};
constexpr CaptionPair kRow14 = {0x94, 0xD0};
constexpr CaptionPair kRow13 = {0x13, 0x70};
constexpr CaptionPair kRow12 = {0x13, 0xD0};

// What one row loads behind RCL, ENM and its address.
Pairs textOf(const std::u32string &row)
{
    const Pairs pairs = loadingPairs({row});
    const Pairs start = {kRcl, kRcl, kEnm, kEnm, kRow15, kRow15};
    EXPECT_EQ(Pairs(pairs.begin(), pairs.begin() + 6), start);
    return {pairs.begin() + 6, pairs.end()};
}

std::vector<std::u32string> rowsOf(const std::string &text)
{
    const std::vector<CaptionRows> captions = layOutCaptions(text);
    return captions.size() == 1 ? captions[0] : std::vector<std::u32string>{};
}

} // namespace

TEST(CaptionPairs, EveryByteHasOddParity)
{
    for (int code = 0; code < 128; ++code) {
        const CaptionPair pair = pairOf(static_cast<uint8_t>(code), static_cast<uint8_t>(127 - code));
        EXPECT_EQ(std::popcount(pair.first) % 2, 1);
        EXPECT_EQ(std::popcount(pair.second) % 2, 1);
        EXPECT_EQ(pair.first & 0x7F, code);
    }
}

TEST(CaptionPairs, ControlCodesAreThoseOfTheFirstChannel)
{
    EXPECT_EQ(controlPair(CaptionControl::ResumeLoading), kRcl);
    EXPECT_EQ(controlPair(CaptionControl::EraseHidden), kEnm);
    EXPECT_EQ(controlPair(CaptionControl::EraseShown), (CaptionPair{0x94, 0x2C}));
    EXPECT_EQ(controlPair(CaptionControl::Flip), (CaptionPair{0x94, 0x2F}));
    EXPECT_TRUE(kRow12.isControl());
    EXPECT_FALSE((CaptionPair{0xC8, 0xE9}).isControl());
    EXPECT_FALSE(CaptionPair{}.isControl());
}

TEST(CaptionPairs, RowsStandAtTheBottomEachBehindItsAddress)
{
    const Pairs expected = {kRcl,         kRcl,   kEnm,   kEnm,         kRow12, kRow12,
                            {0xC1, 0x80}, kRow13, kRow13, {0xC2, 0x80}, kRow14, kRow14,
                            {0x43, 0x80}, kRow15, kRow15, {0xC8, 0xE9}};
    EXPECT_EQ(loadingPairs({U"A", U"B", U"C", U"Hi"}), expected);
}

TEST(CaptionPairs, BasicCharactersShareAPairAndAnOddOneIsFilledUp)
{
    EXPECT_EQ(textOf(U"Hi!"), (Pairs{{0xC8, 0xE9}, {0xA1, 0x80}}));
    EXPECT_EQ(textOf(U"á’"), (Pairs{{0x2A, 0xA7}}));
    EXPECT_EQ(textOf(U"ñ'"), (Pairs{{0xFE, 0xA7}}));
}

TEST(CaptionPairs, SpecialCharactersAreControlCodesSentTwice)
{
    EXPECT_EQ(textOf(U"A♪B"), (Pairs{{0xC1, 0x80}, {0x91, 0x37}, {0x91, 0x37}, {0xC2, 0x80}}));
    EXPECT_EQ(textOf(U"®"), (Pairs{{0x91, 0xB0}, {0x91, 0xB0}}));
}

// The code of an extended character erases the one in front of it.
TEST(CaptionPairs, ExtendedCharactersStandBehindOneThatOldDecodersShow)
{
    EXPECT_EQ(textOf(U"Ä"), (Pairs{{0xC1, 0x80}, {0x13, 0xB0}, {0x13, 0xB0}}));
    EXPECT_EQ(textOf(U"HÀ"), (Pairs{{0xC8, 0xC1}, {0x92, 0xB0}, {0x92, 0xB0}}));
}

TEST(CaptionPairs, WhatNoSetHasBecomesAQuestionMark)
{
    EXPECT_EQ(textOf(U"日`"), (Pairs{{0xBF, 0xBF}}));
}

TEST(CaptionRowsTest, LinesAreCutBetweenWords)
{
    EXPECT_EQ(rowsOf("one\ntwo"), (CaptionRows{U"one", U"two"}));
    EXPECT_EQ(rowsOf("The quick brown fox jumps over the lazy dog"),
              (CaptionRows{U"The quick brown fox jumps over", U"the lazy dog"}));
    // 32 columns, and a word that begins behind them
    EXPECT_EQ(rowsOf("12345678901234567890123456789012 x"),
              (CaptionRows{U"12345678901234567890123456789012", U"x"}));
}

TEST(CaptionRowsTest, AWordLongerThanARowIsCut)
{
    EXPECT_EQ(rowsOf(std::string(40, 'a')), (CaptionRows{std::u32string(32, U'a'), std::u32string(8, U'a')}));
}

TEST(CaptionRowsTest, MoreThanFourRowsAreSeveralCaptions)
{
    EXPECT_EQ(layOutCaptions("1\n2\n3\n4\n5"), (std::vector<CaptionRows>{{U"1", U"2", U"3", U"4"}, {U"5"}}));
    EXPECT_TRUE(layOutCaptions(" \n\n").empty());
}

TEST(CaptionRowsTest, BytesThatAreNoUtf8AreOneCharacterEach)
{
    EXPECT_EQ(rowsOf("a\xFF"
                     "b\xC3"),
              (CaptionRows{U"a\uFFFDb\uFFFD"}));
    EXPECT_EQ(rowsOf("\xE2\x99\xAA\t."), (CaptionRows{U"♪ ."}));
}
