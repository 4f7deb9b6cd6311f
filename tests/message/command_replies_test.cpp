#include "message/command_replies.h"
#include "message/send_packet.h"
#include "message_fixture.h"
#include "rtmpcast/player.h"

#include <limits>

namespace {

class CommandReplies : public MessageTest {};

const char kOnStatus[] = "02 00 08 6F 6E 53 74 61 74 75 73 00 00 00 00 00 00 00 00 00 05 03";

// A string member of an object: its name, marker 02, its value.
Bytes Member(const std::string &name, const std::string &value)
{
    return BigEndian(name.size(), 2) + name + Hex("02") + BigEndian(value.size(), 2) + value;
}

TEST_F(CommandReplies, AKindThatIsNoReplyHasNoText)
{
    EXPECT_EQ(GenerateCmdMsgRes(&client, Request(3, AMF_NUMBER, 1), RTMP_MSG_SAMPLE_ACCESS), nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: GenerateCmdMsgRes: Cannot write amf data in send amf object"});
}

TEST_F(CommandReplies, OfNoValuesThereIsNoPayload)
{
    RtmpSendPkt pkt = {};
    AmfObject none = {};
    EXPECT_EQ(EncodePayload(&client, &pkt, &none, "Somebody"), -1);
    EXPECT_EQ(pkt.PayloadData, nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: Somebody: Error occured while calculating payload size"});
}

TEST_F(CommandReplies, AConnectIsAnsweredOnItsOwnChunkStream)
{
    client.ConnStreamId = 0;
    client.StreamId = 9;
    const Packet pkt = Generate(Request(3, AMF_NUMBER, 1), RTMP_MSG_CONNECT);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ChunkStreamId, 3U);
    EXPECT_EQ(pkt->MsgTypeId, 20U);
    EXPECT_EQ(pkt->MsgKind, 2U);
    EXPECT_EQ(StreamIdOf(pkt.get()), "00 00 00 00");
    EXPECT_EQ(pkt->Timestamp, 1000U);
    EXPECT_EQ(PayloadOf(pkt.get()),
              "02 00 07 5F 72 65 73 75 6C 74 "                               // "_result"
              "00 3F F0 00 00 00 00 00 00 "                                  // 1
              "03 "                                                          // {
              "00 06 66 6D 73 56 65 72 "                                     // fmsVer:
              "02 00 0D 46 4D 53 2F 33 2C 35 2C 31 2C 35 31 36 "             // "FMS/3,5,1,516"
              "00 0C 63 61 70 61 62 69 6C 69 74 69 65 73 "                   // capabilities:
              "00 40 3F 00 00 00 00 00 00 "                                  // 31
              "00 04 6D 6F 64 65 00 3F F0 00 00 00 00 00 00 "                // mode: 1
              "00 00 09 03 "                                                 // } {
              "00 05 6C 65 76 65 6C 02 00 06 73 74 61 74 75 73 "             // level: "status"
              "00 04 63 6F 64 65 02 00 1D "                                  // code:
              "4E 65 74 43 6F 6E 6E 65 63 74 69 6F 6E 2E 43 6F 6E 6E 65 "    // "NetConnection.Conne
              "63 74 2E 53 75 63 63 65 73 73 "                               //  ct.Success"
              "00 0B 64 65 73 63 72 69 70 74 69 6F 6E 02 00 14 "             // description:
              "43 6F 6E 6E 65 63 74 69 6F 6E 20 73 75 63 63 65 65 64 65 64 " // "Connection succeeded"
              "00 00 09");                                                   // }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(CommandReplies, AConnectAfterAPlayNamesTheStreamToo)
{
    char stream[] = "live";
    client.StreamName = stream;
    calls::setClock(5001); // 0x1389
    const Packet pkt = Generate(Request(3, AMF_NUMBER, 1), RTMP_MSG_CONNECT);
    EXPECT_EQ(PayloadOf(pkt.get()),
              ToHex(Hex("02 00 07") + "_result" + Hex("00 3F F0 00 00 00 00 00 00 03") +
                    Member("fmsVer", "FMS/3,5,1,516") + Hex("00 0C") + "capabilities" +
                    Hex("00 40 3F 00 00 00 00 00 00 00 04") + "mode" + Hex("00 3F F0 00 00 00 00 00 00") +
                    Hex("00 00 09 03") + Member("level", "status") +
                    Member("code", "NetConnection.Connect.Success") +
                    Member("description", "Connection succeeded live") + Member("details", "live") +
                    Member("clientid", "1389") + Hex("00 00 09")));
}

TEST_F(CommandReplies, EveryCreateStreamCountsTheStreamsUp)
{
    client.ConnStreamId = 0;
    const Packet first = Generate(Request(3, AMF_NUMBER, 2), RTMP_MSG_CREATE_STREAM);
    EXPECT_EQ(PayloadOf(first.get()), "02 00 07 5F 72 65 73 75 6C 74 00 40 00 00 00 00 00 00 00 "
                                      "05 00 3F F0 00 00 00 00 00 00");
    EXPECT_EQ(first->ChunkStreamId, 3U);
    EXPECT_EQ(StreamIdOf(first.get()), "00 00 00 00");
    const Packet second = Generate(Request(8, AMF_NUMBER, 3), RTMP_MSG_CREATE_STREAM);
    EXPECT_EQ(PayloadOf(second.get()), "02 00 07 5F 72 65 73 75 6C 74 00 40 08 00 00 00 00 00 00 "
                                       "05 00 40 00 00 00 00 00 00 00");
    EXPECT_EQ(second->ChunkStreamId, 8U);
    EXPECT_EQ(client.StreamId, 2U);
}

TEST_F(CommandReplies, BandwidthDoneGoesOutOnTheChunkStreamOfTheRequest)
{
    const Packet pkt = Generate(Request(3, AMF_NUMBER, 77), RTMP_MSG_ON_BW_DONE);
    EXPECT_EQ(PayloadOf(pkt.get()), "02 00 08 6F 6E 42 57 44 6F 6E 65 00 00 00 00 00 00 00 00 00 05");
    EXPECT_EQ(pkt->ChunkStreamId, 3U);
    EXPECT_EQ(pkt->MsgKind, 11U);
    EXPECT_EQ(StreamIdOf(pkt.get()), "00 00 00 00");
}

struct StatusRow {
    const char *sentence;
    uint32_t kind;
    uint8_t pauseFlag;
    uint32_t chunkStreamId; // with a status chunk stream of 6
    const char *streamId;
    const char *level, *code, *description;
};

const StatusRow kStatuses[] = {
    {"pause", RTMP_MSG_PAUSE, 0, 5, "07 00 00 00", "status", "NetStream.Pause.Notify", "Pausing"},
    {"resume", RTMP_MSG_PAUSE, 1, 5, "07 00 00 00", "status", "NetStream.Unpause.Notify", "Unpausing"},
    {"an odd flag is a pause", RTMP_MSG_PAUSE, 2, 5, "07 00 00 00", "status", "NetStream.Pause.Notify",
     "Pausing"},
    {"reset", RTMP_MSG_PLAY_RESET, 0, 6, "07 00 00 00", "status", "NetStream.Play.Reset",
     "Playing and resetting"},
    {"start", RTMP_MSG_PLAY_START, 0, 6, "07 00 00 00", "status", "NetStream.Play.Start", "Started playing"},
    {"stop", RTMP_MSG_PLAY_STOP, 1, 6, "07 00 00 00", "status", "NetStream.Play.Stop", "Stopped playing"},
    {"not found", RTMP_MSG_STREAM_NOT_FOUND, 0, 6, "07 00 00 00", "error", "NetStream.Play.StreamNotFound",
     "Stream not found"},
    {"refused", RTMP_MSG_CONNECT_FAILED, 0, 0, "00 00 00 00", "error", "NetConnection.Connect.Failed",
     "Connection failed"},
};

TEST_F(CommandReplies, EveryStatusWithoutAStreamName)
{
    client.StreamId = 7;
    for (const StatusRow &row : kStatuses) {
        SCOPED_TRACE(row.sentence);
        client.StatusChunkStreamId = 6;
        client.PauseFlag = row.pauseFlag;
        const Packet pkt = Generate(nullptr, row.kind);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(PayloadOf(pkt.get()),
                  ToHex(Hex(kOnStatus) + Member("level", row.level) + Member("code", row.code) +
                        Member("description", row.description) + Hex("00 00 09")));
        EXPECT_EQ(pkt->ChunkStreamId, row.chunkStreamId);
        EXPECT_EQ(pkt->MsgTypeId, 20U);
        EXPECT_EQ(pkt->MsgKind, row.kind);
        EXPECT_EQ(StreamIdOf(pkt.get()), row.streamId);
        EXPECT_EQ(client.StatusChunkStreamId, row.kind == RTMP_MSG_PLAY_RESET ? 7U : 6U);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(CommandReplies, EveryStatusWithAStreamName)
{
    char stream[] = "camera";
    client.StreamName = stream;
    client.StreamId = 7;
    for (const StatusRow &row : kStatuses) {
        SCOPED_TRACE(row.sentence);
        client.StatusChunkStreamId = 6;
        client.PauseFlag = row.pauseFlag;
        const Packet pkt = Generate(nullptr, row.kind);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(PayloadOf(pkt.get()),
                  ToHex(Hex(kOnStatus) + Member("level", row.level) + Member("code", row.code) +
                        Member("description", row.description + std::string(" camera")) +
                        Member("details", "camera") + Member("clientid", "1388") + Hex("00 00 09")));
    }
}

TEST_F(CommandReplies, TheStartStatusByteForByte)
{
    char stream[] = "ab";
    client.StreamName = stream;
    client.StreamId = 1;
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_PLAY_START).get()),
              "02 00 08 6F 6E 53 74 61 74 75 73 "                             // "onStatus"
              "00 00 00 00 00 00 00 00 00 05 03 "                             // 0 null {
              "00 05 6C 65 76 65 6C 02 00 06 73 74 61 74 75 73 "              // level
              "00 04 63 6F 64 65 02 00 14 "                                   // code
              "4E 65 74 53 74 72 65 61 6D 2E 50 6C 61 79 2E 53 74 61 72 74 "  // NetStream.Play.Start
              "00 0B 64 65 73 63 72 69 70 74 69 6F 6E 02 00 12 "              // description
              "53 74 61 72 74 65 64 20 70 6C 61 79 69 6E 67 20 61 62 "        // Started playing ab
              "00 07 64 65 74 61 69 6C 73 02 00 02 61 62 "                    // details: "ab"
              "00 08 63 6C 69 65 6E 74 69 64 02 00 04 31 33 38 38 00 00 09"); // clientid: "1388" }
}

TEST_F(CommandReplies, ResetIsTheLastMessageOnItsChunkStream)
{
    const Packet reset = Generate(nullptr, RTMP_MSG_PLAY_RESET);
    const Packet start = Generate(nullptr, RTMP_MSG_PLAY_START);
    const Packet pause = Generate(nullptr, RTMP_MSG_PAUSE);
    EXPECT_EQ(reset->ChunkStreamId, 4U);
    EXPECT_EQ(start->ChunkStreamId, 5U);
    EXPECT_EQ(pause->ChunkStreamId, 4U);
}

TEST_F(CommandReplies, RefusalsGoOutWithoutABasicHeader)
{
    const Packet pkt = Generate(nullptr, RTMP_MSG_CONNECT_FAILED);
    RtmpChunkHdr *hdr = GenerateChunkHdr(&client, pkt.get(), RTMP_MSG_CONNECT_FAILED, 0);
    // 22 + (7 + 3 + 5) + (6 + 3 + 28) + (13 + 3 + 17) + 3 = 110 bytes of payload
    EXPECT_EQ(ToHex(hdr->Data, hdr->Length), "00 03 E8 00 00 6E 14 00 00 00 00 00 00");
    free(hdr->Data);
    free(hdr);
}

TEST_F(CommandReplies, RefusalsUseTheConnectionsStreamIdAsChunkStream)
{
    client.ConnStreamId = 6;
    const Packet pkt = Generate(nullptr, RTMP_MSG_CONNECT_FAILED);
    EXPECT_EQ(pkt->ChunkStreamId, 6U);
    EXPECT_EQ(StreamIdOf(pkt.get()), "06 00 00 00");
}

TEST_F(CommandReplies, RefusalsAndPongsGoOutOnChunkStream3WhereTheStandardHolds)
{
    client.PlayerFlags = RTMP_PLAYERS_CHUNKS_OUT;
    for (const uint32_t kind : {RTMP_MSG_CONNECT_FAILED, RTMP_MSG_USTREAM_PONG}) {
        const Packet pkt = Generate(nullptr, kind);
        EXPECT_EQ(pkt->ChunkStreamId, 3U);
        EXPECT_EQ(StreamIdOf(pkt.get()), "00 00 00 00");
        RtmpChunkHdr *hdr = GenerateChunkHdr(&client, pkt.get(), kind, 0);
        EXPECT_EQ(ToHex(hdr->Data, hdr->Length), kind == RTMP_MSG_USTREAM_PONG
                                                     ? "03 00 03 E8 00 00 00 14 00 00 00 00"
                                                     : "03 00 03 E8 00 00 6E 14 00 00 00 00");
        free(hdr->Data);
        free(hdr);
    }
}

TEST_F(CommandReplies, SeekAndPublishAreAnsweredOnTheMessageStreamOfTheRequest)
{
    struct Row {
        uint32_t kind;
        const char *level, *code, *description;
    };
    const Row rows[] = {
        {RTMP_MSG_SEEK, "status", "NetStream.Seek.Notify", "Seeking"},
        {RTMP_MSG_PUBLISH, "error", "NetStream.Publish.Denied", "Publishing is not served"},
    };
    client.StreamId = 7;
    client.StatusChunkStreamId = 6;
    for (const Row &row : rows) {
        Request(8, AMF_NUMBER, 4);
        request.MsgStreamId[0] = 0x12;
        request.MsgStreamId[1] = 0x34;
        const Packet pkt = Generate(&request, row.kind);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(PayloadOf(pkt.get()),
                  ToHex(Hex(kOnStatus) + Member("level", row.level) + Member("code", row.code) +
                        Member("description", row.description) + Hex("00 00 09")));
        EXPECT_EQ(pkt->ChunkStreamId, 5U) << "beside the frames' one";
        EXPECT_EQ(StreamIdOf(pkt.get()), "12 34 00 00");
        request.HeaderType = 1; // names no stream
        EXPECT_EQ(StreamIdOf(Generate(&request, row.kind).get()), "07 00 00 00");
        client.PlayerFlags = RTMP_PLAYERS_CHUNKS_IN; // the reader has inherited it
        EXPECT_EQ(StreamIdOf(Generate(&request, row.kind).get()), "12 34 00 00");
        client.PlayerFlags = RTMP_PLAYERS_EXACT;
        EXPECT_EQ(StreamIdOf(Generate(nullptr, row.kind).get()), "07 00 00 00");
        EXPECT_EQ(client.StatusChunkStreamId, 6U);
    }
}

TEST_F(CommandReplies, SeekNamesTheStreamAsEveryStatusDoes)
{
    char stream[] = "mp4:ab?t=1";
    client.StreamName = stream;
    EXPECT_EQ(PayloadOf(Generate(nullptr, RTMP_MSG_SEEK).get()),
              ToHex(Hex(kOnStatus) + Member("level", "status") + Member("code", "NetStream.Seek.Notify") +
                    Member("description", "Seeking mp4:ab?t=1") + Member("details", "mp4:ab?t=1") +
                    Member("clientid", "1388") + Hex("00 00 09")));
}

TEST_F(CommandReplies, ARejectedConnectIsToldWhichPropertyItWas)
{
    client.StreamId = 9;
    Request(11, AMF_NUMBER, 2);
    request.MsgStreamId[0] = 5;
    char property[] = "objectEncoding and more of the payload";
    request.Refusal.What.data = property;
    request.Refusal.What.len = 14;
    const Packet pkt = Generate(&request, RTMP_MSG_CONNECT_REJECTED);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ChunkStreamId, 11U);
    EXPECT_EQ(StreamIdOf(pkt.get()), "00 00 00 00");
    EXPECT_EQ(PayloadOf(pkt.get()),
              ToHex(Hex("02 0006 '_error' 00 4000000000000000 05 03") + Member("level", "error") +
                    Member("code", "NetConnection.Connect.Rejected") +
                    Member("description", "The value of objectEncoding is not accepted") + Hex("00 00 09")));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(CommandReplies, ARejectionHasRoomForNoLongProperty)
{
    Request(3, AMF_NUMBER, 1);
    std::string property(65535, 'p');
    request.Refusal.What.data = property.data();
    request.Refusal.What.len = 65535;
    const std::string payload = PayloadOf(Generate(&request, RTMP_MSG_CONNECT_REJECTED).get());
    const std::string cut = ToHex(Member("description", "The value of " + std::string(50, 'p')));
    EXPECT_NE(payload.find(cut), std::string::npos) << payload;
}

TEST_F(CommandReplies, APlayAndAPongHaveNoPayload)
{
    client.StreamId = 7;
    const Packet play = Generate(Request(3, AMF_NUMBER, 1), RTMP_MSG_PLAY);
    EXPECT_EQ(play->PayloadLength, 0U);
    EXPECT_EQ(play->ChunkStreamId, 4U);
    EXPECT_EQ(play->MsgTypeId, 20U);
    EXPECT_EQ(StreamIdOf(play.get()), "07 00 00 00");
    const Packet pong = Generate(Request(3, AMF_NUMBER, 1), RTMP_MSG_USTREAM_PONG);
    EXPECT_EQ(pong->PayloadLength, 0U);
    EXPECT_EQ(pong->ChunkStreamId, 0U);
    EXPECT_EQ(pong->MsgTypeId, 20U);
    EXPECT_EQ(StreamIdOf(pong.get()), "00 00 00 00");
}

TEST_F(CommandReplies, APongIsStampedLikeEveryMessage)
{
    Store(0, 700);
    const Packet pong = Generate(nullptr, RTMP_MSG_USTREAM_PONG);
    EXPECT_EQ(pong->Timestamp, 1000U);
    EXPECT_EQ(ToHex(pong->HdrTimestamp, 3), "00 03 E8");
    EXPECT_EQ(ToHex(pong->HdrTimestampDelta, 3), "00 01 2C");
}

TEST_F(CommandReplies, TheDeltaIsTakenAgainstTheChunkStreamTheReplyGoesOutOn)
{
    Store(3, 600);
    Store(4, 900);
    EXPECT_EQ(ToHex(Generate(Request(3, AMF_NUMBER, 1), RTMP_MSG_CONNECT)->HdrTimestampDelta, 3), "00 01 90");
    EXPECT_EQ(ToHex(Generate(nullptr, RTMP_MSG_PLAY_RESET)->HdrTimestampDelta, 3), "00 00 64");
    EXPECT_EQ(ToHex(Generate(nullptr, RTMP_MSG_PLAY_START)->HdrTimestampDelta, 3), "00 00 00");
}

// ------------------------------------------------------------------------------ transaction ids of requests

const Lines kNoReply = {"3 ERROR: WriteCmdMsgPayload: Invalid input arguments",
                        "3 ERROR: GenerateCmdMsgRes: Cannot write amf data in send amf object",
                        "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message"};

struct BadTransactionRow {
    const char *sentence;
    uint32_t type;
    double value;
};

const BadTransactionRow kBadTransactions[] = {
    {"a string", AMF_STRING, 0},
    {"a null", AMF_NULL, 1},
    {"an object", AMF_OBJECT, 0},
    {"a boolean", AMF_BOOLEAN, 1},
    {"a date", AMF_DATE, 1},
    {"minus one", AMF_NUMBER, -1},
    {"not a number", AMF_NUMBER, std::numeric_limits<double>::quiet_NaN()},
};

TEST_F(CommandReplies, ABadTransactionIdGetsNoReply)
{
    for (const BadTransactionRow &row : kBadTransactions) {
        for (uint32_t kind : {RTMP_MSG_CONNECT, RTMP_MSG_CREATE_STREAM, RTMP_MSG_CONNECT_REJECTED}) {
            SCOPED_TRACE(row.sentence);
            log.clear();
            EXPECT_EQ(Generate(Request(3, row.type, row.value), kind), nullptr);
            EXPECT_EQ(log.lines(), kNoReply);
            EXPECT_EQ(client.State, CLIENT_STATE_CONNECT_DONE);
        }
    }
}

TEST_F(CommandReplies, AMissingTransactionIdGetsNoReply)
{
    Request(3, AMF_NUMBER, 1);
    values = {1, &name, &name};
    name.next = nullptr;
    EXPECT_EQ(Generate(&request, RTMP_MSG_CONNECT), nullptr);
    values = {};
    EXPECT_EQ(Generate(&request, RTMP_MSG_CONNECT), nullptr);
    request.Result.Amf = nullptr;
    EXPECT_EQ(Generate(&request, RTMP_MSG_CONNECT), nullptr);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_CONNECT), nullptr);
    EXPECT_EQ(log.count("Invalid input arguments"), 4U);
}

