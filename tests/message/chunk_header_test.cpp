#include "message_fixture.h"

namespace {

struct BasicHdrRow {
    const char *sentence;
    uint32_t chunkStreamId;
    const char *bytes[4]; // by header type
};

const BasicHdrRow kBasicHdrs[] = {
    {"the smallest id", 1, {"01", "41", "81", "C1"}},
    {"control messages", 2, {"02", "42", "82", "C2"}},
    {"the last one-byte id", 63, {"3F", "7F", "BF", "FF"}},
    {"the first two-byte id", 64, {"00 00", "40 00", "80 00", "C0 00"}},
    {"the last two-byte id", 319, {"00 FF", "40 FF", "80 FF", "C0 FF"}},
    {"the first three-byte id", 320, {"01 01 00", "41 01 00", "81 01 00", "C1 01 00"}},
    {"high byte first", 1000, {"01 03 A8", "41 03 A8", "81 03 A8", "C1 03 A8"}},
    {"the last three-byte id", 65599, {"01 FF FF", "41 FF FF", "81 FF FF", "C1 FF FF"}},
};

// timestamp 0x010203, delta 40, 0x0A0B0C bytes of video on stream 0x11223344
const char *const kMsgHdrs[4] = {
    "01 02 03 0A 0B 0C 09 44 33 22 11",
    "00 00 28 0A 0B 0C 09",
    "00 00 28",
    "",
};

RtmpSendPkt VideoMessage(uint32_t chunkStreamId)
{
    RtmpSendPkt pkt = {};
    pkt.ChunkStreamId = chunkStreamId;
    pkt.MsgTypeId = RTMP_TYPE_VIDEO;
    pkt.Timestamp = 0x010203;
    memcpy(pkt.HdrTimestamp, "\x01\x02\x03", 3);
    memcpy(pkt.HdrTimestampDelta, "\x00\x00\x28", 3);
    memcpy(pkt.MsgStreamId, "\x44\x33\x22\x11", 4);
    pkt.PayloadLength = 0x0A0B0C;
    return pkt;
}

class ChunkHeader : public MessageTest {
  protected:
    // The header as GenerateChunkHdr makes it, after comparing it with what FillChunkHdr writes.
    std::string Write(RtmpSendPkt *pkt, int hdrType, uint32_t kind = RTMP_MSG_VIDEO)
    {
        RtmpChunkHdr *made = GenerateChunkHdr(&client, pkt, kind, hdrType);
        if (made == nullptr) {
            return "none";
        }
        const std::string text = ToHex(made->Data, made->Length);
        free(made->Data);
        free(made);
        uint8_t room[RTMP_CHUNK_HDR_MAX + 1];
        memset(room, 0x5A, sizeof room);
        RtmpChunkHdr filled = {99, room};
        EXPECT_EQ(FillChunkHdr(pkt, hdrType, &filled), 0);
        EXPECT_EQ(ToHex(filled.Data, filled.Length), text);
        EXPECT_EQ(room[filled.Length], 0x5A) << "written behind the header";
        return text;
    }
};

std::string Joined(const std::string &first, const std::string &second)
{
    return first + (first.empty() || second.empty() ? "" : " ") + second;
}

TEST_F(ChunkHeader, EveryBasicHeaderFormStandsBeforeEveryMessageHeader)
{
    for (const BasicHdrRow &row : kBasicHdrs) {
        for (int type = 0; type <= 3; type++) {
            SCOPED_TRACE(row.sentence);
            RtmpSendPkt pkt = VideoMessage(row.chunkStreamId);
            EXPECT_EQ(Write(&pkt, type), Joined(row.bytes[type], kMsgHdrs[type])) << "type " << type;
        }
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ChunkHeader, AControlMessageHasTwelveBytes)
{
    RtmpSendPkt pkt = {};
    pkt.ChunkStreamId = 2;
    pkt.MsgTypeId = 4;
    pkt.HdrTimestamp[2] = 0x10;
    pkt.PayloadLength = 6;
    EXPECT_EQ(Write(&pkt, 0), "02 00 00 10 00 00 06 04 00 00 00 00");
}

TEST_F(ChunkHeader, ChunkStreamZeroHasNoBasicHeaderAndTwoZeroBytesAtTheEnd)
{
    RtmpSendPkt pkt = VideoMessage(0);
    EXPECT_EQ(Write(&pkt, 0), "01 02 03 0A 0B 0C 09 44 33 22 11 00 00");
    EXPECT_EQ(Write(&pkt, 1), "00 00 28 0A 0B 0C 09 00 00");
    EXPECT_EQ(Write(&pkt, 2), "00 00 28 00 00");
    EXPECT_EQ(Write(&pkt, 3), "03 00"); // nothing overwrites the type in the first byte
}

TEST_F(ChunkHeader, ChunkStreamZeroCarriesTheExtendedFieldToo)
{
    RtmpSendPkt pkt = VideoMessage(0);
    memset(pkt.HdrTimestampDelta, 0xFF, 3);
    memcpy(pkt.ExtTimestampDelta, "\x01\x02\x03\x04", 4);
    EXPECT_EQ(Write(&pkt, 2), "FF FF FF 01 02 03 04 00 00");
}

TEST_F(ChunkHeader, AnOverflowedTimestampAddsFourBytesToType0Only)
{
    RtmpSendPkt pkt = VideoMessage(5);
    memset(pkt.HdrTimestamp, 0xFF, 3);
    memcpy(pkt.ExtTimestamp, "\x01\x00\x00\x2A", 4);
    EXPECT_EQ(Write(&pkt, 0), "05 FF FF FF 0A 0B 0C 09 44 33 22 11 01 00 00 2A");
    EXPECT_EQ(Write(&pkt, 1), "45 00 00 28 0A 0B 0C 09");
    EXPECT_EQ(Write(&pkt, 2), "85 00 00 28");
    EXPECT_EQ(Write(&pkt, 3), "C5");
}

TEST_F(ChunkHeader, AnOverflowedDeltaAddsFourBytesToTypes1And2Only)
{
    RtmpSendPkt pkt = VideoMessage(5);
    memset(pkt.HdrTimestampDelta, 0xFF, 3);
    memcpy(pkt.ExtTimestampDelta, "\x01\x00\x00\x2B", 4);
    EXPECT_EQ(Write(&pkt, 0), "05 01 02 03 0A 0B 0C 09 44 33 22 11");
    EXPECT_EQ(Write(&pkt, 1), "45 FF FF FF 0A 0B 0C 09 01 00 00 2B");
    EXPECT_EQ(Write(&pkt, 2), "85 FF FF FF 01 00 00 2B");
    EXPECT_EQ(Write(&pkt, 3), "C5");
}

TEST_F(ChunkHeader, OneByteLessThanAllOnesIsNotExtended)
{
    const uint8_t fields[3][3] = {{0xFE, 0xFF, 0xFF}, {0xFF, 0xFE, 0xFF}, {0xFF, 0xFF, 0xFE}};
    const char *const expected[3] = {"85 FE FF FF", "85 FF FE FF", "85 FF FF FE"};
    for (int i = 0; i < 3; i++) {
        RtmpSendPkt pkt = VideoMessage(5);
        memcpy(pkt.HdrTimestampDelta, fields[i], 3);
        EXPECT_EQ(Write(&pkt, 2), expected[i]);
    }
}

TEST_F(ChunkHeader, TheLongestHeaderFillsTheRoomThatIsSetAside)
{
    RtmpSendPkt pkt = VideoMessage(65599);
    memset(pkt.HdrTimestamp, 0xFF, 3);
    memcpy(pkt.ExtTimestamp, "\x01\x02\x03\x04", 4);
    EXPECT_EQ(Write(&pkt, 0), "01 FF FF FF FF FF 0A 0B 0C 09 44 33 22 11 01 02 03 04");
}

TEST_F(ChunkHeader, ALengthBeyond24BitsLosesItsTopByte)
{
    RtmpSendPkt pkt = VideoMessage(5);
    pkt.PayloadLength = 0x7F000001;
    EXPECT_EQ(Write(&pkt, 1), "45 00 00 28 00 00 01 09");
}

TEST_F(ChunkHeader, TheKindDoesNotChangeTheBytes)
{
    RtmpSendPkt pkt = VideoMessage(5);
    EXPECT_EQ(Write(&pkt, 2, RTMP_MSG_PING_RESPONSE), Write(&pkt, 2, RTMP_MSG_AUDIO));
}

TEST_F(ChunkHeader, ChunkStreamIdsFrom65600AreRefused)
{
    for (uint32_t id : {65600U, 65601U, 0x80000000U, 0xFFFFFFFFU}) {
        log.clear();
        RtmpSendPkt pkt = VideoMessage(id);
        for (int type = 0; type <= 3; type++) {
            EXPECT_EQ(Write(&pkt, type), "none") << id;
        }
        EXPECT_EQ(log.lines(), Lines(4, "3 ERROR: GenerateChunkHdr: Invalid chunk stream ID"));
        uint8_t room[RTMP_CHUNK_HDR_MAX];
        RtmpChunkHdr filled = {99, room};
        EXPECT_EQ(FillChunkHdr(&pkt, 0, &filled), -1);
    }
}

TEST_F(ChunkHeader, AnUnknownTypeGivesAnEmptyRecord)
{
    for (int type : {-1, 4, 1000}) {
        RtmpSendPkt pkt = VideoMessage(5);
        RtmpChunkHdr *hdr = GenerateChunkHdr(&client, &pkt, RTMP_MSG_VIDEO, type);
        ASSERT_NE(hdr, nullptr);
        EXPECT_EQ(hdr->Length, 0U);
        EXPECT_EQ(hdr->Data, nullptr);
        free(hdr);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ChunkHeader, WithoutMemoryThereIsNoHeader)
{
    RtmpSendPkt pkt = VideoMessage(5);
    calls::failNext(Call::Calloc);
    EXPECT_EQ(GenerateChunkHdr(&client, &pkt, RTMP_MSG_VIDEO, 0), nullptr);
    calls::failNext(Call::Calloc, 2);
    EXPECT_EQ(GenerateChunkHdr(&client, &pkt, RTMP_MSG_VIDEO, 0), nullptr);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: GenerateChunkHdr: Cannot allocate memory to chunkHdr",
                                  "3 ERROR: GenerateChunkHdr: Cannot allocate memory to chunkHdr->Data"}));
}

