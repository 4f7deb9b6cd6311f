#include "message/recv_packet.h"
#include "received_chunks.h"
#include "rtmpcast/player.h"

#include <algorithm>
#include <malloc.h>

namespace {

// A client whose connection was accepted with RTMP_PLAYERS_CHUNKS_IN.
class StandardClient : public SocketClient {
  public:
    StandardClient()
    {
        get()->PlayerFlags = RTMP_PLAYERS_CHUNKS_IN;
    }
};

// The message's chunks behind its first header: `header` in front of each continuation.
Bytes Cut(const Bytes &payload, size_t chunkSize, const Bytes &header)
{
    Bytes out;
    for (size_t at = 0; at < payload.size(); at += chunkSize) {
        out =
            out + (at > 0 ? header : Bytes{}) + Slice(payload, at, std::min(chunkSize, payload.size() - at));
    }
    return out;
}

// Reads `count` chunks, which all belong to one message, and returns it.
RtmpRecvPkt *ReadMessageOf(SocketClient &client, size_t count)
{
    RtmpRecvPkt *pkt = ReadChunk(client);
    for (size_t i = 1; i < count && pkt != nullptr; i++) {
        EXPECT_EQ(pkt->Complete, 0U) << "chunk " << i;
        EXPECT_EQ(ReadChunk(client), pkt);
    }
    return pkt;
}

} // namespace

// --------------------------------------------------------------------------------------- chunk stream ids

TEST(StandardChunkReader, SixBitsOfTheFirstByteAreTheChunkStreamId)
{
    const struct {
        const char *sentence;
        Bytes basic;
        uint32_t id, form;
    } rows[] = {
        {"2", Hex("02"), 2, 0},
        {"15", Hex("0F"), 15, 0},
        {"16", Hex("10"), 16, 0},
        {"17", Hex("11"), 17, 0},
        {"18", Hex("12"), 18, 0},
        {"20", Hex("14"), 20, 0},
        {"31", Hex("1F"), 31, 0},
        {"32", Hex("20"), 32, 0},
        {"48", Hex("30"), 48, 0},
        {"63", Hex("3F"), 63, 0},
        {"64 in two bytes", Hex("00 00"), 64, 1},
        {"319 in two bytes", Hex("00 FF"), 319, 1},
        {"64 in three bytes", Hex("01 0000"), 64, 2},
        {"582 in three bytes, the low one first", Hex("01 0602"), 582, 2},
        {"65599 in three bytes", Hex("01 FFFF"), 65599, 2},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        StandardClient client;
        client.send(row.basic + Hex("000000 000002 05 00000000 AABB"));
        RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->ChunkStreamId, row.id);
        EXPECT_EQ(pkt->BasicHeaderForm, row.form);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_EQ(PayloadOf(pkt), Hex("AABB"));
        EXPECT_EQ(client.takeLines(), Lines{});
    }
}

TEST(StandardChunkReader, ChunkStreams4And20AreTwo)
{
    StandardClient client;
    client.send(Type0(4, 130, 20) + Counting(128) + Type0(20, 2, 5) + Hex("AABB") + Hex("C4") +
                Slice(Counting(130), 128, 2));
    RtmpRecvPkt *first = ReadChunk(client);
    RtmpRecvPkt *other = ReadChunk(client);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(PayloadOf(other), Hex("AABB"));
    EXPECT_EQ(ReadChunk(client), first);
    EXPECT_EQ(PayloadOf(first), Counting(130));
}

// ----------------------------------------------------------------------------------- where a message ends

TEST(StandardChunkReader, AMessageIsCompleteWhenItsLengthHasArrived)
{
    for (const size_t chunkSize : {1U, 2U, 64U, 128U, 5000U, 0x7FFFFFFFU}) {
        for (const size_t length : {1U, 2U, 3U, 127U, 128U, 129U, 255U, 256U, 257U, 384U, 1280U, 9984U}) {
            SCOPED_TRACE(std::to_string(length) + " in chunks of " + std::to_string(chunkSize));
            StandardClient client;
            client->InChunkSize = static_cast<uint32_t>(chunkSize);
            const Bytes payload = Counting(length);
            const Bytes chunks = Cut(payload, chunkSize, Hex("C3"));
            // and once more, with the header of the first
            client.send(Type0(3, static_cast<uint32_t>(length), 20) + chunks + Hex("C3") + chunks);
            for (int message = 0; message < 2; message++) {
                const RtmpRecvPkt *pkt = ReadMessageOf(client, (length - 1) / chunkSize + 1);
                ASSERT_NE(pkt, nullptr);
                EXPECT_EQ(pkt->Complete, 1U);
                EXPECT_EQ(pkt->MsgTypeId, 20U);
                EXPECT_TRUE(PayloadOf(pkt) == payload);
            }
            EXPECT_EQ(client.takeLines(), Lines{});
        }
    }
}