TEST_F(CommandReplies, APacketThatIsNoCommandHasNoTransactionId)
{
    request.ChunkStreamId = 2;
    request.MsgTypeId = RTMP_TYPE_USER_CONTROL;
    request.Result.Event.EventType = 6;
    request.Result.Event.EventValue = 0x12345678; // where a list would be
    EXPECT_EQ(Generate(&request, RTMP_MSG_CONNECT), nullptr);
    EXPECT_EQ(log.lines(), kNoReply);
}

TEST_F(CommandReplies, BandwidthDoneWithoutARequestIsNotSent)
{
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_ON_BW_DONE), nullptr);
    EXPECT_EQ(log.lines(), kNoReply);
}

TEST_F(CommandReplies, ACreateStreamThatFailsHasTakenItsStreamId)
{
    EXPECT_EQ(Generate(Request(3, AMF_NUMBER, -1), RTMP_MSG_CREATE_STREAM), nullptr);
    EXPECT_EQ(client.StreamId, 1U);
}

TEST_F(CommandReplies, WithoutMemoryThereIsNoReply)
{
    calls::failNext(Call::Calloc);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_PLAY_START), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: GenerateCmdMsgRes: Cannot allocate memory to sndStrmPkt",
                     "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message"}));
    for (int call = 2; call < 200; call++) {
        log.clear();
        calls::failNext(Call::Calloc, call);
        const Packet pkt = Generate(nullptr, RTMP_MSG_PLAY_START);
        if (pkt != nullptr) {
            break;
        }
        const Lines lines = log.lines();
        ASSERT_GE(lines.size(), 3U);
        EXPECT_EQ(lines[lines.size() - 2],
                  "3 ERROR: GenerateCmdMsgRes: Cannot write amf data in send amf object");
        EXPECT_EQ(lines.back(), kNoReply.back());
    }
    EXPECT_EQ(log.lines(), Lines{}) << "it never succeeds";
}

} // namespace