TEST_F(ChunkHeader, FillingAllocatesNothing)
{
    RtmpSendPkt pkt = VideoMessage(5);
    uint8_t room[RTMP_CHUNK_HDR_MAX];
    RtmpChunkHdr hdr = {0, room};
    const uint64_t before = calls::made(Call::Calloc);
    EXPECT_EQ(FillChunkHdr(&pkt, 0, &hdr), 0);
    EXPECT_EQ(calls::made(Call::Calloc), before);
}

TEST_F(ChunkHeader, TheWritersReturnZero)
{
    RtmpSendPkt pkt = VideoMessage(5);
    uint8_t room[RTMP_CHUNK_HDR_MAX] = {};
    RtmpChunkHdr hdr = {12, room};
    EXPECT_EQ(GenRtmpType0MsgHdr(&pkt, &hdr), 0);
    EXPECT_EQ(ToHex(room, 12), "05 01 02 03 0A 0B 0C 09 44 33 22 11");
    hdr.Length = 8;
    EXPECT_EQ(GenRtmpType1MsgHdr(&pkt, &hdr), 0);
    EXPECT_EQ(ToHex(room, 8), "45 00 00 28 0A 0B 0C 09");
    hdr.Length = 4;
    EXPECT_EQ(GenRtmpType2MsgHdr(&pkt, &hdr), 0);
    EXPECT_EQ(ToHex(room, 4), "85 00 00 28");
    hdr.Length = 3;
    EXPECT_EQ(GenRtmpType3MsgHdr(320, &hdr), 0);
    EXPECT_EQ(ToHex(room, 3), "C1 01 00");
}

