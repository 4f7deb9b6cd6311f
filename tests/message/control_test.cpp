#include "message_fixture.h"
#include "rtmpcast/player.h"

namespace {

class Control : public MessageTest {};

struct ControlRow {
    const char *sentence;
    uint32_t kind;
    uint32_t typeId;
    const char *payload;
};

const ControlRow kControls[] = {
    {"stream begin names the current stream", RTMP_MSG_STREAM_BEGIN, 4, "00 00 00 00 00 03"},
    {"stream end has no payload", 37, 4, ""},
    {"stream dry has no payload", 38, 4, ""},
    {"set buffer length has no payload", RTMP_MSG_SET_BUFFER_LENGTH, 4, ""},
    {"stream is recorded has no payload", 40, 4, ""},
    {"ping request has no payload", RTMP_MSG_PING_REQUEST, 4, ""},
    {"set chunk size", RTMP_MSG_SET_CHUNK_SIZE, 1, "00 00 10 00"},
    {"abort has no payload", RTMP_MSG_ABORT, 2, ""},
    {"acknowledgement has no payload", RTMP_MSG_ACKNOWLEDGEMENT, 3, ""},
    {"window acknowledgement size", RTMP_MSG_WINDOW_ACK_SIZE, 5, "00 63 2E A0"},
    {"set peer bandwidth is five bytes", RTMP_MSG_SET_PEER_BANDWIDTH, 6, "00 63 2E A0 02"},
};

TEST_F(Control, EveryControlMessageGoesOutOnChunkStreamTwo)
{
    client.StreamId = 3;
    for (const ControlRow &row : kControls) {
        SCOPED_TRACE(row.sentence);
        const Packet pkt = Generate(nullptr, row.kind);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->ChunkStreamId, 2U);
        EXPECT_EQ(pkt->MsgTypeId, row.typeId);
        EXPECT_EQ(pkt->MsgKind, row.kind);
        EXPECT_EQ(PayloadOf(pkt.get()), row.payload);
        EXPECT_EQ(StreamIdOf(pkt.get()), "00 00 00 00");
        EXPECT_EQ(pkt->Timestamp, 1000U);
        EXPECT_EQ(ToHex(pkt->HdrTimestamp, 3), "00 03 E8");
        EXPECT_EQ(ToHex(pkt->HdrTimestampDelta, 3), "00 00 00");
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(Control, AnAcknowledgementHasAValueWhereTheConnectionHasTheRule)
{
    client.BytesReceived = 0x01020304;
    client.PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_ACKNOWLEDGE;
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_ACKNOWLEDGEMENT).get()), "");
    client.PlayerFlags = RTMP_PLAYERS_ACKNOWLEDGE;
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_ACKNOWLEDGEMENT).get()), "01 02 03 04");
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_ABORT).get()), "");
}

TEST_F(Control, TheConnectionLevelStreamIdIsUsedWhateverItIs)
{
    client.ConnStreamId = 0x01020304;
    EXPECT_EQ(StreamIdOf(Generate(nullptr, RTMP_MSG_STREAM_BEGIN).get()), "04 03 02 01");
    EXPECT_EQ(StreamIdOf(Generate(nullptr, RTMP_MSG_WINDOW_ACK_SIZE).get()), "04 03 02 01");
}

TEST_F(Control, TheFirstDeltaIsZeroAndTheSecondIsTheDifference)
{
    Packet first = Generate(nullptr, RTMP_MSG_WINDOW_ACK_SIZE);
    EXPECT_EQ(ToHex(first->HdrTimestampDelta, 3), "00 00 00");
    EXPECT_EQ(AddSendPkt(&client, first.release()), 0);
    calls::setClock(5258);
    const Packet second = Generate(nullptr, RTMP_MSG_STREAM_BEGIN);
    EXPECT_EQ(ToHex(second->HdrTimestampDelta, 3), "00 01 02");
    EXPECT_EQ(ToHex(second->HdrTimestamp, 3), "00 04 EA");
}

TEST_F(Control, AnOldConnectionSendsExtendedTimes)
{
    Store(2, 5);
    calls::setClock(4000 + 0x01000005);
    const Packet pkt = Generate(nullptr, RTMP_MSG_STREAM_BEGIN);
    EXPECT_EQ(ToHex(pkt->HdrTimestamp, 3), "FF FF FF");
    EXPECT_EQ(ToHex(pkt->ExtTimestamp, 4), "01 00 00 05");
    EXPECT_EQ(ToHex(pkt->HdrTimestampDelta, 3), "FF FF FF");
    EXPECT_EQ(ToHex(pkt->ExtTimestampDelta, 4), "01 00 00 00");
}

struct ChunkSizeRow {
    const char *sentence;
    int32_t configured;
    const char *payload;
    uint32_t used;
};

