// A message that is refused keeps its reason, for whoever answers the refusal.
#include "net/refusal.h"

#include "rtmpcast/publish.h"
#include "support/bytes.h"
#include "support/session_rig.h"

#include <gtest/gtest.h>

namespace {

struct Refused {
    int result;
    uint32_t kind;
    uint32_t reason;
    std::string what;
};

class Refusal : public testing::Test {
  protected:
    Refused parse(uint32_t type, const Bytes &payload)
    {
        Bytes bytes = payload;
        RtmpRecvPkt pkt = {};
        pkt.MsgTypeId = type;
        pkt.ChunkStreamId = 3;
        pkt.MsgLength = static_cast<uint32_t>(bytes.size());
        pkt.PayloadData = bytes.data();
        Refused out = {};
        out.result = ParseRequestMsg(player.client, &pkt, &out.kind);
        out.reason = pkt.Refusal.Reason;
        out.what.assign(pkt.Refusal.What.data != nullptr ? pkt.Refusal.What.data : "", pkt.Refusal.What.len);
        if (type == RTMP_TYPE_AMF0_COMMAND && pkt.Result.Amf != nullptr) {
            FreeAmfObject(nullptr, pkt.Result.Amf, 0);
            free(pkt.Result.Amf);
        }
        return out;
    }

    SessionRig rig;
    RigClient player = rig.addClient(CLIENT_STATE_CREATESTREAM_DONE);
};

// string "<name>"  number 2  null
Bytes Command(const std::string &name)
{
    Bytes out = {0x02, 0x00, static_cast<uint8_t>(name.size())};
    out.insert(out.end(), name.begin(), name.end());
    return out + Hex("00 4000000000000000 05");
}

TEST_F(Refusal, OfAnUnknownCommandKeepsItsName)
{
    const Refused refused = parse(RTMP_TYPE_AMF0_COMMAND, Command("getStreamLength"));
    EXPECT_EQ(refused.result, 0);
    EXPECT_EQ(refused.kind, uint32_t{RTMP_MSG_UNSUPPORTED});
    EXPECT_EQ(refused.reason, uint32_t{REFUSED_UNKNOWN_COMMAND});
    EXPECT_EQ(refused.what, "getStreamLength");
}

TEST_F(Refusal, OfAKnownCommandThatIsNotServedIsToldApart)
{
    const Refused refused = parse(RTMP_TYPE_AMF0_COMMAND, Command("moduleInfo"));
    EXPECT_EQ(refused.kind, uint32_t{RTMP_MSG_UNSUPPORTED});
    EXPECT_EQ(refused.reason, uint32_t{REFUSED_COMMAND});
    EXPECT_EQ(refused.what, "moduleInfo");
}

TEST_F(Refusal, OfConnectNamesTheProperty)
{
    // connect, 1, {app: "vod"}
    const Refused refused = parse(RTMP_TYPE_AMF0_COMMAND, Hex("02 0007 636F6E6E656374  00 3FF0000000000000"
                                                              "03 0003 617070 02 0003 766F64 000009"));
    EXPECT_EQ(refused.result, -1);
    EXPECT_EQ(refused.reason, uint32_t{REFUSED_CONNECT_PROPERTY});
    EXPECT_EQ(refused.what, "app");
}

TEST_F(Refusal, OfPlayNamesTheStream)
{
    // play, 0, null, "nosuch"
    const Refused refused = parse(RTMP_TYPE_AMF0_COMMAND, Hex("02 0004 706C6179  00 0000000000000000  05"
                                                              "02 0006 6E6F73756368"));
    EXPECT_EQ(refused.result, RTMP_ERR_STREAM_NOT_FOUND);
    EXPECT_EQ(refused.reason, uint32_t{REFUSED_STREAM});
    EXPECT_EQ(refused.what, "nosuch");
}

TEST_F(Refusal, OfAMessageTypeTellsWhatKindOfMessageItWas)
{
    const std::pair<uint32_t, uint32_t> rows[] = {
        {RTMP_TYPE_AUDIO, REFUSED_MEDIA},
        {RTMP_TYPE_VIDEO, REFUSED_MEDIA},
        {RTMP_TYPE_AGGREGATE, REFUSED_MEDIA},
        {RTMP_TYPE_AMF0_DATA, REFUSED_DATA},
        {RTMP_TYPE_AMF0_SHARED_OBJECT, REFUSED_SHARED_OBJECT},
        {15, REFUSED_MESSAGE_TYPE},
        {17, REFUSED_MESSAGE_TYPE},
        {99, REFUSED_MESSAGE_TYPE},
    };
    for (const auto &[type, reason] : rows) {
        const Refused refused = parse(type, Hex("02 0001 61"));
        EXPECT_EQ(refused.kind, uint32_t{RTMP_MSG_UNSUPPORTED}) << type;
        EXPECT_EQ(refused.reason, reason) << type;
    }
}

TEST_F(Refusal, OfAnEventLeavesTheEventInThePacket)
{
    EXPECT_EQ(parse(RTMP_TYPE_USER_CONTROL, Hex("0001 00000001")).reason, uint32_t{REFUSED_EVENT});
    EXPECT_EQ(parse(RTMP_TYPE_USER_CONTROL, Hex("0003 00000001 00000BB8")).reason, uint32_t{REFUSED_NOT});
}

TEST_F(Refusal, OfPublishIsKnownWhereItIsAllowed)
{
    EXPECT_EQ(parse(RTMP_TYPE_AMF0_COMMAND, Command("publish")).reason, uint32_t{REFUSED_UNKNOWN_COMMAND});
    player.client->PlayerFlags = RTMP_PLAYERS_COMMANDS;
    const Refused refused = parse(RTMP_TYPE_AMF0_COMMAND, Command("publish"));
    EXPECT_EQ(refused.result, -1);
    EXPECT_EQ(refused.reason, uint32_t{REFUSED_PUBLISH});
    EXPECT_EQ(refused.what, "publish");
}

TEST_F(Refusal, IsNotNotedWhereAMessageIsServed)
{
    EXPECT_EQ(parse(RTMP_TYPE_AMF0_COMMAND, Command("createStream")).reason, uint32_t{REFUSED_NOT});
    EXPECT_EQ(parse(RTMP_TYPE_SET_CHUNK_SIZE, Hex("00001000")).reason, uint32_t{REFUSED_NOT});
}

} // namespace