// ------------------------------------------------------------------------------------ which type it will be

struct DecisionRow {
    const char *sentence;
    void (*change)(RtmpSendPkt *newPkt);
    int type;
};

const DecisionRow kDecisions[] = {
    {"nothing but the time differs", [](RtmpSendPkt *) {}, 3},
    {"the delta differs in its last byte", [](RtmpSendPkt *p) { p->HdrTimestampDelta[2] = 41; }, 2},
    {"the delta differs in its first byte", [](RtmpSendPkt *p) { p->HdrTimestampDelta[0] = 1; }, 2},
    {"the length differs", [](RtmpSendPkt *p) { p->PayloadLength++; }, 1},
    {"the message type differs", [](RtmpSendPkt *p) { p->MsgTypeId = RTMP_TYPE_AUDIO; }, 1},
    {"length and delta differ",
     [](RtmpSendPkt *p) {
         p->PayloadLength++;
         p->HdrTimestampDelta[2] = 41;
     },
     1},
    {"the header timestamp alone differs", [](RtmpSendPkt *p) { p->HdrTimestamp[0] = 9; }, 3},
    {"the kind alone differs", [](RtmpSendPkt *p) { p->MsgKind = RTMP_MSG_AUDIO; }, 3},
    {"the timestamp has overflowed",
     [](RtmpSendPkt *p) {
         memset(p->HdrTimestamp, 0xFF, 3);
         p->ExtTimestamp[0] = 1;
     },
     3},
};

