#include "message_fixture.h"
#include "rtmpcast/player.h"

namespace {

class GenerateMessage : public MessageTest {
  protected:
    GenerateMessage()
    {
        client.StreamId = 1;
        client.StatusChunkStreamId = 5;
        client.AudioChunkStreamId = 6;
        video.AvccBox = avcBody;
        video.AvccBoxLen = sizeof avcBody;
        audio.AacSeqHdrLen = 4;
        memcpy(audio.AacSeqHdr, "\xAF\x00\x12\x10", 4);
        codec.VdCodecId = 7;
        codec.VdCodecInfo = &video;
        codec.AdCodecId = 10;
        codec.AdCodecInfo = &audio;
        codec.MetaData = metaData;
        codec.MetaDataLen = sizeof metaData;
        session.CodecInfo = &codec;
        client.Session = &session;
    }

    uint8_t avcBody[9] = {0x17, 0, 0, 0, 0, 1, 0x42, 0, 0x1E};
    uint8_t metaData[3] = {2, 0, 10};
    VdCodecInfo video = {};
    AdCodecInfo audio = {};
    CodecInfo codec = {};
};

TEST_F(GenerateMessage, EveryKindHasItsMessageTypeAndCarriesItsKind)
{
    struct Row {
        uint32_t first, last, typeId;
    };
    const Row rows[] = {{2, 2, 20},   {4, 4, 20},  {9, 16, 20}, {23, 23, 20}, {36, 42, 4},
                        {43, 43, 1},  {44, 44, 2}, {45, 45, 3}, {46, 46, 5},  {47, 47, 6},
                        {48, 50, 18}, {51, 51, 9}, {52, 52, 8}, {55, 57, 20}};
    for (const Row &row : rows) {
        for (uint32_t kind = row.first; kind <= row.last; kind++) {
            const Packet pkt = Generate(Request(3, AMF_NUMBER, 1), kind);
            ASSERT_NE(pkt, nullptr) << kind;
            EXPECT_EQ(pkt->MsgTypeId, row.typeId) << kind;
            EXPECT_EQ(pkt->MsgKind, kind);
            EXPECT_EQ(pkt->Next, nullptr);
            EXPECT_EQ(pkt->Prev, nullptr);
        }
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(GenerateMessage, OtherKindsHaveNoMessage)
{
    for (uint32_t kind : {0U, 1U, 3U, 5U, 8U, 17U, 22U, 24U, 35U, 53U, 54U, 1000U, 0xFFFFFFFFU}) {
        log.clear();
        EXPECT_EQ(Generate(Request(3, AMF_NUMBER, 1), kind), nullptr) << kind;
        EXPECT_EQ(log.lines(),
                  Lines{"3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message"});
    }
}

TEST_F(GenerateMessage, WithoutAClientThereIsNoMessage)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(GenerateRtmpMsg(nullptr, nullptr, RTMP_MSG_PLAY_START), nullptr);
    EXPECT_EQ(produced::CapturedStdout(),
              "RTMPWriter: ERROR: GenerateRtmpMsg: Cannot generate response message of command message\n");
}

TEST_F(GenerateMessage, TheAvcSequenceHeaderIsTheSessionsOwn)
{
    const Packet pkt = Generate(nullptr, RTMP_MSG_VIDEO);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->PayloadData, avcBody);
    EXPECT_EQ(pkt->PayloadLength, 9U);
    EXPECT_EQ(pkt->ChunkStreamId, 5U);
}

TEST_F(GenerateMessage, AClientOfTheDescriptionRuleGetsTheWholeAvcSequenceHeader)
{
    uint8_t whole[13] = {0x17, 0, 0, 0, 0, 1, 0x64, 0, 0x1E, 0xFD, 0xF8, 0xF8, 0};
    codec.PlayerAvccBox = whole;
    codec.PlayerAvccBoxLen = sizeof whole;
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_VIDEO)->PayloadData, avcBody);
    client.PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_DESCRIPTION;
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_VIDEO)->PayloadData, avcBody);

    client.PlayerFlags = RTMP_PLAYERS_DESCRIPTION;
    for (int i = 0; i < 2; i++) { // borrowed, as the exact one
        const Packet pkt = Generate(nullptr, RTMP_MSG_VIDEO);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->PayloadData, whole);
        EXPECT_EQ(pkt->PayloadLength, 13U);
        EXPECT_EQ(pkt->ChunkStreamId, 5U);
    }
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_AUDIO)->PayloadData, audio.AacSeqHdr);
    codec.PlayerAvccBox = nullptr; // registered before the setting
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_VIDEO)->PayloadData, avcBody);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_VIDEO)->PayloadLength, 9U);
}

TEST_F(GenerateMessage, TheAacSequenceHeaderIsTheSessionsOwn)
{
    const Packet pkt = Generate(nullptr, RTMP_MSG_AUDIO);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->PayloadData, audio.AacSeqHdr);
    EXPECT_EQ(pkt->PayloadLength, 4U);
    EXPECT_EQ(pkt->ChunkStreamId, 6U);
}

TEST_F(GenerateMessage, ASequenceHeaderHasTheTimeOfTheMessageBeforeIt)
{
    Store(5, 700);
    const Packet pkt = Generate(nullptr, RTMP_MSG_VIDEO);
    EXPECT_EQ(pkt->Timestamp, 700U);
    EXPECT_EQ(ToHex(pkt->HdrTimestampDelta, 3), "00 00 00");
}

struct RefusalRow {
    const char *sentence;
    uint32_t kind;
    void (*change)(RtmpClient *client, CodecInfo *codec);
    const char *line;
};

