#include "message_fixture.h"
#include "rtmpcast/player.h"

namespace {

class DataMessages : public MessageTest {
  protected:
    DataMessages()
    {
        client.StreamId = 1;
        client.StatusChunkStreamId = 5;
        codec.MetaData = body;
        codec.MetaDataLen = sizeof body;
    }

    // Both lines that a failed generation of metadata ends with.
    Lines Refused(const std::string &first, bool isMetaData)
    {
        Lines lines = {first};
        if (isMetaData) {
            lines.push_back("3 ERROR: GenerateRtmpMsg: Cannot generate meta data message");
        }
        lines.push_back("3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message");
        return lines;
    }

    uint8_t body[3] = {2, 0, 10};
    CodecInfo codec = {};
};

TEST_F(DataMessages, DataStart)
{
    const Packet pkt = Generate(nullptr, RTMP_MSG_DATA_START);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(PayloadOf(pkt.get()), "02 00 08 6F 6E 53 74 61 74 75 73 03 00 04 63 6F 64 65 02 00 14 "
                                    "4E 65 74 53 74 72 65 61 6D 2E 44 61 74 61 2E 53 74 61 72 74 00 00 09");
    EXPECT_EQ(pkt->MsgTypeId, 18U);
    EXPECT_EQ(pkt->MsgKind, 48U);
    EXPECT_EQ(pkt->ChunkStreamId, 5U);
    EXPECT_EQ(StreamIdOf(pkt.get()), "01 00 00 00");
    EXPECT_EQ(ToHex(pkt->HdrTimestamp, 3), "00 03 E8");
}

TEST_F(DataMessages, SampleAccess)
{
    const Packet pkt = Generate(nullptr, RTMP_MSG_SAMPLE_ACCESS);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(PayloadOf(pkt.get()),
              "02 00 11 7C 52 74 6D 70 53 61 6D 70 6C 65 41 63 63 65 73 73 01 00 01 00");
    EXPECT_EQ(pkt->MsgTypeId, 18U);
    EXPECT_EQ(pkt->MsgKind, 50U);
    EXPECT_EQ(pkt->ChunkStreamId, 5U);
    EXPECT_EQ(StreamIdOf(pkt.get()), "01 00 00 00");
}

TEST_F(DataMessages, MetaDataIsTheSessionsOwnBodyAndOutlivesTheMessage)
{
    session.CodecInfo = &codec;
    client.Session = &session;
    for (int i = 0; i < 2; i++) {
        const Packet pkt = Generate(nullptr, RTMP_MSG_META_DATA);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->PayloadData, body);
        EXPECT_EQ(pkt->PayloadLength, 3U);
        EXPECT_EQ(pkt->MsgTypeId, 18U);
        EXPECT_EQ(pkt->MsgKind, 49U);
        EXPECT_EQ(pkt->ChunkStreamId, 5U);
        EXPECT_EQ(StreamIdOf(pkt.get()), "01 00 00 00");
    }
    EXPECT_EQ(ToHex(body, 3), "02 00 0A");
}

TEST_F(DataMessages, AClientOfTheDescriptionRuleGetsTheWellFormedMetaData)
{
    uint8_t wellFormed[4] = {2, 0, 10, 'o'};
    session.CodecInfo = &codec;
    client.Session = &session;
    codec.PlayerMetaData = wellFormed;
    codec.PlayerMetaDataLen = sizeof wellFormed;
    const Packet exact = Generate(nullptr, RTMP_MSG_META_DATA);
    EXPECT_EQ(exact->PayloadData, body);
    EXPECT_EQ(exact->PayloadLength, 3U);

    client.PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_DESCRIPTION;
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_META_DATA)->PayloadData, body);

    client.PlayerFlags = RTMP_PLAYERS_DESCRIPTION;
    for (int i = 0; i < 2; i++) { // borrowed, as the exact one
        const Packet pkt = Generate(nullptr, RTMP_MSG_META_DATA);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->PayloadData, wellFormed);
        EXPECT_EQ(pkt->PayloadLength, 4U);
        EXPECT_EQ(pkt->MsgTypeId, 18U);
        EXPECT_EQ(pkt->ChunkStreamId, 5U);
    }
    EXPECT_EQ(ToHex(wellFormed, 4), "02 00 0A 6F");
}

