// A peer that uses as many chunk streams as there are: every packet is found, and a chunk costs what it costs
// with a few of them.
#include "message/chunk_reader.h"
#include "message/recv_list.h"
#include "support/socket_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <thread>

namespace {

constexpr uint32_t kFirstId = 64;

RtmpRecvPkt *NewPkt(uint32_t chunkStreamId)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = chunkStreamId;
    pkt->MsgLength = chunkStreamId;
    return pkt;
}

Bytes Chunk(uint32_t id, uint8_t headerType, const Bytes &rest)
{
    const uint32_t coded = id - kFirstId;
    return Bytes{static_cast<uint8_t>(headerType << 6 | 1), static_cast<uint8_t>(coded),
                 static_cast<uint8_t>(coded >> 8)} +
           rest;
}

void ReadChunks(SocketClient &client, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
        ASSERT_NE(pkt, nullptr);
        ASSERT_TRUE(IsKnownRecvPktStored(client.get(), pkt) == 0 || AddRecvPkt(client.get(), pkt) == 0);
    }
}

// Seconds for `chunks` chunks that take turns on `streams` chunk streams, whose messages have begun before.
double SecondsFor(uint32_t streams, uint32_t chunks)
{
    SocketClient client;
    client->InChunkSize = 1;
    Bytes begin;
    Bytes turns;
    for (uint32_t i = 0; i < streams; i++) {
        begin = std::move(begin) + Chunk(kFirstId + i, 0, Hex("000000 FFFFFF 14 00000000 AA"));
    }
    for (uint32_t i = 0; i < chunks; i++) {
        turns = std::move(turns) + Chunk(kFirstId + i % streams, 3, Hex("BB"));
    }
    std::thread peer([&] { client.send(begin + turns); });
    ReadChunks(client, streams);
    const auto start = std::chrono::steady_clock::now();
    ReadChunks(client, chunks);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    peer.join();
    EXPECT_EQ(client->RecvPktCount, streams);
    return taken.count();
}

} // namespace

TEST(ManyChunkStreams, AChunkCostsWhatItCostsWithAFewOfThem)
{
    constexpr uint32_t chunks = 5000;
    const double few = SecondsFor(4, chunks);
    const double many = SecondsFor(10000, chunks);
    EXPECT_LT(many, 8 * few + 0.1); // by walks it is fifty times and more
}

TEST(ManyChunkStreams, EveryPacketIsFoundWhateverComesAndGoes)
{
    std::mt19937 random(7);
    SocketClient client;
    std::map<uint32_t, RtmpRecvPkt *> stored;
    // Ids that differ in their lowest bits, in their highest, and by one.
    const uint32_t ids[] = {0,       1,       2,          3,          64,         65,
                            319,     320,     65599,      0x80000000, 0x40000000, 0xC0000000,
                            0x10000, 0x20000, 0xFFFFFFFF, 0x7FFFFFFF, 0xAAAAAAAA, 0x55555555};
    for (int round = 0; round < 3000; round++) {
        const uint32_t id = ids[random() % std::size(ids)];
        if (random() % 3 != 0) {
            stored[id] = NewPkt(id);
            ASSERT_EQ(AddRecvPkt(client.get(), stored[id]), 0);
        } else if (stored.count(id) != 0) {
            ASSERT_EQ(RemoveRecvPkt(client.get(), stored[id]), 0);
            stored.erase(id);
        }
        ASSERT_EQ(client->RecvPktCount, stored.size());
        for (const uint32_t each : ids) {
            RtmpRecvPkt *expected = stored.count(each) != 0 ? stored[each] : nullptr;
            ASSERT_EQ(GetRecvPktFromList(client.get(), static_cast<int>(each)), expected) << each;
            ASSERT_EQ(IsRecvStrmPktExists(client.get(), expected), expected != nullptr ? 0 : -1);
        }
    }
    EXPECT_EQ(client.takeLines(), std::vector<std::string>{});
}

// The caller may ask for a packet that is gone: only its address is looked at.
TEST(ManyChunkStreams, APacketThatIsGoneMayBeAskedFor)
{
    SocketClient client;
    RtmpRecvPkt *gone = NewPkt(3);
    ASSERT_EQ(AddRecvPkt(client.get(), gone), 0);
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(4)), 0);
    ASSERT_EQ(RemoveRecvPkt(client.get(), gone), 0);
    EXPECT_EQ(IsRecvStrmPktExists(client.get(), gone), -1);
    EXPECT_EQ(RemoveRecvPkt(client.get(), gone), -1);
    EXPECT_EQ(client->RecvPktCount, 1U);
}

TEST(ManyChunkStreams, ACopyOfAStoredPacketIsAnotherPacket)
{
    SocketClient client;
    for (const uint32_t id : {3U, 4U, 5U, 7U}) {
        ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(id)), 0);
    }
    RtmpRecvPkt *stored = GetRecvPktFromList(client.get(), 3);
    RtmpRecvPkt *copy = NewPkt(3);
    *copy = *stored;
    EXPECT_EQ(IsRecvStrmPktExists(client.get(), copy), -1);
    EXPECT_EQ(AddRecvPkt(client.get(), copy), 0); // in place of the other, which is freed
    EXPECT_EQ(client->RecvPktCount, 4U);
    for (const uint32_t id : {3U, 4U, 5U, 7U}) {
        EXPECT_NE(GetRecvPktFromList(client.get(), static_cast<int>(id)), nullptr);
    }
    EXPECT_EQ(GetRecvPktFromList(client.get(), 3), copy);
}
