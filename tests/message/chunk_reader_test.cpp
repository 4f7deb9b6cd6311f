#include "message/chunk_input.h"
#include "message/recv_packet.h"
#include "received_chunks.h"

#include <thread>

namespace {

struct BasicHeader {
    const char *name;
    uint8_t firstByte; // with type 0
    const char *rest;
    uint32_t form;
    uint32_t id;
};

const BasicHeader kBasicHeaders[] = {
    {"one byte, id 2", 0x02, "", 0, 2},
    {"one byte, id 15", 0x0F, "", 0, 15},
    {"one byte, id 32", 0x20, "", 0, 32},
    {"two bytes, id 64", 0x00, "00", 1, 64},
    {"two bytes, id 319", 0x00, "FF", 1, 319},
    {"three bytes, id 64", 0x01, "0000", 2, 64},
    {"three bytes, id 582", 0x01, "0602", 2, 582}, // 2 * 256 + 6 + 64
    {"three bytes, id 65599", 0x01, "FFFF", 2, 65599},
};

struct MessageHeader {
    const char *name;
    uint32_t type;
    const char *bytes;
    const char *timestamp;
    const char *delta;
    const char *extended;
    const char *streamId;
    uint32_t typeId;
};

// Five bytes of payload. Types 2 and 3 inherit length and type id 17 of the message before.
const MessageHeader kMessageHeaders[] = {
    {"type 0", 0, "000102 000005 14 01020304", "000102", "000000", "00000000", "01020304", 20},
    {"type 0, extended", 0, "FFFFFF 000005 14 01000000 A1B2C3D4", "FFFFFF", "000000", "A1B2C3D4", "01000000",
     20},
    {"type 0, just below extended", 0, "FFFFFE 000005 04 00000000", "FFFFFE", "000000", "00000000",
     "00000000", 4},
    {"type 1", 1, "000007 000005 09", "000000", "000007", "00000000", "00000000", 9},
    {"type 1, extended", 1, "FFFFFF 000005 08 FFFFFFFF", "000000", "FFFFFF", "FFFFFFFF", "00000000", 8},
    {"type 2", 2, "000008", "000000", "000008", "00000000", "00000000", 17},
    {"type 2, extended", 2, "FFFFFF 01000000", "000000", "FFFFFF", "01000000", "00000000", 17},
    {"type 3", 3, "", "000000", "000000", "00000000", "00000000", 17},
};

const Bytes kPayload = Hex("FF FF FF 04 05"); // as a header it would announce an extended timestamp

Bytes ChunkOf(const BasicHeader &basic, const MessageHeader &message)
{
    const uint8_t firstByte = static_cast<uint8_t>(basic.firstByte | message.type << 6);
    return Bytes{firstByte} + Hex(basic.rest) + Hex(message.bytes) + kPayload;
}

// Types 2 and 3 need a message before them.
void GiveItAPredecessor(SocketClient &client, const BasicHeader &basic)
{
    client.send(Bytes{basic.firstByte} + Hex(basic.rest) + Hex("0A0B0C 000005 11 0D0E0F10") + kPayload);
    ASSERT_NE(ReadChunk(client), nullptr);
}

void ExpectPacket(const RtmpRecvPkt *pkt, const BasicHeader &basic, const MessageHeader &message)
{
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ChunkStreamId, basic.id);
    EXPECT_EQ(pkt->BasicHeaderForm, basic.form);
    EXPECT_EQ(pkt->HeaderType, message.type);
    EXPECT_EQ(pkt->MsgTypeId, message.typeId);
    EXPECT_EQ(FieldOf(pkt->Timestamp), Hex(message.timestamp));
    EXPECT_EQ(FieldOf(pkt->TimestampDelta), Hex(message.delta));
    EXPECT_EQ(FieldOf(pkt->ExtendedTimestamp), Hex(message.extended));
    EXPECT_EQ(FieldOf(pkt->MsgStreamId), Hex(message.streamId));
    EXPECT_EQ(pkt->MsgLength, 5U);
    EXPECT_EQ(pkt->ReceivedBytes, 5U);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(PayloadOf(pkt), kPayload);
}

