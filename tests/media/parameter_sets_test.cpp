#include "media/parameter_sets.h"
#include "tests/media/media_fixture.h"

#include <algorithm>
#include <optional>
#include <random>

namespace {

using Extract = const uint8_t *(*)(RtmpSession *, const uint8_t *, int32_t, uint32_t *);

const Bytes kSps = {0x67, 0x42, 0x00, 0x1E, 0xAB};

struct Found {
    int64_t offset; // -1: null
    uint32_t length;
    bool operator==(const Found &) const = default;
};

const Found kNothing = {-1, 99};

// What an access to the configuration looks like from outside, said with other words than the library's.
Found Expected(const Bytes &data, uint8_t type)
{
    Bytes::const_iterator at = data.begin();
    while (true) {
        at = std::search(at, data.end(), kStartCode.begin(), kStartCode.end());
        if (data.end() - at < 5) {
            return kNothing;
        }
        const uint8_t header = at[4];
        if (header < 0x80 && (header & 0x60) != 0 && header % 32 == type) {
            break;
        }
        ++at;
    }
    const Bytes::const_iterator nal = at + 4;
    const Bytes::const_iterator end = std::search(nal, data.end(), kStartCode.begin(), kStartCode.end());
    const bool mayEndTheData = type == 8 && data.end() - nal <= 4;
    if (mayEndTheData) {
        return {nal - data.begin(), static_cast<uint32_t>(data.end() - nal)};
    }
    return end == data.end() ? kNothing : Found{nal - data.begin(), static_cast<uint32_t>(end - nal)};
}

} // namespace

class ParameterSets : public MediaTest {
  protected:
    Found run(Extract extract, const Bytes &data)
    {
        const ExactBytes exact(data);
        uint32_t length = 99;
        const uint8_t *nal = extract(&session, exact.data(), exact.size(), &length);
        return {nal == nullptr ? -1 : nal - exact.data(), length};
    }
    Found sps(const Bytes &data)
    {
        return run(ExtractSpsHeader, data);
    }
    Found pps(const Bytes &data)
    {
        return run(ExtractPpsHeader, data);
    }
};

TEST_F(ParameterSets, AnSpsEndsAtTheNextStartCodeAndAFourBytePpsAtTheEndOfTheData)
{
    const Bytes data = kStartCode + kSps + kStartCode + kPps4;
    EXPECT_EQ(sps(data), (Found{4, 5}));
    EXPECT_EQ(pps(data), (Found{13, 4}));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ParameterSets, AShorterPpsMayEndTheDataToo)
{
    EXPECT_EQ(pps(kStartCode + Bytes{0x68}), (Found{4, 1}));
    EXPECT_EQ(pps(kStartCode + Bytes{0x68, 0xCE, 0x3C}), (Found{4, 3}));
}

TEST_F(ParameterSets, AFiveBytePpsMustBeFollowedByAStartCode)
{
    const Bytes data = kStartCode + kSps + kStartCode + kPps5;
    EXPECT_EQ(pps(data), kNothing);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: ExtractPpsHeader: End of PPS not found"});
    EXPECT_EQ(pps(data + kStartCode), (Found{13, 5}));
}

TEST_F(ParameterSets, APpsOfTwoBytesBeforeAStartCodeEndsThere)
{
    EXPECT_EQ(pps(kStartCode + Bytes{0x68, 0xCE} + kStartCode), (Found{4, 2}));
    EXPECT_EQ(pps(kStartCode + Bytes{0x68, 0, 0, 1}), (Found{4, 4})); // three-byte start code: data
}

TEST_F(ParameterSets, ThePpsMayStandBeforeTheSps)
{
    const Bytes data = kStartCode + kPps5 + kStartCode + kSps + kStartCode;
    EXPECT_EQ(pps(data), (Found{4, 5}));
    EXPECT_EQ(sps(data), (Found{13, 5}));
}

TEST_F(ParameterSets, AnSpsAloneHasNoEnd)
{
    EXPECT_EQ(sps(kStartCode + kSps), kNothing);
    EXPECT_EQ(sps(kStartCode + kSps + Bytes{0, 0, 0}), kNothing);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractSpsHeader: End of SPS not found",
                                  "3 ERROR: ExtractSpsHeader: End of SPS not found"}));
    EXPECT_EQ(sps(kStartCode + kSps + kStartCode), (Found{4, 5}));
}

TEST_F(ParameterSets, TheFirstOfSeveralIsTaken)
{
    const Bytes data = kStartCode + Bytes{0x67, 1} + kStartCode + Bytes{0x67, 2, 3} + kStartCode + kPps4;
    EXPECT_EQ(sps(data), (Found{4, 2}));
}

TEST_F(ParameterSets, NonReferenceForbiddenAndOtherNalUnitsAreNotFound)
{
    for (const uint8_t header : {0x07, 0xE7, 0x66, 0x68, 0x06, 0x65}) {
        EXPECT_EQ(sps(kStartCode + Bytes{header, 0x42} + kStartCode + Bytes{0x06}), kNothing) << +header;
    }
    for (const uint8_t header : {0x08, 0xE8, 0x67, 0x69, 0x06}) {
        EXPECT_EQ(pps(kStartCode + Bytes{header, 0x42} + kStartCode + Bytes{0x06}), kNothing) << +header;
    }
    EXPECT_EQ(log.count("3 ERROR: ExtractSpsHeader: SPS not found in video config data"), 6U);
    EXPECT_EQ(log.count("3 ERROR: ExtractPpsHeader: PPS not found in video config data"), 5U);
    EXPECT_EQ(log.lines().size(), 11U);
}

