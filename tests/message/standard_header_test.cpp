#include "message/standard_header.h"

#include "message/chunk_header.h"
#include "message/header_fields.h"
#include "message/send_list.h"
#include "rtmpcast/player.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

namespace {

struct SentMessage {
    uint64_t time = 1000;
    uint32_t length = 100;
    uint32_t type = RTMP_TYPE_VIDEO;
    uint32_t stream = 1;
    uint32_t chunkStream = 5;
};

RtmpSendPkt MakeSent(const SentMessage &made)
{
    RtmpSendPkt pkt = {};
    pkt.ChunkStreamId = made.chunkStream;
    pkt.MsgTypeId = made.type;
    pkt.MsgKind = RTMP_MSG_VIDEO; // its payload is nobody's to free
    pkt.PayloadLength = made.length;
    SetTimestamp(&pkt, made.time);
    SetMsgStreamId(&pkt, made.stream);
    return pkt;
}

// Sends the messages of one chunk stream one after the other, and tells which headers they had.
std::vector<int> HdrTypesOf(const std::vector<SentMessage> &messages)
{
    std::vector<int> types;
    RtmpSendPkt stored = {};
    for (const SentMessage &made : messages) {
        RtmpSendPkt pkt = MakeSent(made);
        const int type = DecideStandardHdrType(&pkt, types.empty() ? nullptr : &stored);
        if (types.empty()) {
            stored = pkt;
        }
        stored.HdrType = static_cast<uint8_t>(type);
        types.push_back(type);
    }
    return types;
}

Bytes SeparatorBytes(const RtmpSendPkt &message)
{
    uint8_t bytes[RTMP_SEPARATOR_MAX];
    const uint32_t length = PutStandardSeparator(bytes, &message);
    return Bytes(bytes, bytes + length);
}

using HdrTypes = std::vector<int>;

} // namespace

TEST(StandardHeader, EachMessageIsToldFromTheOneBeforeIt)
{
    // 45 is the first one's length: behind one of 100 it must be said again, and so must 100 behind it.
    EXPECT_EQ(HdrTypesOf({{1000, 45}, {1040, 100}, {1080, 45}, {1120, 45}, {1160, 100}}),
              (HdrTypes{0, 1, 1, 3, 1}));
}

TEST(StandardHeader, TheDeltaIsSaidOnceBehindAFullHeader)
{
    EXPECT_EQ(HdrTypesOf({{40}, {80}, {120}, {160}}), (HdrTypes{0, 2, 3, 3}));
    EXPECT_EQ(HdrTypesOf({{0}, {0}, {0}}), (HdrTypes{0, 2, 3})) << "also a delta of 0";
}

TEST(StandardHeader, AnotherDeltaIsSaid)
{
    EXPECT_EQ(HdrTypesOf({{0}, {40}, {81}, {122}, {162}}), (HdrTypes{0, 2, 2, 3, 2}));
}

TEST(StandardHeader, AnotherTypeOfMessageIsSaid)
{
    EXPECT_EQ(HdrTypesOf({{0}, {40}, {80, 100, RTMP_TYPE_AMF0_DATA}, {120, 100, RTMP_TYPE_AMF0_DATA}}),
              (HdrTypes{0, 2, 1, 3}));
}

TEST(StandardHeader, AnOlderMessageHasAFullHeader)
{
    EXPECT_EQ(HdrTypesOf({{1000}, {1040}, {999}, {1039}}), (HdrTypes{0, 2, 0, 2}));
    EXPECT_EQ(HdrTypesOf({{0}, {0x80000000}}), (HdrTypes{0, 0}))
        << "further ahead than serial numbers can say";
    EXPECT_EQ(HdrTypesOf({{0}, {0x7FFFFFFF}}), (HdrTypes{0, 2}));
}

TEST(StandardHeader, AnotherMessageStreamHasAFullHeader)
{
    EXPECT_EQ(HdrTypesOf({{0}, {40}, {80, 100, 9, 2}, {120, 100, 9, 2}}), (HdrTypes{0, 2, 0, 2}));
}

TEST(StandardHeader, AnExtendedDeltaIsNeverRepeatedByAType3Header)
{
    EXPECT_EQ(HdrTypesOf({{0}, {0xFFFFFF}, {0x1FFFFFE}, {0x1FFFFFE + 40}, {0x1FFFFFE + 80}}),
              (HdrTypes{0, 2, 2, 2, 3}));
    EXPECT_EQ(HdrTypesOf({{0}, {0xFFFFFE}, {0x1FFFFFC}}), (HdrTypes{0, 2, 3})) << "one less is not extended";
}