template <typename Action> void ForEachHeaderForm(Action action)
{
    for (const BasicHeader &basic : kBasicHeaders) {
        for (const MessageHeader &message : kMessageHeaders) {
            SCOPED_TRACE(std::string(basic.name) + ", " + message.name);
            action(basic, message);
        }
    }
}

} // namespace

TEST(ChunkReader, ReadsEveryHeaderForm)
{
    ForEachHeaderForm([](const BasicHeader &basic, const MessageHeader &message) {
        SocketClient client;
        GiveItAPredecessor(client, basic);
        client.send(ChunkOf(basic, message) + Hex("C3"));
        RtmpRecvPkt *pkt = ReadChunk(client);
        ExpectPacket(pkt, basic, message);
        EXPECT_EQ(client->RecvPktCount, 1U);
        EXPECT_EQ(client.takeLines(), Lines{});
        client.endOfInput();
        // Not a byte more than the chunk was taken: the next one is still there, with its stream unknown.
        if (basic.id != 3) {
            EXPECT_EQ(ReadChunk(client), nullptr);
            EXPECT_EQ(client.takeLines(),
                      Lines{"3 ERROR: ReadRtmpMessage: Getting payload header size failed"});
        }
    });
}

TEST(ChunkReader, EveryHeaderFormCutAtEveryByteEndsTheConnection)
{
    ForEachHeaderForm([](const BasicHeader &basic, const MessageHeader &message) {
        const Bytes chunk = ChunkOf(basic, message);
        for (size_t cut = 0; cut < chunk.size(); cut++) {
            SCOPED_TRACE(cut);
            SocketClient client;
            GiveItAPredecessor(client, basic);
            client.send(Slice(chunk, 0, cut));
            client.endOfInput();
            EXPECT_EQ(ReadRtmpMessage(client.get()), nullptr);
            EXPECT_EQ(client.takeLines(), kClosedWhileReading);
            EXPECT_EQ(client->RecvPktCount, 1U);
        }
    });
}

TEST(ChunkReader, BytesMayArriveOneByOne)
{
    SocketClient client;
    const Bytes chunk = Type0(3, 5, 5) + kPayload;
    std::thread peer([&] {
        for (uint8_t byte : chunk) {
            client.send({byte});
            std::this_thread::yield();
        }
    });
    RtmpRecvPkt *pkt = ReadChunk(client);
    peer.join();
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(PayloadOf(pkt), kPayload);
}

// ------------------------------------------------------------------------------------- chunk stream ids

TEST(ChunkReader, Bit4OfTheFirstByteIsNotPartOfTheChunkStreamId)
{
    const struct {
        const char *sentence;
        Bytes basic;
        uint32_t id, form;
    } rows[] = {
        {"20 is read as 4", Hex("14"), 4, 0},
        {"18 is read as 2", Hex("12"), 2, 0},
        {"31 is read as 15", Hex("1F"), 15, 0},
        {"32 stays 32", Hex("20"), 32, 0},
        {"47 stays 47", Hex("2F"), 47, 0},
        {"48 is read as 32", Hex("30"), 32, 0},
        {"63 is read as 47", Hex("3F"), 47, 0},
        {"16 announces two bytes", Hex("10 05"), 69, 1},
        {"17 announces three bytes", Hex("11 05 01"), 325, 2},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client.send(row.basic + Hex("000000 000002 05 00000000 AABB"));
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->ChunkStreamId, row.id);
        EXPECT_EQ(pkt->BasicHeaderForm, row.form);
        EXPECT_EQ(PayloadOf(pkt), Hex("AABB"));
    }
}