const RefusalRow kRefusals[] = {
    {"video without a session", RTMP_MSG_VIDEO, [](RtmpClient *c, CodecInfo *) { c->Session = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Client is not connected to valid session"},
    {"audio without a session", RTMP_MSG_AUDIO, [](RtmpClient *c, CodecInfo *) { c->Session = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Client is not connected to valid session"},
    {"video without media", RTMP_MSG_VIDEO,
     [](RtmpClient *c, CodecInfo *) { c->Session->CodecInfo = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Codec information not present in session"},
    {"audio without media", RTMP_MSG_AUDIO,
     [](RtmpClient *c, CodecInfo *) { c->Session->CodecInfo = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Codec information not present in session"},
    {"video of an audio session", RTMP_MSG_VIDEO,
     [](RtmpClient *, CodecInfo *codec) { codec->VdCodecInfo = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Video codec information not present"},
    {"video without a sequence header", RTMP_MSG_VIDEO,
     [](RtmpClient *, CodecInfo *codec) { codec->VdCodecInfo->AvccBox = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Video codec information not present"},
    {"another video codec", RTMP_MSG_VIDEO, [](RtmpClient *, CodecInfo *codec) { codec->VdCodecId = 2; },
     "3 ERROR: GenerateRtmpMsg: Unsupported video codec"},
    {"another audio codec", RTMP_MSG_AUDIO, [](RtmpClient *, CodecInfo *codec) { codec->AdCodecId = 2; },
     "3 ERROR: GenerateRtmpMsg: Audio codec not supported"},
    {"audio of a video session", RTMP_MSG_AUDIO,
     [](RtmpClient *, CodecInfo *codec) {
         codec->AdCodecId = 0;
         codec->AdCodecInfo = nullptr;
     },
     "3 ERROR: GenerateRtmpMsg: Audio codec not supported"},
    {"audio without its configuration", RTMP_MSG_AUDIO,
     [](RtmpClient *, CodecInfo *codec) { codec->AdCodecInfo = nullptr; },
     "3 ERROR: GenerateRtmpMsg: Audio codec not supported"},
};

TEST_F(GenerateMessage, ASequenceHeaderThatIsNotThereIsRefused)
{
    for (const RefusalRow &row : kRefusals) {
        SCOPED_TRACE(row.sentence);
        uint8_t *const box = video.AvccBox;
        const CodecInfo whole = codec;
        log.clear();
        row.change(&client, &codec);
        EXPECT_EQ(Generate(nullptr, row.kind), nullptr);
        EXPECT_EQ(log.lines(), Lines{row.line});
        codec = whole;
        video.AvccBox = box;
        session.CodecInfo = &codec;
        client.Session = &session;
    }
}

TEST_F(GenerateMessage, ASequenceHeaderWithoutMemoryIsAFailedGenerator)
{
    calls::failNext(Call::Calloc);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_VIDEO), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: GenerateRtmpMediaMsg: Cannot allocate memory to sndStrmPkt",
                     "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message"}));
}

// What a player without a session is sent before the metadata fails: state, counters and log.
TEST_F(GenerateMessage, APlayWithoutASessionGetsAsFarAsTheMetaData)
{
    client.Session = nullptr;
    for (uint32_t kind :
         {RTMP_MSG_PLAY_RESET, RTMP_MSG_STREAM_BEGIN, RTMP_MSG_PLAY_START, RTMP_MSG_SAMPLE_ACCESS}) {
        EXPECT_NE(Generate(nullptr, kind), nullptr) << kind;
    }
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_META_DATA), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: GenerateRtmpDataMsg: Client not connected to valid session",
                     "3 ERROR: GenerateRtmpMsg: Cannot generate meta data message",
                     "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message"}));
}

// The road of one player on chunk streams 2 and 3, headers as the send path asks for them.
TEST_F(GenerateMessage, TheHeadersOfAConnectSequence)
{
    struct Row {
        uint32_t kind;
        const char *header;
    };
    const Row rows[] = {
        {RTMP_MSG_WINDOW_ACK_SIZE, "02 00 03 E8 00 00 04 05 00 00 00 00"},
        {RTMP_MSG_SET_PEER_BANDWIDTH, "42 00 00 02 00 00 05 06"},
        {RTMP_MSG_STREAM_BEGIN, "42 00 00 02 00 00 06 04"},
        {RTMP_MSG_SET_CHUNK_SIZE, "42 00 00 02 00 00 04 01"},
        {RTMP_MSG_CONNECT, "03 00 03 F0 00 00 B3 14 00 00 00 00"},
        {RTMP_MSG_ON_BW_DONE, "43 00 00 02 00 00 15 14"},
        {RTMP_MSG_WINDOW_ACK_SIZE, "82 00 00 06"},
    };
    Request(3, AMF_NUMBER, 1);
    for (const Row &row : rows) {
        Packet pkt = Generate(&request, row.kind);
        RtmpSendPkt *previous = GetSendPktFromList(&client, static_cast<int>(pkt->ChunkStreamId));
        RtmpChunkHdr *hdr =
            GenerateChunkHdr(&client, pkt.get(), row.kind, DecideMsgHdrType(pkt.get(), previous));
        EXPECT_EQ(ToHex(hdr->Data, hdr->Length), row.header) << row.kind;
        free(hdr->Data);
        free(hdr);
        if (previous == nullptr) {
            EXPECT_EQ(AddSendPkt(&client, pkt.release()), 0);
        }
        calls::setClock(calls::clock() + 2);
    }
}

} // namespace