TEST(StandardHeader, TheDeltaIsTakenFromTheMessageBefore)
{
    RtmpSendPkt last = MakeSent({1000});
    RtmpSendPkt next = MakeSent({1040});
    SetTimestampDelta(&next, 777); // another message went out since it was generated
    EXPECT_EQ(DecideStandardHdrType(&next, &last), 2);
    EXPECT_EQ(ToHex(Bytes(next.HdrTimestampDelta, next.HdrTimestampDelta + 3)), ToHex(Hex("000028")));
    EXPECT_EQ(last.Timestamp, 1040U);
}

TEST(StandardHeader, BehindAMessageThatDidNotGetOutComesAFullHeader)
{
    RtmpSendPkt last = MakeSent({1000});
    RtmpSendPkt lost = MakeSent({1040});
    EXPECT_EQ(DecideStandardHdrType(&lost, &last), 2); // and the caller does not say that it is out
    RtmpSendPkt next = MakeSent({1080});
    EXPECT_EQ(DecideStandardHdrType(&next, &last), 0);
}

TEST(StandardHeader, AStoredMessageThatIsSentItselfHasAFullHeader)
{
    RtmpSendPkt stored = MakeSent({1000});
    EXPECT_EQ(DecideStandardHdrType(&stored, &stored), 0);
    EXPECT_EQ(stored.PayloadLength, 100U);
}

TEST(StandardHeader, ALongChunkStreamIdHasItsLowByteFirst)
{
    struct Row {
        uint32_t id;
        const char *bytes;
    };
    static const Row rows[] = {{2, "C2"},        {63, "FF"},       {64, "C0 00"},     {319, "C0 FF"},
                               {320, "C1 0001"}, {321, "C1 0101"}, {65599, "C1 FFFF"}};
    for (const Row &row : rows) {
        uint8_t bytes[RTMP_BASIC_HDR_MAX];
        const uint32_t length = PutStandardBasicHdr(bytes, 3, row.id);
        EXPECT_EQ(ToHex(Bytes(bytes, bytes + length)), ToHex(Hex(row.bytes))) << row.id;
    }
}

TEST(StandardHeader, TheFlagAloneDecidesOnTheOrderOfTheBytes)
{
    for (const uint32_t flags : {uint32_t{RTMP_PLAYERS_EXACT}, uint32_t{RTMP_PLAYERS_CHUNKS_OUT}}) {
        RtmpClient client = {};
        client.PlayerFlags = flags;
        RtmpSendPkt pkt = MakeSent({0, 3, 9, 1, 321});
        uint8_t bytes[RTMP_CHUNK_HDR_MAX] = {};
        RtmpChunkHdr hdr = {0, bytes};
        ASSERT_EQ(FillChunkHdrFor(&client, &pkt, 0, &hdr), 0);
        EXPECT_EQ(hdr.Length, 14U);
        pkt.ChunkStreamId = 320;
        ASSERT_EQ(FillChunkHdrFor(&client, &pkt, 3, &hdr), 0);
        EXPECT_EQ(ToHex(Bytes(bytes, bytes + 3)), ToHex(Hex(flags == 0 ? "C1 0100" : "C1 0001")));
    }
}

TEST(StandardHeader, ASeparatorRepeatsTheExtendedTimeOfItsMessage)
{
    RtmpSendPkt full = MakeSent({0x01020304});
    EXPECT_EQ(SeparatorBytes(full), Hex("C5 01020304"));
    RtmpSendPkt plain = MakeSent({0xFFFFFE});
    EXPECT_EQ(SeparatorBytes(plain), Hex("C5"));
    RtmpSendPkt least = MakeSent({0xFFFFFF, 100, 9, 1, 321});
    EXPECT_EQ(SeparatorBytes(least), Hex("C1 0101 00FFFFFF"));
    RtmpSendPkt far = MakeSent({0x2000000});
    RtmpSendPkt last = MakeSent({0});
    ASSERT_EQ(DecideStandardHdrType(&far, &last), 2);
    EXPECT_EQ(SeparatorBytes(far), Hex("C5 02000000")) << "the delta's";
    RtmpSendPkt near = MakeSent({0x2000028});
    last.HdrType = 2;
    ASSERT_EQ(DecideStandardHdrType(&near, &last), 2);
    EXPECT_EQ(SeparatorBytes(near), Hex("C5")) << "an extended timestamp behind a short delta is not sent";
}