TEST(ChunkReader, ChunkStreams4And20AreOneAndContinueEachOther)
{
    SocketClient client;
    const Bytes payload = Counting(130);
    client.send(Type0(0x14, 130, 20) + Slice(payload, 0, 128) + Hex("C4") + Slice(payload, 128, 2));
    RtmpRecvPkt *first = ReadChunk(client);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ReadChunk(client), first);
    EXPECT_EQ(first->Complete, 1U);
    EXPECT_EQ(PayloadOf(first), payload);
}

// ------------------------------------------------------------------------- messages of several chunks

TEST(ChunkReader, AMessageOf300BytesIsCompleteAfterItsThirdChunk)
{
    SocketClient client;
    const Bytes payload = Counting(300);
    client.send(Type0(3, 300, 20) + Slice(payload, 0, 128) + Hex("C3") + Slice(payload, 128, 128) +
                Hex("C3") + Slice(payload, 256, 44));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ReceivedBytes, 128U);
    EXPECT_EQ(pkt->Complete, 0U);
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->ReceivedBytes, 256U);
    EXPECT_EQ(pkt->Complete, 0U);
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(PayloadOf(pkt), payload);
    EXPECT_EQ(pkt->HeaderType, 0U); // of the chunk that began it
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(ChunkReader, AChunkOfExactlyTheRestLeavesTheMessageOpen)
{
    SocketClient client;
    const Bytes payload = Counting(256);
    client.send(Type0(3, 256, 20) + Slice(payload, 0, 128) + Hex("C3") + Slice(payload, 128, 128));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->ReceivedBytes, 256U);
    EXPECT_EQ(pkt->Complete, 0U);
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(ChunkReader, TheChunkAfterAFullLastChunkEndsTheConnection)
{
    const struct {
        const char *sentence;
        Bytes next;
    } rows[] = {
        {"a type 3 header alone", Hex("C3")},
        {"a type 3 chunk", Hex("C3") + Counting(128)},
        {"a whole new message", Type0(3, 5, 20) + kPayload},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client.send(Type0(3, 256, 20) + Counting(128) + Hex("C3") + Counting(128) + row.next);
        ASSERT_NE(ReadChunk(client), nullptr);
        ASSERT_NE(ReadChunk(client), nullptr);
        EXPECT_EQ(ReadChunk(client), nullptr); // at once: the peer has sent nothing more and is still there
        EXPECT_EQ(client.takeLines(), kClosedWhileReading);
        EXPECT_EQ(pthread_mutex_trylock(&client->RecvStrmListLock), 0);
        pthread_mutex_unlock(&client->RecvStrmListLock);
    }
}

TEST(ChunkReader, OneFullChunkIsAWholeMessage)
{
    SocketClient client;
    client.send(Type0(3, 128, 20) + Counting(128));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(PayloadOf(pkt), Counting(128));
}

TEST(ChunkReader, AnIncompleteMessageGoesOnWhateverTheNextHeaderSays)
{
    const struct {
        const char *sentence;
        Bytes header;
    } rows[] = {
        {"type 0 of another length and type", Hex("03 000009 000001 05 07000000")},
        {"type 0 with an extended timestamp", Hex("03 FFFFFF 000001 05 07000000 01020304")},
        {"type 1", Hex("43 000009 FFFFFF 05")},
        {"type 2", Hex("83 000009")},
        {"type 2 with an extended timestamp", Hex("83 FFFFFF 01020304")},
        {"type 3", Hex("C3")},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        const Bytes payload = Counting(133, 0xF0);
        client.send(Hex("03 000102 000085 14 01000000") + Slice(payload, 0, 128) + row.header +
                    Slice(payload, 128, 5));
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(ReadChunk(client), pkt);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_EQ(pkt->MsgLength, 133U);
        EXPECT_EQ(pkt->MsgTypeId, 20U);
        EXPECT_EQ(FieldOf(pkt->Timestamp), Hex("000102"));
        EXPECT_EQ(FieldOf(pkt->ExtendedTimestamp), Hex("00000000"));
        EXPECT_EQ(PayloadOf(pkt), payload);
    }
}

