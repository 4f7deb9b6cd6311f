// What SendMsgToClient takes, and what it refuses.
#include "delivery/write/client_send.h"
#include "message/send_list.h"
#include "net/platform.h"
#include "support/socket_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sys/socket.h>

namespace {

using Lines = std::vector<std::string>;

const Lines kRefused = {"3 ERROR: SendMsgToClient: Invalid input arguments"};

RtmpSendPkt *Message(uint32_t length, const Bytes *payload, uint32_t kind = RTMP_MSG_CONNECT)
{
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = 3;
    message->MsgTypeId = RTMP_TYPE_AMF0_COMMAND;
    message->MsgKind = kind;
    message->PayloadLength = length;
    if (payload != nullptr) {
        message->PayloadData = static_cast<uint8_t *>(malloc(payload->size()));
        std::copy(payload->begin(), payload->end(), message->PayloadData);
    }
    return message;
}

struct ClientSend : testing::Test {
    ClientSend()
    {
        client.server()->ChunkSize = 128;
    }
    ~ClientSend() override
    {
        if (client->SendPktHead != nullptr) {
            (void)RemoveSendPkt(client.get(), nullptr);
        }
    }
    // All that the peer has been sent.
    Bytes sent()
    {
        shutdown(client->Socket, SHUT_WR);
        return client.receive(1000);
    }
    SocketClient client;
};

} // namespace

// No reply of the library's own has it: hosts send it.
TEST_F(ClientSend, TakesTheStatusThatDataStarts)
{
    client->CreateTime = RtmpGetSystemTime();
    client->StreamId = 1;
    client->StatusChunkStreamId = 5;
    RtmpSendPkt *message = GenerateRtmpMsg(client.get(), nullptr, RTMP_MSG_DATA_START);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(SendMsgToClient(client.get(), message, RTMP_MSG_DATA_START), 0);
    EXPECT_TRUE(Matches(sent(), "05 ?? ?? ?? 00002C 12 01000000 02 0008 'onStatus'"
                                "03 0004 'code' 02 0014 'NetStream.Data.Start' 000009"));
}

TEST_F(ClientSend, NoMessageIsRefused)
{
    EXPECT_EQ(SendMsgToClient(client.get(), nullptr, RTMP_MSG_CONNECT), -1);
    EXPECT_EQ(client.takeLines(), kRefused);
    EXPECT_EQ(sent(), Bytes{});
}

// The leak checker tells whether it is freed.
TEST_F(ClientSend, ALengthWithoutAPayloadIsRefusedAndNothingIsWritten)
{
    for (const uint32_t kind :
         {RTMP_MSG_CONNECT, RTMP_MSG_META_DATA, RTMP_MSG_VIDEO, RTMP_MSG_PING_RESPONSE}) {
        SCOPED_TRACE(kind);
        EXPECT_EQ(SendMsgToClient(client.get(), Message(5, nullptr, kind), kind), -1);
        EXPECT_EQ(client.takeLines(), kRefused);
        EXPECT_EQ(client->SendPktHead, nullptr);
    }
    EXPECT_EQ(sent(), Bytes{});
}

TEST_F(ClientSend, AReferenceOfTheListIsRefusedWithoutAPayloadAndStays)
{
    RtmpSendPkt *stored = Message(5, nullptr);
    ASSERT_EQ(AddSendPkt(client.get(), stored), 0);
    EXPECT_EQ(SendMsgToClient(client.get(), stored, RTMP_MSG_CONNECT), -1);
    EXPECT_EQ(client.takeLines(), kRefused);
    EXPECT_EQ(GetSendPktFromList(client.get(), 3), stored);
}

TEST_F(ClientSend, AMessageOfLength0NeedsNoPayload)
{
    const Bytes unused = Hex("AA");
    EXPECT_EQ(SendMsgToClient(client.get(), Message(0, nullptr), RTMP_MSG_CONNECT), 0);
    EXPECT_EQ(SendMsgToClient(client.get(), Message(0, &unused), RTMP_MSG_CONNECT), 0);
    EXPECT_EQ(client.takeLines(), Lines{});
    const Bytes first = Hex("03 000000 000000 14 00000000");
    EXPECT_EQ(Slice(sent(), 0, first.size()), first);
}

TEST_F(ClientSend, ARefusedMessageLeavesTheConnectionInOrder)
{
    const Bytes payload = Hex("01 02 03 04 05");
    EXPECT_EQ(SendMsgToClient(client.get(), Message(5, nullptr), RTMP_MSG_CONNECT), -1);
    EXPECT_EQ(SendMsgToClient(client.get(), Message(5, &payload), RTMP_MSG_CONNECT), 0);
    EXPECT_EQ(sent(), Hex("03 000000 000005 14 00000000") + payload);
}