const ChunkSizeRow kChunkSizes[] = {
    {"as configured", 8192, "00 00 20 00", 8192},
    {"one byte", 1, "00 00 00 01", 1},
    {"zero means 4096", 0, "00 00 10 00", 4096},
    {"so does a negative size", -5, "00 00 10 00", 4096},
    {"the largest", INT32_MAX, "7F FF FF FF", 0x7FFFFFFF},
};

TEST_F(Control, TheAnnouncedChunkSizeIsTheOneInUseFromThenOn)
{
    for (const ChunkSizeRow &row : kChunkSizes) {
        SCOPED_TRACE(row.sentence);
        server.ConfiguredChunkSize = row.configured;
        server.ChunkSize = 128;
        EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_SET_CHUNK_SIZE).get()), row.payload);
        EXPECT_EQ(server.ChunkSize, row.used);
    }
}

TEST_F(Control, NoOtherControlMessageTouchesTheChunkSize)
{
    for (uint32_t kind = RTMP_MSG_STREAM_BEGIN; kind <= RTMP_MSG_SET_PEER_BANDWIDTH; kind++) {
        server.ChunkSize = 128;
        const Packet pkt = Generate(nullptr, kind);
        EXPECT_EQ(server.ChunkSize, kind == RTMP_MSG_SET_CHUNK_SIZE ? 4096U : 128U) << kind;
    }
}

TEST_F(Control, AChunkSizeThatCouldNotBeAnnouncedIsNotUsed)
{
    calls::failNext(Call::Calloc, 2);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_SET_CHUNK_SIZE), nullptr);
    EXPECT_EQ(server.ChunkSize, 128U);
}

TEST_F(Control, TheBandwidthIsTheServersOwn)
{
    server.PeerBandwidth = 0x01020304;
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_WINDOW_ACK_SIZE).get()), "01 02 03 04");
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_SET_PEER_BANDWIDTH).get()), "01 02 03 04 02");
}

TEST_F(Control, APingIsAnsweredWithItsOwnTimeAndAZeroHeaderTime)
{
    request.MsgTypeId = RTMP_TYPE_USER_CONTROL;
    request.ChunkStreamId = 9;
    request.Result.Event.EventType = 6;
    request.Result.Event.EventValue = 0x00012345;
    calls::setClock(4000 + 0x02000000);
    const Packet pkt = Generate(&request, RTMP_MSG_PING_RESPONSE);
    EXPECT_EQ(PayloadOf(pkt.get()), "00 07 00 01 23 45");
    EXPECT_EQ(pkt->ChunkStreamId, 2U);
    EXPECT_EQ(pkt->Timestamp, 0x02000000U);
    RtmpChunkHdr *hdr = GenerateChunkHdr(&client, pkt.get(), RTMP_MSG_PING_RESPONSE, 0);
    EXPECT_EQ(ToHex(hdr->Data, hdr->Length), "02 00 00 00 00 00 06 04 00 00 00 00");
    free(hdr->Data);
    free(hdr);
}

TEST_F(Control, APingResponseToSomethingElseCarriesZero)
{
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_PING_RESPONSE).get()), "00 07 00 00 00 00");
    EXPECT_EQ(PayloadOf(Generate(Request(3, AMF_NUMBER, 7), RTMP_MSG_PING_RESPONSE).get()),
              "00 07 00 00 00 00");
}

TEST_F(Control, WithoutMemoryThereIsNoControlMessage)
{
    for (int call = 1; call <= 2; call++) {
        calls::failNext(Call::Calloc, call);
        EXPECT_EQ(Generate(nullptr, RTMP_MSG_SET_PEER_BANDWIDTH), nullptr);
    }
    for (int call = 1; call <= 2; call++) {
        calls::failNext(Call::Calloc, call);
        EXPECT_EQ(Generate(nullptr, RTMP_MSG_STREAM_BEGIN), nullptr);
    }
    const char *const last = "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message";
    EXPECT_EQ(
        log.lines(),
        (Lines{"3 ERROR: GenerateProtoCtrlMsgRes: Cannot allocate memory to sndStrmPkt", last,
               "3 ERROR: GenerateProtoCtrlMsgRes: Cannot allocate memory to sndStrmPkt->PayloadData", last,
               "3 ERROR: GenerateUsrCtrlMsgRes: Cannot allocate memory to sndStrmPkt", last,
               "3 ERROR: GenerateUsrCtrlMsgRes: Cannot allocate memory to sndStrmPkt->PayloadData", last}));
}

TEST_F(Control, AListThatCannotBeLockedEndsTheGeneration)
{
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_STREAM_BEGIN), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: GetSendPktFromList: Cannot lock send packet list",
                     "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message"}));
}

} // namespace