TEST(HeaderType, TheShortestHeaderThatTellsTheDifference)
{
    for (const DecisionRow &row : kDecisions) {
        SCOPED_TRACE(row.sentence);
        RtmpSendPkt previous = VideoMessage(5);
        RtmpSendPkt next = VideoMessage(5);
        next.Timestamp = 0x1000040;
        row.change(&next);
        EXPECT_EQ(DecideMsgHdrType(&next, &previous), row.type);
        EXPECT_EQ(previous.Timestamp, 0x1000040U);
    }
}

TEST(HeaderType, TheFirstMessageOfAChunkStreamHasAFullHeader)
{
    RtmpSendPkt next = VideoMessage(5);
    EXPECT_EQ(DecideMsgHdrType(&next, nullptr), 0);
}

TEST(HeaderType, AnotherStreamIdGetsAFullHeaderAndLeavesTheStoredTimeAlone)
{
    for (int byte = 0; byte < 4; byte++) {
        RtmpSendPkt previous = VideoMessage(5);
        RtmpSendPkt next = VideoMessage(5);
        next.Timestamp = 77;
        next.MsgStreamId[byte] ^= 1;
        EXPECT_EQ(DecideMsgHdrType(&next, &previous), 0);
        EXPECT_EQ(previous.Timestamp, 0x010203U);
    }
}

TEST(HeaderType, DeltasThatBothOverflowAreEqual)
{
    RtmpSendPkt previous = VideoMessage(5);
    RtmpSendPkt next = VideoMessage(5);
    memset(previous.HdrTimestampDelta, 0xFF, 3);
    memset(next.HdrTimestampDelta, 0xFF, 3);
    next.ExtTimestampDelta[0] = 7;
    EXPECT_EQ(DecideMsgHdrType(&next, &previous), 3);
}

TEST(HeaderType, OnlyTheTimeOfTheStoredMessageMovesOn)
{
    RtmpSendPkt previous = VideoMessage(5);
    RtmpSendPkt next = VideoMessage(5);
    next.Timestamp = 99;
    next.HdrTimestampDelta[2] = 41;
    next.PayloadLength = 5;
    EXPECT_EQ(DecideMsgHdrType(&next, &previous), 1);
    RtmpSendPkt expected = VideoMessage(5);
    expected.Timestamp = 99;
    EXPECT_EQ(memcmp(&previous, &expected, sizeof previous), 0);
}

} // namespace
