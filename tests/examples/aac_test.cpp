#include "common/aac.h"

#include <gtest/gtest.h>

namespace {

using Vector = std::vector<uint8_t>;

// AAC LC, 44,100 Hz (index 4), 2 channels, 7 + 3 bytes, one raw data block.
const Vector kAdts = {0xFF, 0xF1, 0x50, 0x80, 0x01, 0x5F, 0xFC, 0x21, 0x22, 0x23};

} // namespace

TEST(Aac, AdtsGivesItsConfigurationAndTheRawFrame)
{
    const std::optional<AdtsFrame> frame = parseAdts(kAdts);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->config, (Vector{0x12, 0x10}));
    EXPECT_EQ(Vector(frame->raw.begin(), frame->raw.end()), (Vector{0x21, 0x22, 0x23}));
}

TEST(Aac, AdtsWithACrcHasTwoBytesMoreOfHeader)
{
    Vector packet = kAdts;
    packet[1] = 0xF0;
    const std::optional<AdtsFrame> frame = parseAdts(packet);
    ASSERT_TRUE(frame);
    EXPECT_EQ(Vector(frame->raw.begin(), frame->raw.end()), (Vector{0x23}));
}

TEST(Aac, WhatIsCutOrNoAdtsOrSeveralBlocksIsRefused)
{
    for (size_t length = 0; length < kAdts.size(); ++length) {
        EXPECT_FALSE(parseAdts(std::span(kAdts).first(length))) << length;
    }
    Vector packet = kAdts;
    packet[6] = 0xFD; // two raw data blocks
    EXPECT_FALSE(parseAdts(packet));
    packet = kAdts;
    packet[0] = 0x21;
    EXPECT_FALSE(parseAdts(packet));
}

TEST(Aac, APlainConfigurationKeepsItsFirstTwoBytes)
{
    EXPECT_EQ(twoByteConfig(Vector{0x12, 0x10}), (Vector{0x12, 0x10}));
    EXPECT_EQ(twoByteConfig(Vector{0x12, 0x10, 0x56, 0xE5, 0x00}), (Vector{0x12, 0x10}));
}

TEST(Aac, ExplicitSbrBecomesItsCore)
{
    // 00101 0111 0010 0100 00010 000: SBR, 22,050 Hz, 2 channels, 44,100 Hz, core AAC LC
    EXPECT_EQ(twoByteConfig(Vector{0x2B, 0x92, 0x08, 0x00}), (Vector{0x13, 0x90}));
}

TEST(Aac, WhatTwoBytesCannotSayIsRefused)
{
    EXPECT_TRUE(twoByteConfig(Vector{}).empty());
    EXPECT_TRUE(twoByteConfig(Vector{0x12}).empty());
    EXPECT_TRUE(twoByteConfig(Vector{0x17, 0x80, 0, 0, 0}).empty()); // explicit sampling rate
    EXPECT_TRUE(twoByteConfig(Vector{0x12, 0x00}).empty());          // channels in the stream
    EXPECT_TRUE(twoByteConfig(Vector{0xF8, 0x10}).empty());          // escaped object type
    EXPECT_TRUE(twoByteConfig(Vector{0x2B, 0x92, 0x08}).empty());    // cut
}
