#include "message/header_fields.h"
#include "message_fixture.h"

namespace {

struct TimeRow {
    const char *sentence;
    uint64_t value;
    const char *field;
    const char *extended;
};

const TimeRow kTimes[] = {
    {"zero", 0, "00 00 00", "00 00 00 00"},
    {"three different bytes", 0x010203, "01 02 03", "00 00 00 00"},
    {"the largest value that fits", 0xFFFFFE, "FF FF FE", "00 00 00 00"},
    {"all ones fit and are extended all the same", 0xFFFFFF, "FF FF FF", "00 FF FF FF"},
    {"the first that does not fit", 0x1000000, "FF FF FF", "01 00 00 00"},
    {"the largest extended value", 0xFFFFFFFF, "FF FF FF", "FF FF FF FF"},
};

TEST(HeaderFields, TimestampsBeyond24BitsGoIntoTheExtendedField)
{
    for (const TimeRow &row : kTimes) {
        SCOPED_TRACE(row.sentence);
        RtmpSendPkt pkt = {};
        SetTimestamp(&pkt, row.value);
        EXPECT_EQ(pkt.Timestamp, row.value);
        EXPECT_EQ(ToHex(pkt.HdrTimestamp, 3), row.field);
        EXPECT_EQ(ToHex(pkt.ExtTimestamp, 4), row.extended);
        EXPECT_EQ(ToHex(pkt.HdrTimestampDelta, 3), "00 00 00");
    }
}

TEST(HeaderFields, DeltasBeyond24BitsGoIntoTheExtendedField)
{
    for (const TimeRow &row : kTimes) {
        SCOPED_TRACE(row.sentence);
        RtmpSendPkt pkt = {};
        SetTimestampDelta(&pkt, static_cast<uint32_t>(row.value));
        EXPECT_EQ(ToHex(pkt.HdrTimestampDelta, 3), row.field);
        EXPECT_EQ(ToHex(pkt.ExtTimestampDelta, 4), row.extended);
        EXPECT_EQ(ToHex(pkt.HdrTimestamp, 3), "00 00 00");
    }
}

TEST(HeaderFields, AfterFortyNineDaysTheExtendedTimestampWraps)
{
    RtmpSendPkt pkt = {};
    SetTimestamp(&pkt, 0x100000005);
    EXPECT_EQ(pkt.Timestamp, 0x100000005U);
    EXPECT_EQ(ToHex(pkt.HdrTimestamp, 3), "FF FF FF");
    EXPECT_EQ(ToHex(pkt.ExtTimestamp, 4), "00 00 00 05");
}

TEST(HeaderFields, ASecondTimestampLeavesNothingOfTheFirst)
{
    RtmpSendPkt pkt = {};
    SetTimestamp(&pkt, 0x12345678);
    SetTimestamp(&pkt, 7);
    EXPECT_EQ(ToHex(pkt.HdrTimestamp, 3), "00 00 07");
    EXPECT_EQ(ToHex(pkt.ExtTimestamp, 4), "00 00 00 00");
}

TEST(HeaderFields, TheStreamIdIsLittleEndian)
{
    RtmpSendPkt pkt = {};
    SetMsgStreamId(&pkt, 0x11223344);
    EXPECT_EQ(StreamIdOf(&pkt), "44 33 22 11");
}

class HeaderFieldsOfAClient : public MessageTest {};

TEST_F(HeaderFieldsOfAClient, AMessageIsStampedWithTheAgeOfTheClient)
{
    RtmpSendPkt pkt = {};
    StampNow(&client, &pkt);
    EXPECT_EQ(pkt.Timestamp, 1000U);
    EXPECT_EQ(ToHex(pkt.HdrTimestamp, 3), "00 03 E8");
}

TEST_F(HeaderFieldsOfAClient, TheDeltaIsZeroUntilAMessageIsStored)
{
    RtmpSendPkt pkt = {};
    pkt.ChunkStreamId = 4;
    pkt.Timestamp = 1000;
    EXPECT_EQ(MeasureDelta(&client, &pkt), 0);
    EXPECT_EQ(ToHex(pkt.HdrTimestampDelta, 3), "00 00 00");
    Store(3, 1);
    EXPECT_EQ(MeasureDelta(&client, &pkt), 0);
    EXPECT_EQ(ToHex(pkt.HdrTimestampDelta, 3), "00 00 00");
}

struct DeltaRow {
    const char *sentence;
    uint64_t stored;
    uint64_t fresh;
    const char *field;
    const char *extended;
};

const DeltaRow kDeltas[] = {
    {"forty milliseconds", 960, 1000, "00 00 28", "00 00 00 00"},
    {"the largest that fits", 0, 0xFFFFFE, "FF FF FE", "00 00 00 00"},
    {"all ones", 1, 0x1000000, "FF FF FF", "00 FF FF FF"},
    {"one more", 0, 0x1000000, "FF FF FF", "01 00 00 00"},
    {"back in time, in 32 bits", 1001, 1000, "FF FF FF", "FF FF FF FF"},
    {"across 32 bits", 0xFFFFFFFF, 0x100000003, "00 00 04", "00 00 00 00"},
};

TEST_F(HeaderFieldsOfAClient, TheDeltaIsTheDifferenceToTheStoredMessage)
{
    for (const DeltaRow &row : kDeltas) {
        SCOPED_TRACE(row.sentence);
        Store(4, row.stored);
        RtmpSendPkt pkt = {};
        pkt.ChunkStreamId = 4;
        pkt.Timestamp = row.fresh;
        EXPECT_EQ(MeasureDelta(&client, &pkt), 0);
        EXPECT_EQ(ToHex(pkt.HdrTimestampDelta, 3), row.field);
        EXPECT_EQ(ToHex(pkt.ExtTimestampDelta, 4), row.extended);
    }
}

TEST_F(HeaderFieldsOfAClient, AListThatCannotBeLockedGivesNoDelta)
{
    RtmpSendPkt pkt = {};
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(MeasureDelta(&client, &pkt), -1);
    calls::failNext(Call::MutexUnlock);
    EXPECT_EQ(MeasureDelta(&client, &pkt), -1);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: GetSendPktFromList: Cannot lock send packet list",
                                  "3 ERROR: GetSendPktFromList: Cannot unlock send packet list"}));
}

} // namespace