TEST(ChunkReader, AType3ContinuationHasNoExtendedTimestampEvenWhereItsStreamUsesThem)
{
    SocketClient client;
    const Bytes payload = Counting(130);
    client.send(Hex("03 FFFFFF 000082 14 00000000 01020304") + Slice(payload, 0, 128) + Hex("C3") +
                Slice(payload, 128, 2));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(PayloadOf(pkt), payload);
}

TEST(ChunkReader, AContinuationCutAtEveryByteEndsTheConnection)
{
    const Bytes rest = Hex("83 FFFFFF 01020304") + Counting(40);
    for (size_t cut = 0; cut < rest.size(); cut++) {
        SCOPED_TRACE(cut);
        SocketClient client;
        client.send(Type0(3, 168, 20) + Counting(128));
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        client.send(Slice(rest, 0, cut));
        client.endOfInput();
        EXPECT_EQ(ReadChunk(client), nullptr);
        EXPECT_EQ(client.takeLines(), kClosedWhileReading);
        EXPECT_EQ(pkt->ReceivedBytes, 128U);
        EXPECT_EQ(pkt->Complete, 0U);
        EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0); // the list is not left locked
    }
}

TEST(ChunkReader, InterleavedMessagesAreAssembledSideBySide)
{
    SocketClient client;
    const Bytes command = Counting(300);
    const Bytes other = Counting(200, 0x80);
    client.send(Type0(3, 300, 20) + Slice(command, 0, 128) +           // A1
                Hex("40 00 000000 0000C8 12") + Slice(other, 0, 128) + // B1, id 64
                Hex("C3") + Slice(command, 128, 128) +                 // A2
                Type0(2, 4, 5) + Hex("002625A0") +                     // a whole one in between
                Hex("C0 00") + Slice(other, 128, 72) +                 // B2
                Hex("C3") + Slice(command, 256, 44));                  // A3
    RtmpRecvPkt *a = ReadChunk(client);
    RtmpRecvPkt *b = ReadChunk(client);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(ReadChunk(client), a);
    RtmpRecvPkt *whole = ReadChunk(client);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(whole->Complete, 1U);
    EXPECT_EQ(PayloadOf(whole), Hex("002625A0"));
    EXPECT_EQ(a->Complete, 0U);
    EXPECT_EQ(ReadChunk(client), b);
    EXPECT_EQ(b->Complete, 1U);
    EXPECT_EQ(PayloadOf(b), other);
    EXPECT_EQ(ReadChunk(client), a);
    EXPECT_EQ(a->Complete, 1U);
    EXPECT_EQ(PayloadOf(a), command);
    EXPECT_EQ(client->RecvPktCount, 3U);
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(ChunkReader, TheChunkSizeMayChangeWithinAMessage)
{
    SocketClient client;
    const Bytes payload = Counting(300);
    client.send(Type0(3, 300, 20) + Slice(payload, 0, 128));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    client->InChunkSize = 10;
    client.send(Hex("C3") + Slice(payload, 128, 10));
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->ReceivedBytes, 138U);
    client->InChunkSize = 0xFFFFFFFF;
    client.send(Hex("C3") + Slice(payload, 138, 162));
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(PayloadOf(pkt), payload);
}

// ------------------------------------------------------------------------------------------ inheritance

TEST(ChunkReader, AType3ChunkBeginsANewMessageWithTheLengthAndTypeOfTheLast)
{
    SocketClient client;
    client.send(Hex("03 000102 000005 14 01000000") + Counting(5) + Hex("C3") + Counting(5, 0x50));
    ASSERT_NE(ReadChunk(client), nullptr);
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->MsgLength, 5U);
    EXPECT_EQ(pkt->MsgTypeId, 20U);
    EXPECT_EQ(pkt->HeaderType, 3U);
    EXPECT_EQ(FieldOf(pkt->Timestamp), Hex("000000"));
    EXPECT_EQ(FieldOf(pkt->TimestampDelta), Hex("000000"));
    EXPECT_EQ(FieldOf(pkt->MsgStreamId), Hex("00000000"));
    EXPECT_EQ(PayloadOf(pkt), Counting(5, 0x50));
    EXPECT_EQ(client->RecvPktCount, 1U);
}

