#include "media/annex_b.h"
#include "support/calls.h"
#include "tests/media/media_fixture.h"

#include <random>

namespace {

const Bytes kShort = {0, 0, 1};

// What FindParameterSets and JoinParameterSets make of a configuration; empty: not found.
Bytes Strict(const Bytes &config)
{
    const ExactBytes exact(config);
    ParameterSetPair sets = {};
    if (!FindParameterSets(exact.data(), static_cast<uint32_t>(exact.size()), &sets)) {
        return {};
    }
    uint32_t length = 0;
    uint8_t *joined = JoinParameterSets(&sets, &length);
    const Bytes bytes(joined, joined + length);
    free(joined);
    return bytes;
}

Bytes StrictOf(const Bytes &sps, const Bytes &pps)
{
    return kStartCode + sps + kStartCode + pps + kStartCode;
}

} // namespace

TEST(AnnexB, StartCodesOfThreeAndFourBytes)
{
    const Bytes strict = StrictOf(kSps720, kPps5);
    for (const Bytes &first : {kShort, kStartCode}) {
        for (const Bytes &second : {kShort, kStartCode}) {
            const Bytes config = first + kSps720 + second + kPps5;
            EXPECT_EQ(Strict(config), strict);
            EXPECT_EQ(Strict(config + kShort), strict);
            EXPECT_EQ(Strict(config + kStartCode), strict);
            EXPECT_EQ(Strict(config + kShort + Hex("65 88 84")), strict);
            EXPECT_EQ(Strict(config + kStartCode + Hex("06 05 10")), strict);
        }
    }
    EXPECT_EQ(Strict(strict), strict);
}

TEST(AnnexB, ZeroBytesAroundAStartCodeAreNoPartOfANalUnit)
{
    const Bytes zeros = {0, 0, 0};
    const Bytes config =
        zeros + kStartCode + kSps720 + zeros + kStartCode + kPps5 + zeros + zeros + kShort + Hex("65 88");
    EXPECT_EQ(Strict(config), StrictOf(kSps720, kPps5));
    EXPECT_EQ(Strict(kShort + kSps720 + kShort + kPps5 + zeros), StrictOf(kSps720, kPps5));
}

TEST(AnnexB, EmulationPreventionBytesStayIn)
{
    EXPECT_EQ(Strict(kShort + kSps25 + kShort + kPps4), StrictOf(kSps25, kPps4));
}

TEST(AnnexB, TheFirstOfEachIsTakenWhereverItIs)
{
    const Bytes other = {0x68, 0xEE, 0x80};
    EXPECT_EQ(Strict(kShort + Hex("09 10") + kShort + kPps4 + kShort + other + kShort + Hex("06 01 80") +
                     kShort + kSps720 + kShort + kSps25),
              StrictOf(kSps720, kPps4));
}

TEST(AnnexB, ParameterSetsAreReferenceNalUnits)
{
    const Bytes pps = kShort + kPps4;
    for (const uint8_t header : {0x07, 0xE7, 0x87, 0x65, 0x6F}) {
        Bytes sps = kSps720;
        sps[0] = header;
        EXPECT_EQ(Strict(kShort + sps + pps), Bytes{}) << int{header};
    }
    for (const uint8_t header : {0x27, 0x47, 0x67}) {
        Bytes sps = kSps720;
        sps[0] = header;
        EXPECT_EQ(Strict(kShort + sps + pps), StrictOf(sps, kPps4)) << int{header};
    }
}

TEST(AnnexB, WithoutBothNothingIsFound)
{
    EXPECT_EQ(Strict({}), Bytes{});
    EXPECT_EQ(Strict(kShort), Bytes{});
    EXPECT_EQ(Strict(kStartCode + kSps720), Bytes{});
    EXPECT_EQ(Strict(kStartCode + kPps4), Bytes{});
    EXPECT_EQ(Strict(kSps720 + kPps4), Bytes{});
    EXPECT_EQ(Strict(Hex("01 42C01F FF E1 0009 6742C01FDA014016E4 01 0004 68CE3C80")), Bytes{}); // avcC
}

TEST(AnnexB, WhatASequenceHeaderCannotHoldIsNotTaken)
{
    const auto sps = [](size_t length) { return Bytes{0x67} + Bytes(length - 1, 0xAA); };
    EXPECT_EQ(Strict(kShort + sps(0xFFFF) + kShort + kPps4), StrictOf(sps(0xFFFF), kPps4));
    EXPECT_EQ(Strict(kShort + sps(0x10000) + kShort + kPps4), Bytes{});
}

TEST(AnnexB, EveryCutStaysInside)
{
    const Bytes config = kShort + kSps25 + Bytes{0} + kShort + kPps5 + kShort;
    for (size_t cut = 0; cut <= config.size(); cut++) {
        const size_t pps = cut < 33 ? 0 : std::min<size_t>(cut - 32, 5); // 3 + 25 + 1 + 3
        EXPECT_EQ(Strict(Slice(config, 0, cut)), pps == 0 ? Bytes{} : StrictOf(kSps25, Slice(kPps5, 0, pps)))
            << cut;
    }
}

TEST(AnnexB, RandomZerosAndOnesStayInside)
{
    std::mt19937 random(1403);
    const uint8_t bytes[] = {0, 0, 0, 1, 1, 0x67, 0x68, 0x03};
    size_t found = 0;
    for (int round = 0; round < 20000; round++) {
        Bytes config(random() % 40);
        for (uint8_t &byte : config) {
            byte = bytes[random() % sizeof bytes];
        }
        const Bytes strict = Strict(config);
        found += !strict.empty();
        if (!strict.empty()) {
            ASSERT_EQ(Strict(strict), strict);
        }
    }
    EXPECT_GT(found, 100U);
}

TEST(AnnexB, WithoutMemoryNothingIsJoined)
{
    const ParameterSetPair sets = {kSps720.data(), 9, kPps4.data(), 4};
    uint32_t length = 77;
    calls::failNext(Call::Calloc);
    EXPECT_EQ(JoinParameterSets(&sets, &length), nullptr);
    EXPECT_EQ(length, 77U);
}
