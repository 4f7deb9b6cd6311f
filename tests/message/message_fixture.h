// A server, a session and a client as they are when a player has just connected, a standing clock, and bytes
// written down by hand.
#pragma once

#include "message/chunk_header.h"
#include "message/send_list.h"
#include "net/platform.h"
#include "rtmpcast/publish.h"
#include "support/bytes.h"
#include "support/calls.h"
#include "support/produced.h"
#include "support/records.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

struct PacketFree {
    void operator()(RtmpSendPkt *pkt) const
    {
        FreeSendPkt(pkt);
    }
};
using Packet = std::unique_ptr<RtmpSendPkt, PacketFree>;

inline std::string PayloadOf(const RtmpSendPkt *pkt)
{
    return ToHex(pkt->PayloadData, pkt->PayloadLength);
}

inline std::string StreamIdOf(const RtmpSendPkt *pkt)
{
    return ToHex(pkt->MsgStreamId, 4);
}

class MessageTest : public testing::Test, protected Records {
  protected:
    MessageTest()
    {
        calls::reset();
        calls::setClock(5000);
        server.ConfiguredChunkSize = 4096;
        server.ChunkSize = 128;
        server.PeerBandwidth = 6500000;
        client.Server = &server;
        client.CreateTime = 4000; // the client is one second old: 00 03 E8
        client.StatusChunkStreamId = 4;
        client.State = CLIENT_STATE_CONNECT_DONE;
        EXPECT_EQ(RtmpMutexInit(&client.SendStrmListLock), 0);
    }

    ~MessageTest() override
    {
        calls::reset();
        if (client.SendPktHead != nullptr) {
            EXPECT_EQ(RemoveSendPkt(&client, nullptr), 0);
        }
        EXPECT_EQ(RtmpMutexDestroy(&client.SendStrmListLock), 0);
    }

    // The message stored for a chunk stream, as the send path stores it.
    RtmpSendPkt *Store(uint32_t chunkStreamId, uint64_t timestamp, uint32_t kind = RTMP_MSG_STREAM_BEGIN)
    {
        RtmpSendPkt *pkt = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
        pkt->ChunkStreamId = chunkStreamId;
        pkt->Timestamp = timestamp;
        pkt->MsgKind = kind;
        EXPECT_EQ(AddSendPkt(&client, pkt), 0);
        return pkt;
    }

    // The request of a decoded command: a name and what stands behind it.
    RtmpRecvPkt *Request(uint32_t chunkStreamId, uint32_t secondType, double second)
    {
        name = {};
        name.type = AMF_STRING;
        transaction = {};
        transaction.type = secondType;
        transaction.ObjVal.number = second;
        transaction.prev = &name;
        name.next = &transaction;
        values = {2, &name, &transaction};
        request = {};
        request.ChunkStreamId = chunkStreamId;
        request.MsgTypeId = RTMP_TYPE_AMF0_COMMAND;
        request.Result.Amf = &values;
        return &request;
    }

    Packet Generate(void *recvPkt, uint32_t kind)
    {
        return Packet(GenerateRtmpMsg(&client, recvPkt, kind));
    }

    RtmpClient client = {};
    RtmpRecvPkt request = {};
    AmfObject values = {};
    AmfObjProperty name = {};
    AmfObjProperty transaction = {};
};