TEST_F(DataMessages, MetaDataThatWasRegisteredBeforeTheSettingIsTheExactOne)
{
    session.CodecInfo = &codec;
    client.Session = &session;
    client.PlayerFlags = RTMP_PLAYERS_DESCRIPTION;
    const Packet pkt = Generate(nullptr, RTMP_MSG_META_DATA);
    EXPECT_EQ(pkt->PayloadData, body);
    EXPECT_EQ(pkt->PayloadLength, 3U);
}

TEST_F(DataMessages, DeltasAreTakenAgainstTheStatusChunkStream)
{
    Store(5, 990);
    EXPECT_EQ(ToHex(Generate(nullptr, RTMP_MSG_DATA_START)->HdrTimestampDelta, 3), "00 00 0A");
    session.CodecInfo = &codec;
    client.Session = &session;
    EXPECT_EQ(ToHex(Generate(nullptr, RTMP_MSG_META_DATA)->HdrTimestampDelta, 3), "00 00 0A");
}

TEST_F(DataMessages, WithoutASessionThereIsNoMetaData)
{
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_META_DATA), nullptr);
    EXPECT_EQ(log.lines(),
              Refused("3 ERROR: GenerateRtmpDataMsg: Client not connected to valid session", true));
}

TEST_F(DataMessages, WithoutMediaThereIsNoMetaData)
{
    client.Session = &session;
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_META_DATA), nullptr);
    EXPECT_EQ(log.lines(),
              Refused("3 ERROR: GenerateRtmpDataMsg: Codec information not added in session", true));
}

TEST_F(DataMessages, WithoutMemoryThereIsNoMetaData)
{
    session.CodecInfo = &codec;
    client.Session = &session;
    calls::failNext(Call::Calloc);
    EXPECT_EQ(Generate(nullptr, RTMP_MSG_META_DATA), nullptr);
    EXPECT_EQ(log.lines(),
              Refused("3 ERROR: GenerateRtmpDataMsg: Cannot allocate memory to sndStrmPkt", true));
}

// For every allocation that fails: the line of GenerateRtmpDataMsg, repetitions left out.
Lines FailureLines(CaptureLogger *log, RtmpClient *client, uint32_t kind)
{
    Lines lines;
    for (int call = 1; call < 100; call++) {
        log->clear();
        calls::failNext(Call::Calloc, call);
        const Packet pkt(GenerateRtmpMsg(client, nullptr, kind));
        calls::failNext(Call::Calloc, 0);
        if (pkt != nullptr) {
            return lines;
        }
        const Lines all = log->lines();
        EXPECT_GE(all.size(), 2U);
        EXPECT_EQ(all.back(),
                  "3 ERROR: GenerateRtmpMsg: Cannot generate response message of command message");
        const std::string line = all[all.size() - 2];
        if (lines.empty() || lines.back() != line) {
            lines.push_back(line);
        }
    }
    ADD_FAILURE() << "it never succeeds";
    return lines;
}

TEST_F(DataMessages, EveryFailureNamesWhatCouldNotBeEncoded)
{
    const std::string start = "3 ERROR: GenerateRtmpDataMsg: ";
    EXPECT_EQ(FailureLines(&log, &client, RTMP_MSG_DATA_START),
              (Lines{start + "Cannot allocate memory to sndStrmPkt", start + "Cannot encode Amf onStatus",
                     start + "Cannot encode Amf code", start + "Cannot encode Amf sub-object1",
                     start + "Error occured while generating payload data"}));
    EXPECT_EQ(
        FailureLines(&log, &client, RTMP_MSG_SAMPLE_ACCESS),
        (Lines{start + "Cannot allocate memory to sndStrmPkt", start + "Cannot encode Amf |RtmpSampleAccess",
               start + "Cannot encode Amf", start + "Error occured while generating payload data"}));
}

} // namespace
