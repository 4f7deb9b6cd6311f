// What a received message costs: its payload grows with what arrives, its decoded values go with it.
#include "message/chunk_reader.h"
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "serve/dispatch.h"
#include "support/socket_client.h"
#include "support/unread.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <malloc.h>
#include <thread>

namespace {

constexpr uint32_t kLongest = 0xFFFFFF;

// A type 0 header with a two-byte basic header: chunk streams 64 to 319.
Bytes Header(uint32_t chunkStreamId, uint32_t length)
{
    return Bytes{0,
                 static_cast<uint8_t>(chunkStreamId - 64),
                 0,
                 0,
                 0,
                 static_cast<uint8_t>(length >> 16),
                 static_cast<uint8_t>(length >> 8),
                 static_cast<uint8_t>(length),
                 RTMP_TYPE_AMF0_COMMAND} +
           Bytes(4);
}

Bytes Continuation(uint32_t chunkStreamId)
{
    return {0xC0, static_cast<uint8_t>(chunkStreamId - 64)};
}

RtmpRecvPkt *ReadAndStore(SocketClient &client)
{
    RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
    if (pkt != nullptr && IsRecvStrmPktExists(client.get(), pkt) != 0) {
        EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
    }
    return pkt;
}

size_t RoomOf(RtmpRecvPkt *pkt)
{
    return malloc_usable_size(pkt->PayloadData);
}

// Bytes that the process has allocated; 0 under the sanitizers, whose leak checker looks instead.
size_t Allocated()
{
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

constexpr size_t kSlack = 1 << 20;
constexpr uint32_t kManyValues = 70000; // more than a list that FreeAmfObject frees
const Bytes kCommandName = Hex("02 0001 78");

Bytes ManyNulls(const Bytes &before)
{
    return before + Bytes(kManyValues, AMF_NULL);
}

// A complete command, in the client's receive list.
RtmpRecvPkt *Command(SocketClient &client, const Bytes &payload)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = 3;
    pkt->Complete = 1;
    pkt->MsgTypeId = RTMP_TYPE_AMF0_COMMAND;
    pkt->MsgLength = pkt->ReceivedBytes = static_cast<uint32_t>(payload.size());
    pkt->PayloadData = static_cast<uint8_t *>(malloc(payload.size()));
    memcpy(pkt->PayloadData, payload.data(), payload.size());
    EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
    return pkt;
}

} // namespace

// ----------------------------------------------------------------------------------------------- payload

TEST(ReceivedMemory, AMessageThatHasOnlyBegunCostsNoMoreThanItsBeginning)
{
    SocketClient client;
    client->InChunkSize = 1;
    size_t room = 0;
    for (uint32_t id = 64; id < 114; id++) {
        client.send(Header(id, kLongest) + Hex("AA"));
        RtmpRecvPkt *pkt = ReadAndStore(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->MsgLength, kLongest);
        EXPECT_EQ(pkt->ReceivedBytes, 1U);
        room += RoomOf(pkt);
    }
    EXPECT_LE(room, 50U * 128);
}

TEST(ReceivedMemory, GrowsWithWhatArrives)
{
    SocketClient client;
    client->InChunkSize = 1000;
    const Bytes payload = Counting(100000);
    client.send(Header(64, 99999) + Slice(payload, 0, 1000));
    RtmpRecvPkt *pkt = ReadAndStore(client);
    int moves = 0;
    for (size_t at = 1000; at < 99999; at += 1000) {
        ASSERT_NE(pkt, nullptr);
        EXPECT_LE(RoomOf(pkt), 2 * at + 5000);
        const uint8_t *before = pkt->PayloadData;
        client.send(Continuation(64) + Slice(payload, at, std::min<size_t>(1000, 99999 - at)));
        ASSERT_EQ(ReadAndStore(client), pkt);
        moves += pkt->PayloadData != before ? 1 : 0;
    }
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_TRUE(Bytes(pkt->PayloadData, pkt->PayloadData + 99999) == Slice(payload, 0, 99999));
    EXPECT_GE(RoomOf(pkt), 99999U); // as a complete message has it
    EXPECT_LE(RoomOf(pkt), 99999U + 4096);
    EXPECT_LE(moves, 10);
    EXPECT_EQ(client.takeLines(), std::vector<std::string>{});
}

