// Chunk streams and headers as no player uses them, by both readers.
#include "rtmpcast/player.h"
#include "support/large.h"
#include "support/socket_client.h"

#include "message/chunk_reader.h"
#include "message/recv_list.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <thread>

namespace {

struct HostileReader {
    const char *name;
    uint32_t players;
};

constexpr uint32_t kEveryId = 65536; // that three bytes can name: 64 to 65599

class HostileChunkStreams : public testing::TestWithParam<HostileReader> {
  protected:
    HostileChunkStreams()
    {
        client->PlayerFlags = GetParam().players;
    }
    bool isStandard() const
    {
        return GetParam().players == RTMP_PLAYERS_ALL;
    }
    // The next chunk, stored; null once the connection is over.
    RtmpRecvPkt *next()
    {
        RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
        if (pkt != nullptr && IsKnownRecvPktStored(client.get(), pkt) != 0) {
            EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
        }
        return pkt;
    }
    SocketClient client;
};

// Chunk stream 64 and `above` more, by three bytes (RTMP 1.0, 5.3.1.1).
Bytes OfThreeBytes(uint8_t headerType, uint32_t above)
{
    return {static_cast<uint8_t>(headerType << 6 | 1), static_cast<uint8_t>(above),
            static_cast<uint8_t>(above >> 8)};
}

size_t AllocatedNow()
{
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

} // namespace

TEST_P(HostileChunkStreams, EveryIdIsReadInEveryFormThatNamesIt)
{
    const Bytes rest = Hex("000000 000001 03 00000000 AA");
    for (uint32_t first = 0; first < 64; first++) {
        SCOPED_TRACE(first);
        const uint32_t masked =
            isStandard() ? first : first & 0x2F; // 16 to 31 and 48 to 63 are others by default
        for (uint32_t low = 0; low < 256; low += masked == 0 ? 1 : 256) {
            const Bytes more = masked == 0   ? Bytes{static_cast<uint8_t>(low)}
                               : masked == 1 ? Bytes{0x21, 0x43}
                                             : Bytes{};
            client.send(Bytes{static_cast<uint8_t>(first)} + more + rest);
            const RtmpRecvPkt *pkt = next();
            ASSERT_NE(pkt, nullptr);
            EXPECT_EQ(pkt->ChunkStreamId, masked == 0 ? low + 64 : masked == 1 ? 0x4321 + 64U : masked);
            EXPECT_EQ(pkt->Complete, 1U);
        }
    }
    for (uint32_t above = 0; above < kEveryId; above++) {
        client.send(OfThreeBytes(0, above) + rest);
        const RtmpRecvPkt *pkt = next();
        ASSERT_NE(pkt, nullptr);
        ASSERT_EQ(pkt->ChunkStreamId, above + 64);
        ASSERT_EQ(pkt->Complete, 1U);
    }
    const uint32_t below = isStandard() ? 62 : 14 + 16; // 2 to 63; 2 to 15 and 32 to 47
    EXPECT_EQ(client->RecvPktCount, kEveryId + below);
}

TEST_P(HostileChunkStreams, TheLongestMessageBegunOnEveryOneCostsNoMoreThanItsBeginning)
{
    client->InChunkSize = 1;
    const size_t before = AllocatedNow();
    for (uint32_t above = 0; above < kEveryId; above++) {
        client.send(OfThreeBytes(0, above) + Hex("000000 FFFFFF 14 00000000 AA"));
        ASSERT_NE(next(), nullptr);
    }
    EXPECT_EQ(client->RecvPktCount, kEveryId);
    EXPECT_LE(AllocatedNow(), before + size_t{kEveryId} * 512);
    client.send(OfThreeBytes(0, 0)); // and a header without its end
    client.endOfInput();
    EXPECT_EQ(next(), nullptr);
}

TEST_P(HostileChunkStreams, MessagesOfNothingEndTheConnectionOrAreManyMessages)
{
    uint32_t read = 0;
    for (uint32_t above = 0; above < kEveryId; above++) {
        client.send(OfThreeBytes(0, above) + Hex("000000 000000 03 00000000"));
        const RtmpRecvPkt *pkt = next();
        if (pkt == nullptr) {
            break;
        }
        read += pkt->Complete;
    }
    EXPECT_EQ(read, isStandard() ? kEveryId : 0U);
}

TEST_P(HostileChunkStreams, AFreshOneBeginsWithAHeaderThatTellsLengthAndType)
{
    const struct {
        const char *chunk;
        bool isRead;
    } rows[] = {{"45 000000 000001 03 AA", true}, {"85 000000 AA", false}, {"C5 AA", false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.chunk);
        SocketClient fresh;
        fresh->PlayerFlags = GetParam().players;
        fresh.send(Hex(row.chunk));
        fresh.endOfInput();
        RtmpRecvPkt *pkt = ReadRtmpMessage(fresh.get());
        EXPECT_EQ(pkt != nullptr, row.isRead);
        if (pkt != nullptr) {
            EXPECT_EQ(AddRecvPkt(fresh.get(), pkt), 0);
        }
    }
}

TEST_P(HostileChunkStreams, AnExtendedTimestampOfAnyValueIsFourBytesAndNoMore)
{
    for (const char *value :
         {"00000000", "00FFFFFE", "00FFFFFF", "01000000", "7FFFFFFF", "FFFFFFFF", "00000001"}) {
        for (const char *header : {"05 FFFFFF 000002 03 00000000", "45 FFFFFF 000002 03", "85 FFFFFF"}) {
            SCOPED_TRACE(std::string(header) + value);
            client.send(Hex(header) + Hex(value) + Hex("AABB"));
            const RtmpRecvPkt *pkt = next();
            ASSERT_NE(pkt, nullptr);
            EXPECT_EQ(pkt->Complete, 1U);
            EXPECT_TRUE(Same(Bytes(pkt->ExtendedTimestamp, pkt->ExtendedTimestamp + 4), Hex(value)));
            EXPECT_TRUE(Same(Bytes(pkt->PayloadData, pkt->PayloadData + 2), Hex("AABB")));
        }
    }
    // One below it has none.
    client.send(Hex("05 FFFFFE 000002 03 00000000 AABB"));
    const RtmpRecvPkt *pkt = next();
    ASSERT_NE(pkt, nullptr);
    EXPECT_TRUE(Same(Bytes(pkt->ExtendedTimestamp, pkt->ExtendedTimestamp + 4), Bytes(4)));
    EXPECT_TRUE(Same(Bytes(pkt->PayloadData, pkt->PayloadData + 2), Hex("AABB")));
}

TEST_P(HostileChunkStreams, AMessageInChunksOfOneByteIsReadByteByByte)
{
    const uint32_t length = static_cast<uint32_t>(UnlessLarge(1 << 16, 4 << 20));
    client->InChunkSize = 1;
    const Bytes payload = Counting(length);
    Bytes bytes = Hex("05 000000") + BigEndian(length, 3) + Hex("03 00000000") + Slice(payload, 0, 1);
    for (size_t i = 1; i < length; i++) {
        bytes.push_back(0xC5);
        bytes.push_back(payload[i]);
    }
    std::thread peer([&] { client.send(bytes); });
    const RtmpRecvPkt *pkt = nullptr;
    for (uint32_t i = 0; i < length; i++) {
        pkt = next();
        if (pkt == nullptr || pkt->ReceivedBytes != i + 1) {
            break;
        }
    }
    peer.join();
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ReceivedBytes, length);
    EXPECT_EQ(pkt->Complete, isStandard() ? 1U : 0U); // by default whole chunks alone never complete it
    EXPECT_TRUE(Bytes(pkt->PayloadData, pkt->PayloadData + length) == payload);
}

INSTANTIATE_TEST_SUITE_P(Readers, HostileChunkStreams,
                         testing::Values(HostileReader{"Exact", RTMP_PLAYERS_EXACT},
                                         HostileReader{"Standard", RTMP_PLAYERS_ALL}),
                         [](const testing::TestParamInfo<HostileReader> &row) { return row.param.name; });