TEST(ChunkReader, InheritanceGoesOnFromAnInheritedMessage)
{
    SocketClient client;
    const Bytes payload = Counting(130);
    client.send(Type0(3, 130, 17) + Slice(payload, 0, 128) + Hex("C3") + Slice(payload, 128, 2) +
                Hex("83 000005") + Slice(payload, 0, 128) + Hex("C3") + Slice(payload, 128, 2) + Hex("C3") +
                Slice(payload, 0, 128) + Hex("C3") + Slice(payload, 128, 2));
    for (uint32_t type : {0U, 2U, 3U}) {
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(ReadChunk(client), pkt);
        EXPECT_EQ(pkt->HeaderType, type);
        EXPECT_EQ(pkt->MsgTypeId, 17U);
        EXPECT_EQ(PayloadOf(pkt), payload);
        EXPECT_EQ(pkt->Complete, 1U);
    }
}

TEST(ChunkReader, Types2And3NeedAMessageBeforeThem)
{
    for (const char *chunk : {"83 000001", "C3", "80 00 000001", "C0 00", "C1 00 00", "83 FFFFFF 00000001"}) {
        SCOPED_TRACE(chunk);
        SocketClient client;
        client.send(Type0(4, 2, 5) + Hex("AABB"));
        ASSERT_NE(ReadChunk(client), nullptr);
        client.send(Hex(chunk));
        EXPECT_EQ(ReadChunk(client), nullptr);
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: ReadRtmpMessage: Getting payload header size failed"});
    }
}

// --------------------------------------------------------------------------------------- lengths that lie

TEST(ChunkReader, AMessageOfLength0EndsTheConnectionAtOnce)
{
    SocketClient client;
    client.send(Type0(3, 0, 20));
    EXPECT_EQ(ReadChunk(client), nullptr);
    EXPECT_EQ(client.takeLines(), kClosedWhileReading);
    EXPECT_EQ(client->RecvPktCount, 0U);
}

TEST(ChunkReader, AChunkSizeOf0EndsTheConnectionWithTheNextPayload)
{
    SocketClient client;
    client.send(Type0(3, 130, 20) + Counting(128));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    client->InChunkSize = 0;
    client.send(Type0(4, 5, 20) + kPayload);
    EXPECT_EQ(ReadChunk(client), nullptr);
    EXPECT_EQ(client.takeLines(), kClosedWhileReading);
    // The peer's next bytes are its payload, FF FF FF 04 05: a type 3 chunk with a mask of 0x2F: id 47.
    EXPECT_EQ(ReadChunk(client), nullptr);
    EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: ReadRtmpMessage: Getting payload header size failed"});
}

TEST(ChunkReader, AChunkSizeOf0EndsAContinuation)
{
    SocketClient client;
    client.send(Type0(3, 130, 20) + Counting(128) + Hex("C3") + Counting(2));
    ASSERT_NE(ReadChunk(client), nullptr);
    client->InChunkSize = 0;
    EXPECT_EQ(ReadChunk(client), nullptr);
    EXPECT_EQ(client.takeLines(), kClosedWhileReading);
}

TEST(ChunkReader, AChunkSizeOf1CompletesMessagesOfOneByteOnly)
{
    SocketClient client;
    client->InChunkSize = 1;
    client.send(Type0(3, 1, 20) + Hex("AA") + Type0(3, 2, 20) + Hex("BB") + Hex("C3 CC") + Hex("C3 DD"));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->Complete, 1U);
    pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->ReceivedBytes, 2U);
    EXPECT_EQ(PayloadOf(pkt), Hex("BB CC"));
    EXPECT_EQ(pkt->Complete, 0U);
    EXPECT_EQ(ReadChunk(client), nullptr);
    EXPECT_EQ(client.takeLines(), kClosedWhileReading);
}

