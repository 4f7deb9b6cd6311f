// Captions in H.264 and as data messages, against bytes worked out by hand.
#include "captions/caption_info.h"
#include "captions/caption_sei.h"

#include <gtest/gtest.h>

namespace {

using Vector = std::vector<uint8_t>;

// Each NAL unit of two bytes and more behind the four bytes of its length.
Vector accessUnit(const std::vector<Vector> &nals)
{
    Vector out;
    for (const Vector &nal : nals) {
        out.insert(out.end(), {0, 0, 0, static_cast<uint8_t>(nal.size())});
        out.insert(out.end(), nal.begin(), nal.end());
    }
    return out;
}

const Vector kSps = {0x67, 0x4D, 0x40};
const Vector kPps = {0x68, 0xE9};
const Vector kIdr = {0x65, 0x88, 0x80};
const Vector kDelimiter = {0x09, 0xF0};

} // namespace

// user_data_registered_itu_t_t35, 14 bytes, United States, ATSC, GA94, cc_data of one triplet of field 1
TEST(CaptionSei, IsAnAtscMessageWithThePairWhereTheLibraryLooksForIt)
{
    const Vector expected = {0x04, 0x0E, 0xB5, 0x00, 0x31, 0x47, 0x41, 0x39,
                             0x34, 0x03, 0xC1, 0xFF, 0xFC, 0x94, 0x2C, 0xFF};
    EXPECT_EQ(captionMessage({0x94, 0x2C}), expected);
}

TEST(CaptionSei, IsANalUnitOfItsOwnBehindItsLength)
{
    const Vector expected = {0x00, 0x00, 0x00, 0x12, 0x06, 0x04, 0x0E, 0xB5, 0x00, 0x31, 0x47,
                             0x41, 0x39, 0x34, 0x03, 0xC1, 0xFF, 0xFC, 0x80, 0x80, 0xFF, 0x80};
    EXPECT_EQ(seiUnit(captionMessage({0x80, 0x80})), expected);
}

TEST(CaptionSei, NoStartCodeIsLeftInANalUnit)
{
    EXPECT_EQ(withEmulationPrevention(Vector{6, 0, 0, 0, 0, 0, 1, 0, 0, 3, 0, 0, 4}),
              (Vector{6, 0, 0, 3, 0, 0, 3, 0, 1, 0, 0, 3, 3, 0, 0, 4}));
}

TEST(CaptionSei, GoesBehindParameterSetsAndInFrontOfTheSlice)
{
    EXPECT_EQ(placeOfCaption(accessUnit({kIdr})), 0);
    EXPECT_EQ(placeOfCaption(accessUnit({kSps, kPps, kIdr})), 13);
    EXPECT_EQ(placeOfCaption(accessUnit({kDelimiter, {0x41, 0x9A}})), 6);
}

// A buffering period has to be the first SEI; what an encoder says of itself may be long.
TEST(CaptionSei, GoesBehindABufferingPeriodAndInFrontOfOtherMessages)
{
    EXPECT_EQ(placeOfCaption(accessUnit({kSps, kPps, {0x06, 0x05, 0x10}, kIdr})), 13);
    EXPECT_EQ(placeOfCaption(accessUnit({kSps, kPps, {0x06, 0x00, 0x10}, kIdr})), 20);
}

TEST(CaptionSei, HasNoPlaceWhereThereIsNoSlice)
{
    EXPECT_EQ(placeOfCaption(accessUnit({kSps, kPps})), -1);
    EXPECT_EQ(placeOfCaption(Vector{}), -1);
    EXPECT_EQ(placeOfCaption(Vector{0, 0, 0, 0, 0}), -1);
    EXPECT_EQ(placeOfCaption(Vector{0xFF, 0xFF, 0xFF, 0xFF, 0x67}), -1) << "longer than the frame";
}

TEST(CaptionSei, APlaceLiesInTheFrameHoweverItIsCut)
{
    const Vector whole = accessUnit({kSps, kPps, {0x06, 0x05, 0x10}, kIdr});
    for (size_t length = 0; length <= whole.size(); ++length) {
        const Vector cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
        EXPECT_LT(placeOfCaption(cut), static_cast<int32_t>(length == 0 ? 1 : length));
    }
}

TEST(CaptionInfo, Base64IsThatOfRfc4648)
{
    const std::string text = "foobar";
    const std::vector<std::string> expected = {"",         "Zg==",     "Zm8=",    "Zm9v",
                                               "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t length = 0; length <= text.size(); ++length) {
        EXPECT_EQ(base64({reinterpret_cast<const uint8_t *>(text.data()), length}), expected[length]);
    }
}

TEST(CaptionInfo, IsAnObjectWithTypeAndData)
{
    const Vector payload = {0x00, 0x00, 0x00, 0x06, 0xC1, 0xFF, 0xFC, 0x94, 0x2C, 0xFF};
    const Vector body = captionInfo(payload);
    const std::string expected("\x02\0\x0DonCaptionInfo"
                               "\x03"
                               "\0\x04type\x02\0\x03"
                               "708"
                               "\0\x04"
                               "data\x02\0\x10"
                               "AAAABsH//JQs/w=="
                               "\0\0\x09",
                               57);
    EXPECT_EQ(std::string(body.begin(), body.end()), expected);
}