TEST(StandardChunkReader, AMessageWithoutPayloadIsCompleteWithItsHeader)
{
    StandardClient client;
    client.send(
        Hex("03 000000 000000 08 01000000") + // type 0, and three that take its length or say it again
        Hex("43 000000 000000 09") + Hex("83 000000") + Hex("C3") + Type0(3, 1, 20) + Hex("AA"));
    for (const uint32_t typeId : {8U, 9U, 9U, 9U}) {
        const RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_EQ(pkt->MsgTypeId, typeId);
        EXPECT_EQ(pkt->MsgLength, 0U);
        EXPECT_NE(pkt->PayloadData, nullptr);
    }
    const RtmpRecvPkt *last = ReadChunk(client);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(PayloadOf(last), Hex("AA"));
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(StandardChunkReader, TheChunkSizeMayChangeWithinAMessage)
{
    StandardClient client;
    const Bytes payload = Counting(300);
    client.send(Type0(3, 300, 20) + Slice(payload, 0, 128));
    RtmpRecvPkt *pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    client->InChunkSize = 10;
    client.send(Hex("C3") + Slice(payload, 128, 10));
    EXPECT_EQ(ReadChunk(client), pkt);
    client->InChunkSize = 162; // exactly the rest
    client.send(Hex("C3") + Slice(payload, 138, 162));
    EXPECT_EQ(ReadChunk(client), pkt);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(PayloadOf(pkt), payload);
}

TEST(StandardChunkReader, AnIncompleteMessageGoesOnWhateverTheNextHeaderSays)
{
    const struct {
        const char *sentence;
        Bytes header;
    } rows[] = {
        {"type 0 of another length and type", Hex("03 000009 000001 05 07000000")},
        {"type 0 with an extended timestamp", Hex("03 FFFFFF 000001 05 07000000 01020304")},
        {"type 1", Hex("43 000009 FFFFFF 05")},
        {"type 1 without payload", Hex("43 000009 000000 05")},
        {"type 2", Hex("83 000009")},
        {"type 2 with an extended timestamp", Hex("83 FFFFFF 01020304")},
        {"type 3", Hex("C3")},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        StandardClient client;
        const Bytes payload = Counting(256, 0xF0);
        client.send(Hex("03 000102 000100 14 01000000") + Slice(payload, 0, 128) + row.header +
                    Slice(payload, 128, 128));
        const RtmpRecvPkt *pkt = ReadMessageOf(client, 2);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_EQ(pkt->MsgLength, 256U);
        EXPECT_EQ(pkt->MsgTypeId, 20U);
        EXPECT_EQ(FieldOf(pkt->Timestamp), Hex("000102"));
        EXPECT_EQ(FieldOf(pkt->MsgStreamId), Hex("01000000"));
        EXPECT_EQ(PayloadOf(pkt), payload);
    }
}

// ------------------------------------------------------------------------------------- extended timestamps

TEST(StandardChunkReader, AType3ChunkHasTheExtendedTimestampOfItsMessage)
{
    StandardClient client;
    const Bytes payload = Counting(300);
    client.send(Hex("03 FFFFFF 00012C 14 00000000 01020304") +
                Cut(payload, 128, Hex("C3 01020304")) + // continuations
                Hex("C3 01020304") +                    // a new message
                Cut(payload, 128, Hex("C3 01020304")));
    for (int message = 0; message < 2; message++) {
        const RtmpRecvPkt *pkt = ReadMessageOf(client, 3);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(pkt->Complete, 1U);
        EXPECT_EQ(FieldOf(pkt->ExtendedTimestamp), Hex("01020304"));
        EXPECT_EQ(PayloadOf(pkt), payload);
    }
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(StandardChunkReader, TheLastHeaderThatHasATimestampSaysWhetherType3IsExtended)
{
    StandardClient client;
    client.send(Hex("03 FFFFFF 000002 14 00000000 01020304 AABB") + // extended
                Hex("83 000010 CCDD") +                             // no more
                Hex("C3 EEFF") +                                    // so neither is this
                Hex("83 FFFFFF 01000000 1122") +                    // again
                Hex("C3 01000000 3344"));
    for (const char *payload : {"AABB", "CCDD", "EEFF", "1122", "3344"}) {
        const RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(PayloadOf(pkt), Hex(payload));
    }
}

TEST(StandardChunkReader, AHeaderInTheMidstOfAMessageHoldsForTheType3ChunksBehindIt)
{
    StandardClient client;
    client->InChunkSize = 2;
    client.send(Hex("03 FFFFFF 000008 14 00000000 01020304 A1A2") + Hex("83 000010 A3A4") + Hex("C3 A5A6") +
                Hex("83 FFFFFF 01000000 A7A8") + Hex("C3 01000000 B1B2"));
    const RtmpRecvPkt *pkt = ReadMessageOf(client, 4);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(PayloadOf(pkt), Hex("A1A2A3A4A5A6A7A8"));
    pkt = ReadChunk(client);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(PayloadOf(pkt), Hex("B1B2"));
}

TEST(StandardChunkReader, AnExtendedTimestampIsOfItsChunkStreamAlone)
{
    StandardClient client;
    client.send(Hex("03 FFFFFF 000081 14 00000000 01020304") + Counting(128) + Type0(4, 129, 20) +
                Counting(128) + Hex("C4 AA") + Hex("C3 01020304 BB"));
    RtmpRecvPkt *extended = ReadChunk(client);
    RtmpRecvPkt *plain = ReadChunk(client);
    EXPECT_EQ(ReadChunk(client), plain);
    EXPECT_EQ(ReadChunk(client), extended);
    EXPECT_EQ(PayloadOf(plain), Counting(128) + Hex("AA"));
    EXPECT_EQ(PayloadOf(extended), Counting(128) + Hex("BB"));
}

// ------------------------------------------------------------------------------------------- inheritance

TEST(StandardChunkReader, ShortHeadersInheritLengthTypeAndMessageStream)
{
    StandardClient client;
    client.send(Hex("03 000000 000002 14 05060708 A1A2") + Hex("43 000001 000003 12 B1B2B3") +
                Hex("83 000001 C1C2C3") + Hex("C3 D1D2D3") + Hex("03 000000 000001 14 00000000 E1"));
    const struct {
        const char *payload;
        uint32_t typeId;
        const char *streamId;
    } rows[] = {
        {"A1A2", 20, "05060708"},   {"B1B2B3", 18, "05060708"}, {"C1C2C3", 18, "05060708"},
        {"D1D2D3", 18, "05060708"}, {"E1", 20, "00000000"},
    };
    for (const auto &row : rows) {
        const RtmpRecvPkt *pkt = ReadChunk(client);
        ASSERT_NE(pkt, nullptr);
        EXPECT_EQ(PayloadOf(pkt), Hex(row.payload));
        EXPECT_EQ(pkt->MsgTypeId, row.typeId);
        EXPECT_EQ(FieldOf(pkt->MsgStreamId), Hex(row.streamId));
        EXPECT_EQ(client->RecvPktCount, 1U);
    }
}

TEST(StandardChunkReader, NothingIsInheritedFromAChunkStreamThatWasNotUsed)
{
    for (const char *header : {"83 000001 AA", "C3 AA"}) {
        StandardClient client;
        client.send(Hex(header));
        EXPECT_EQ(ReadChunk(client), nullptr);
        EXPECT_EQ(client.takeLines(), Lines{"3 ERROR: ReadRtmpMessage: Getting payload header size failed"});
    }
}

// ------------------------------------------------------------------------------------- abandoned messages

TEST(AbandonMessage, TheNextChunkBeginsAMessageThatInheritsFromTheAbandonedOne)
{
    StandardClient client;
    client.send(Hex("03 FFFFFF 000100 14 01000000 01020304") + Counting(128));
    ASSERT_NE(ReadChunk(client), nullptr);
    EXPECT_EQ(AbandonMessage(client.get(), 3), 0);
    const Bytes payload = Counting(256, 0x40);
    client.send(Hex("C3 01020304") + Cut(payload, 128, Hex("C3 01020304")));
    const RtmpRecvPkt *pkt = ReadMessageOf(client, 2);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(pkt->MsgTypeId, 20U);
    EXPECT_EQ(FieldOf(pkt->MsgStreamId), Hex("01000000"));
    EXPECT_EQ(PayloadOf(pkt), payload);
    EXPECT_EQ(client->RecvPktCount, 1U);
}

TEST(AbandonMessage, LeavesCompleteMessagesAndOtherChunkStreamsAlone)
{
    StandardClient client;
    client.send(Type0(3, 2, 20) + Hex("AABB") + Type0(4, 130, 20) + Counting(128));
    RtmpRecvPkt *complete = ReadChunk(client);
    RtmpRecvPkt *open = ReadChunk(client);
    ASSERT_NE(open, nullptr);
    for (const uint32_t id : {3U, 0U, 5U, 0xFFFFFFFFU}) {
        EXPECT_EQ(AbandonMessage(client.get(), id), 0);
    }
    EXPECT_EQ(PayloadOf(complete), Hex("AABB"));
    client.send(Hex("C4 8081") + Hex("C3 CCDD"));
    EXPECT_EQ(ReadChunk(client), open);
    EXPECT_EQ(PayloadOf(open), Counting(130));
    const RtmpRecvPkt *next = ReadChunk(client);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(PayloadOf(next), Hex("CCDD"));
}

// ---------------------------------------------------------------------------------------------- bad input

TEST(StandardChunkReader, AChunkCutAtEveryByteEndsTheConnection)
{
    const Bytes before = Hex("03 FFFFFF 000100 14 00000000 01020304") + Counting(128);
    const struct {
        const char *sentence;
        Bytes chunk;
    } rows[] = {
        {"of a new chunk stream", Hex("01 0602 FFFFFF 000010 14 00000000 01020304") + Counting(16)},
        {"without payload", Hex("04 FFFFFF 000000 14 00000000 01020304")},
        {"a continuation with its time", Hex("C3 01020304") + Counting(128)},
        {"another header in the midst of a message", Hex("83 000001") + Counting(128)},
    };
    for (const auto &row : rows) {
        for (size_t cut = 0; cut < row.chunk.size(); cut++) {
            SCOPED_TRACE(std::string(row.sentence) + ", " + std::to_string(cut));
            StandardClient client;
            client.send(before);
            ASSERT_NE(ReadChunk(client), nullptr);
            client.send(Slice(row.chunk, 0, cut));
            client.endOfInput();
            EXPECT_EQ(ReadRtmpMessage(client.get()), nullptr);
            EXPECT_EQ(client.takeLines(), kClosedWhileReading);
            EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0); // the list is not left locked
        }
    }
}

TEST(StandardChunkReader, MemoryGrowsWithWhatArrives)
{
    StandardClient client;
    client->InChunkSize = 0x7FFFFFFF;
    client.send(Type0(3, 0xFFFFFF, 20) + Counting(5000));
    client.endOfInput();
    const size_t before = mallinfo2().hblkhd; // what 16 MB at once would show in
    EXPECT_EQ(ReadRtmpMessage(client.get()), nullptr);
    EXPECT_EQ(mallinfo2().hblkhd, before);
    EXPECT_EQ(client.takeLines(), kClosedWhileReading);
    EXPECT_EQ(client->RecvPktCount, 0U);

    StandardClient beginner;
    beginner->InChunkSize = 1;
    for (uint8_t id = 2; id < 52; id++) {
        beginner.send(Type0(id, 0xFFFFFF, 20) + Hex("AA"));
        const RtmpRecvPkt *pkt = ReadChunk(beginner);
        ASSERT_NE(pkt, nullptr);
        EXPECT_LE(PayloadRoom(pkt), 128U);
    }
}

TEST(StandardChunkReader, AHostsOwnPacketHasItsWholePayload)
{
    StandardClient client;
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = 3;
    pkt->MsgLength = 300;
    pkt->ReceivedBytes = 172;
    pkt->PayloadData = static_cast<uint8_t *>(calloc(1, 300));
    ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
    client.send(Hex("C3") + Counting(128));
    EXPECT_EQ(ReadRtmpMessage(client.get()), pkt);
    EXPECT_EQ(pkt->Complete, 1U);
    EXPECT_EQ(Slice(PayloadOf(pkt), 172, 128), Counting(128));
}