TEST(ChunkReader, TheLargestChunkSizeTakesWholeMessagesAndNoMemoryOfItsSize)
{
    SocketClient client;
    client->InChunkSize = 0xFFFFFFFF;
    const Bytes payload = Counting(70000);
    std::thread peer([&] { client.send(Type0(3, 70000, 20) + payload + Hex("C3") + payload); });
    for (int message = 0; message < 2; message++) {
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_EQ(PayloadOf(pkt), payload);
    }
    peer.join();
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(ChunkReader, ALengthThatIsNeverDeliveredEndsWithTheConnection)
{
    for (uint32_t chunkSize : {128U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(chunkSize);
        SocketClient client;
        client->InChunkSize = chunkSize;
        client.send(Type0(3, 0xFFFFFF, 20) + Counting(100));
        client.endOfInput();
        EXPECT_EQ(ReadChunk(client), nullptr);
        EXPECT_EQ(client.takeLines(), kClosedWhileReading);
        EXPECT_EQ(client->RecvPktCount, 0U);
    }
}

TEST(ChunkReader, ManyMessagesOfTheLargestLengthMayBeBegun)
{
    SocketClient client;
    for (uint8_t id = 2; id < 12; id++) {
        client.send(Type0(id, 0xFFFFFF, 20) + Counting(128));
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->MsgLength, 0xFFFFFFU);
        EXPECT_EQ(pkt->ReceivedBytes, 128U);
        EXPECT_EQ(PayloadOf(pkt), Counting(128)); // what is not there yet has no memory
    }
}

TEST(ChunkReader, AClosedSocketIsNotReadAgain)
{
    SocketClient client;
    client.send(Type0(3, 5, 20) + kPayload);
    client->SocketClosed = 1;
    EXPECT_EQ(ReadRtmpMessage(client.get()), nullptr);
    EXPECT_EQ(client.takeLines(),
              (Lines{"3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)",
                     "3 ERROR: ReadRtmpMessage: Reading bytes failed"}));
    client->SocketClosed = 0;
    EXPECT_NE(ReadChunk(client), nullptr); // nothing was taken
}

// ---------------------------------------------------------------------------------- CreateNewRtmpPkt alone

TEST(CreateNewRtmpPkt, RefusesAHeaderTypeThatDoesNotExist)
{
    SocketClient client;
    const Bytes chunk = Type0(3, 1, 20) + Hex("AA");
    EXPECT_EQ(CreateNewRtmpPkt(client.get(), static_cast<uint32_t>(chunk.size()), chunk.data(), 1, 4, 0, 3),
              nullptr);
    EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: CreateNewRtmpPkt: Invalid chunk message header type"});
}

TEST(CreateNewRtmpPkt, RefusesToInheritFromNothing)
{
    for (uint32_t type : {2U, 3U}) {
        SocketClient client;
        const Bytes chunk = Hex("83 000001 AABB");
        EXPECT_EQ(CreateNewRtmpPkt(client.get(), 6, chunk.data(), 2, type, 0, 3), nullptr);
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: CreateNewRtmpPkt: Getting message type id failed"});
    }
}

TEST(CreateNewRtmpPkt, APieceOfTheMessageLeavesItIncomplete)
{
    SocketClient client;
    const Bytes chunk = Hex("00 09 000102 000004 14 05060708 AABB");
    RtmpRecvPkt *pkt =
        CreateNewRtmpPkt(client.get(), static_cast<uint32_t>(chunk.size()), chunk.data(), 4, 0, 1, 73);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ChunkStreamId, 73U);
    EXPECT_EQ(pkt->ReceivedBytes, 2U);
    EXPECT_EQ(pkt->Complete, 0U);
    EXPECT_EQ(Bytes(pkt->PayloadData, pkt->PayloadData + 4), Hex("AABB0000"));
    EXPECT_EQ(IsRecvStrmPktExists(client.get(), pkt), -1); // storing it is the caller's
    EXPECT_EQ(FreeRecvPkt(client.server(), pkt), 0);
}
