// Chunks written by hand, and read as the serving thread reads them.
#pragma once

#include "message/chunk_reader.h"
#include "message/recv_list.h"
#include "support/socket_client.h"

#include <gtest/gtest.h>

using Lines = std::vector<std::string>;

inline const Lines kClosedWhileReading = {"6 INFO: RtmpReadBytes: Connection was closed by peer",
                                          "3 ERROR: ReadRtmpMessage: Reading bytes failed"};

// A whole type 0 header on a chunk stream of one byte: time 0, message stream 0.
inline Bytes Type0(uint8_t chunkStreamId, uint32_t length, uint8_t typeId)
{
    const Bytes sizeAndType = {static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 8),
                               static_cast<uint8_t>(length), typeId};
    return Bytes{chunkStreamId} + Hex("000000") + sizeAndType + Hex("00000000");
}

inline Bytes PayloadOf(const RtmpRecvPkt *pkt)
{
    return Bytes(pkt->PayloadData, pkt->PayloadData + pkt->ReceivedBytes);
}

template <size_t Count> Bytes FieldOf(const uint8_t (&field)[Count])
{
    return Bytes(field, field + Count);
}

// One chunk, stored as the serving thread stores it. Null once the connection is over.
inline RtmpRecvPkt *ReadChunk(SocketClient &client)
{
    RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
    if (pkt != nullptr && IsRecvStrmPktExists(client.get(), pkt) != 0) {
        EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
    }
    return pkt;
}
