#include "rtmpcast/player.h"
#include "rtmpcast/publish.h"
#include "support/bytes.h"
#include "support/session_rig.h"

#include <gtest/gtest.h>

namespace {

class ProtocolControl : public testing::Test {
  protected:
    // What ParseRequestMsg answers to a message; its kind is in `kind`.
    int parse(uint32_t type, Bytes payload)
    {
        RtmpRecvPkt pkt = {};
        pkt.MsgTypeId = type;
        pkt.MsgLength = static_cast<uint32_t>(payload.size());
        payload.resize(payload.size() + 1); // a message of no bytes has a buffer too
        pkt.PayloadData = payload.data();
        kind = 0;
        return ParseRequestMsg(player.client, &pkt, &kind);
    }

    // A message on chunk stream 3 of which some has come, stored.
    RtmpRecvPkt *begin()
    {
        RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
        pkt->ChunkStreamId = 3;
        pkt->MsgLength = 10;
        pkt->ReceivedBytes = 4;
        pkt->PayloadData = static_cast<uint8_t *>(calloc(1, 10));
        EXPECT_EQ(AddRecvPkt(player.client, pkt), 0);
        return pkt;
    }

    SessionRig rig;
    RigClient player = rig.addClient(CLIENT_STATE_CREATESTREAM_DONE);
    uint32_t kind = 0;
};

struct ChunkSizeRow {
    const char *sentence;
    Bytes payload;
    uint32_t exact;
    const char *exactLine;
    uint32_t standard;
    const char *standardLine;
};

TEST_F(ProtocolControl, SetChunkSizeIsTakenWholeOrAsTheStandardHasIt)
{
    constexpr char kLine[] = "6 INFO: ParseRequestMsg: Client to Server Chunk Size : ";
    const ChunkSizeRow rows[] = {
        {"usual", Hex("00001000"), 4096, "4096", 4096, "4096"},
        {"one", Hex("00000001"), 1, "1", 1, "1"},
        {"none: the last one stays", Hex("00000000"), 0, "0", 77, "77"},
        {"the largest", Hex("7FFFFFFF"), 0x7FFFFFFF, "2147483647", 0x7FFFFFFF, "2147483647"},
        {"with the reserved bit", Hex("80001000"), 0x80001000, "-2147479552", 4096, "4096"},
        {"the reserved bit alone", Hex("80000000"), 0x80000000, "-2147483648", 77, "77"},
        {"not whole", Hex("0010"), 0x00100000, "1048576", 0x00100000, "1048576"},
        {"empty", {}, 0, "0", 77, "77"},
    };
    for (const ChunkSizeRow &row : rows) {
        for (const bool standard : {false, true}) {
            SCOPED_TRACE(std::string(row.sentence) + (standard ? ", standard" : ", exact"));
            rig.log.clear();
            player.client->PlayerFlags =
                standard ? RTMP_PLAYERS_CHUNKS_IN : RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CHUNKS_IN;
            player.client->InChunkSize = 77;
            EXPECT_EQ(parse(RTMP_TYPE_SET_CHUNK_SIZE, row.payload), 0);
            EXPECT_EQ(kind, uint32_t{RTMP_MSG_SET_CHUNK_SIZE});
            EXPECT_EQ(player.client->InChunkSize, standard ? row.standard : row.exact);
            EXPECT_EQ(rig.log.lines(),
                      (std::vector<std::string>{
                          "6 INFO: ParseRequestMsg: Received Protocol control message: SET CHUNK SIZE",
                          std::string(kLine) + (standard ? row.standardLine : row.exactLine)}));
        }
    }
}

TEST_F(ProtocolControl, AbortDropsNothingByDefault)
{
    RtmpRecvPkt *pkt = begin();
    player.client->PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_CHUNKS_IN;
    EXPECT_EQ(parse(RTMP_TYPE_ABORT, Hex("00000003")), 0);
    EXPECT_EQ(kind, uint32_t{RTMP_MSG_ABORT});
    EXPECT_EQ(pkt->Complete, 0U);
}

TEST_F(ProtocolControl, AbortDropsTheMessageOfTheChunkStreamItNames)
{
    RtmpRecvPkt *pkt = begin();
    player.client->PlayerFlags = RTMP_PLAYERS_CHUNKS_IN;
    rig.log.clear();
    for (const char *other : {"00000004", "00030000", "03", ""}) {
        EXPECT_EQ(parse(RTMP_TYPE_ABORT, Hex(other)), 0);
        EXPECT_EQ(pkt->Complete, 0U) << other;
    }
    EXPECT_EQ(parse(RTMP_TYPE_ABORT, Hex("00000003")), 0);
    EXPECT_EQ(kind, uint32_t{RTMP_MSG_ABORT});
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>(
                                   5, "6 INFO: ParseRequestMsg: Received Protocol control message: ABORT"));
}

} // namespace