TEST(ReceivedMemory, AChunkAsLongAsItsMessageIsReadWhole)
{
    const size_t lengths[] = {1, 63, 64, 65, 4095, 4096, 4097, 8191, 8192, 8193, 70000};
    for (const size_t length : lengths) {
        SCOPED_TRACE(length);
        SocketClient client;
        client->InChunkSize = 0xFFFFFFFF;
        const Bytes payload = Counting(length);
        client.send(Header(64, static_cast<uint32_t>(length)) + payload);
        RtmpRecvPkt *pkt = ReadAndStore(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_TRUE(Bytes(pkt->PayloadData, pkt->PayloadData + length) == payload);
    }
}

TEST(ReceivedMemory, ASecondChunkMayBeLongToo)
{
    SocketClient client;
    client->InChunkSize = 10;
    const Bytes payload = Counting(70000);
    client.send(Header(64, 70000) + Slice(payload, 0, 10));
    ASSERT_NE(ReadAndStore(client), nullptr);
    client->InChunkSize = 0xFFFFFFFF;
    client.send(Continuation(64) + Slice(payload, 10, 69990));
    RtmpRecvPkt *pkt = ReadAndStore(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_TRUE(Bytes(pkt->PayloadData, pkt->PayloadData + 70000) == payload);
}

TEST(ReceivedMemory, AChunkThatIsAnnouncedCostsLittleBeforeItArrives)
{
    for (const bool first : {true, false}) {
        SCOPED_TRACE(first ? "the first chunk" : "a later one");
        SocketClient client;
        if (!first) {
            client->InChunkSize = 1;
            client.send(Header(64, kLongest) + Hex("AA"));
            ASSERT_NE(ReadAndStore(client), nullptr);
        }
        client->InChunkSize = 0xFFFFFFFF;
        const size_t before = Allocated();
        RtmpRecvPkt *pkt = nullptr;
        std::thread reader([&] { pkt = ReadRtmpMessage(client.get()); });
        client.send((first ? Header(64, kLongest) : Continuation(64)) + Counting(100));
        EXPECT_TRUE(
            WaitUntil([&] { return UnreadBytes(client->Socket) == 0; })); // the next read waits for more
        EXPECT_LE(Allocated(), before + kSlack);
        client.endOfInput();
        reader.join();
        EXPECT_EQ(pkt, nullptr);
    }
}

// So it is handled when it could not be stored, for its list could not be locked.
TEST(ReceivedMemory, AnIncompleteMessageIsHandledAsIfZerosFollowed)
{
    SocketClient client;
    client->InChunkSize = 4;
    client.send(Header(64, 1000) + kCommandName);
    RtmpRecvPkt *pkt = ReadAndStore(client);
    ASSERT_NE(pkt, nullptr);
    uint32_t kind = 0;
    // Behind the name: numbers of eight zero bytes each, and a rest of six bytes that is none.
    EXPECT_EQ(ParseRequestMsg(client.get(), pkt, &kind), -1);
    EXPECT_EQ(client.takeLines(),
              (std::vector<std::string>{"3 ERROR: DecodeAmfBuffer: Corrupted Property",
                                        "3 ERROR: ParseCmdMsgReq: Cannot decode AMF buffer",
                                        "3 ERROR: ParseRequestMsg: Cannot parse command request message"}));
}

TEST(ReceivedMemory, AHostsOwnPacketHasItsWholePayload)
{
    SocketClient client;
    RtmpRecvPkt *pkt = Command(client, Counting(300));
    pkt->Complete = 0;
    pkt->ReceivedBytes = 100;
    uint8_t *payload = pkt->PayloadData;
    EXPECT_EQ(PayloadRoom(pkt), 300U);
    client.send(Hex("C3") + Counting(128));
    EXPECT_EQ(ReadRtmpMessage(client.get()), pkt);
    EXPECT_EQ(pkt->PayloadData, payload);
    EXPECT_EQ(pkt->ReceivedBytes, 228U);
    EXPECT_TRUE(Bytes(payload + 100, payload + 228) == Counting(128));
    EXPECT_EQ(payload[228], 228);
}

// ------------------------------------------------------------------------------------------------ values

TEST(ReceivedMemory, AListOfAnyLengthIsFreedWithItsMessage)
{
    const struct {
        const char *sentence;
        Bytes payload;
        int result;
    } rows[] = {
        {"values of the message", ManyNulls(kCommandName), 0},
        {"values of an array", ManyNulls(kCommandName + Hex("0A 00011170")), 0},
        {"values before one that is none", ManyNulls(kCommandName) + Hex("04"), -1},
        {"values of an array before one that is none",
         ManyNulls(kCommandName + Hex("0A 00011170")) + Hex("04"), -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        const size_t before = Allocated();
        uint32_t kind = 0;
        EXPECT_EQ(ParseRequestMsg(client.get(), Command(client, row.payload), &kind), row.result);
        EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0);
        EXPECT_LE(Allocated(), before + kSlack);
    }
}

TEST(ReceivedMemory, AMessageThatIsHandledTwiceHoldsItsValuesOnce)
{
    SocketClient client;
    const size_t before = Allocated();
    RtmpRecvPkt *pkt = Command(client, ManyNulls(kCommandName));
    for (int i = 0; i < 3; i++) {
        uint32_t kind = 0;
        EXPECT_EQ(ParseRequestMsg(client.get(), pkt, &kind), 0);
        EXPECT_EQ(kind, static_cast<uint32_t>(RTMP_MSG_UNSUPPORTED));
        ASSERT_NE(pkt->Result.Amf, nullptr);
        EXPECT_EQ(pkt->Result.Amf->count, static_cast<int32_t>(kManyValues + 1));
    }
    pkt->PayloadData[pkt->MsgLength - 1] = AMF_MOVIE_CLIP;
    uint32_t kind = 0;
    EXPECT_EQ(ParseRequestMsg(client.get(), pkt, &kind), -1);
    EXPECT_EQ(pkt->Result.Amf, nullptr);
    EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0);
    EXPECT_LE(Allocated(), before + kSlack);
}