TEST_F(ParameterSets, EveryReferenceIdcButZeroIsFound)
{
    for (const uint8_t idc : {0x20, 0x40, 0x60}) {
        const uint8_t spsHeader = static_cast<uint8_t>(idc | 7);
        const uint8_t ppsHeader = static_cast<uint8_t>(idc | 8);
        EXPECT_EQ(sps(kStartCode + Bytes{spsHeader} + kStartCode), (Found{4, 1}));
        EXPECT_EQ(pps(kStartCode + Bytes{ppsHeader} + kStartCode), (Found{4, 1}));
    }
}

TEST_F(ParameterSets, ThreeByteStartCodesAreNeverRecognised)
{
    const Bytes code3 = {0, 0, 1};
    EXPECT_EQ(sps(code3 + kSps + code3 + kPps4), kNothing);
    EXPECT_EQ(pps(code3 + kSps + code3 + kPps4), kNothing);
    EXPECT_EQ(sps(kStartCode + kSps + code3 + kPps4), kNothing); // found, and has no end
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractSpsHeader: SPS not found in video config data",
                                  "3 ERROR: ExtractPpsHeader: PPS not found in video config data",
                                  "3 ERROR: ExtractSpsHeader: End of SPS not found"}));
}

TEST_F(ParameterSets, MoreZerosBeforeAStartCodeBelongToTheNalUnitBeforeIt)
{
    const Bytes data = Bytes{0, 0} + kStartCode + kSps + Bytes{0} + kStartCode + kPps4;
    EXPECT_EQ(sps(data), (Found{6, 6}));
    EXPECT_EQ(pps(data), (Found{16, 4}));
}

TEST_F(ParameterSets, AStartCodeThatEndsTheDataHasNothingBehindIt)
{
    EXPECT_EQ(sps(Bytes{9} + kStartCode), kNothing);
    EXPECT_EQ(pps(Bytes{9} + kStartCode), kNothing);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractSpsHeader: SPS not found in video config data",
                                  "3 ERROR: ExtractPpsHeader: PPS not found in video config data"}));
}

TEST_F(ParameterSets, MissingArgumentsAndTooFewBytesAreRefused)
{
    uint32_t length = 7;
    const ExactBytes data(kConfig720);
    for (const Extract extract : {ExtractSpsHeader, ExtractPpsHeader}) {
        EXPECT_EQ(extract(&session, nullptr, 10, &length), nullptr);
        EXPECT_EQ(extract(&session, data.data(), 0, &length), nullptr);
        EXPECT_EQ(extract(&session, data.data(), -1, &length), nullptr);
        EXPECT_EQ(extract(&session, data.data(), data.size(), nullptr), nullptr);
        EXPECT_EQ(extract(&session, data.data(), 1, &length), nullptr);
        EXPECT_EQ(extract(&session, data.data(), 4, &length), nullptr);
    }
    EXPECT_EQ(length, 7U);
    Lines expected(4, "3 ERROR: ExtractSpsHeader: Cannot extract SPS header");
    expected.insert(expected.end(), 2, "3 ERROR: ExtractSpsHeader: Invalid video config data");
    expected.insert(expected.end(), 4, "3 ERROR: ExtractPpsHeader: Cannot extract PPS header");
    expected.insert(expected.end(), 2, "3 ERROR: ExtractPpsHeader: Invalid video config data");
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(ParameterSets, EveryCutOfAConfigurationAgreesWithAnIndependentSearch)
{
    const Bytes whole = kStartCode + kSps25 + kStartCode + kPps5 + kStartCode + Bytes{0x06, 0x05};
    for (size_t cut = 1; cut <= whole.size(); cut++) {
        const Bytes data = Slice(whole, 0, cut);
        EXPECT_EQ(sps(data), Expected(data, 7)) << cut;
        EXPECT_EQ(pps(data), Expected(data, 8)) << cut;
    }
}

TEST_F(ParameterSets, RandomBytesAgreeWithAnIndependentSearch)
{
    const Bytes alphabet = {0, 0, 0, 0, 0, 1, 1, 0x67, 0x68, 0x27, 0x07, 0xE8, 0x42};
    std::mt19937 random(20240607);
    size_t found = 0;
    for (int round = 0; round < 20000; round++) {
        Bytes data(1 + random() % 40);
        for (uint8_t &byte : data) {
            const uint32_t draw = static_cast<uint32_t>(random());
            byte = draw % 16 == 0 ? static_cast<uint8_t>(draw >> 8) : alphabet[(draw >> 8) % alphabet.size()];
        }
        for (int codes = static_cast<int>(random() % 4); codes > 0 && data.size() >= 4; codes--) {
            std::copy(kStartCode.begin(), kStartCode.end(),
                      data.begin() + static_cast<std::ptrdiff_t>(random() % (data.size() - 3)));
        }
        const Found expectedSps = Expected(data, 7);
        ASSERT_EQ(sps(data), expectedSps);
        ASSERT_EQ(pps(data), Expected(data, 8));
        found += expectedSps.offset >= 0;
    }
    EXPECT_GT(found, 500U); // the draw reaches the successful paths
}
