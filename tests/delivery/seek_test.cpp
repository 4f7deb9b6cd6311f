// "seek" of a live stream: it is answered, and changes nothing.
#include "rtmpcast/publish.h"
#include "support/amf_bytes.h"
#include "support/session_rig.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace amf0;

namespace {

using Lines = std::vector<std::string>;

// A "seek" whose chunk began with a full header, on message stream 1.
RtmpRecvPkt SeekRequest()
{
    RtmpRecvPkt request = {};
    request.ChunkStreamId = 8;
    request.MsgTypeId = RTMP_TYPE_AMF0_COMMAND;
    request.MsgStreamId[0] = 1;
    return request;
}

Bytes Notice()
{
    return Values({String("onStatus"), Number(0), Null(),
                   Object({{"level", String("status")},
                           {"code", String("NetStream.Seek.Notify")},
                           {"description", String("Seeking")}})})
        .bytes;
}

TEST(Seek, IsAnsweredOnTheStreamOfTheRequestAndLeavesTheState)
{
    for (const uint32_t state : {CLIENT_STATE_PLAY_DONE, CLIENT_STATE_PAUSE_DONE}) {
        SessionRig rig;
        const RigClient player = rig.addClient(state);
        RtmpRecvPkt request = SeekRequest();
        rig.log.clear();
        EXPECT_EQ(ProcessSend(player.client, &request, RTMP_MSG_SEEK), 0);
        const Bytes sent = DrainBytes(player.peer);
        EXPECT_TRUE(Matches(Slice(sent, 0, 12),
                            "04 ?????? " + ToHex(BigEndian(Notice().size(), 3)) + " 14 01000000"));
        EXPECT_TRUE(Same(Slice(sent, 12, sent.size()), Notice()));
        EXPECT_EQ(player.client->State, state);
        EXPECT_EQ(rig.log.lines(), Lines{});
    }
}

TEST(Seek, OfWhoeverDoesNotPlayIsRefusedAsAPauseIs)
{
    for (const uint32_t state : {CLIENT_STATE_HANDSHAKE_DONE, CLIENT_STATE_CONNECT_DONE,
                                 CLIENT_STATE_CREATESTREAM_DONE, CLIENT_STATE_REPLAY}) {
        SessionRig rig;
        const RigClient player = rig.addClient(state);
        RtmpRecvPkt request = SeekRequest();
        rig.log.clear();
        EXPECT_EQ(ProcessSend(player.client, &request, RTMP_MSG_SEEK), -1);
        EXPECT_EQ(rig.log.lines(), Lines{"3 ERROR: ProcessSend: Client state is not play done"});
        EXPECT_EQ(DrainBytes(player.peer), Bytes());
        EXPECT_EQ(player.client->State, state);
    }
}

} // namespace
