// Handshake, chunk reader and receive list when memory, HMAC or a lock fails.
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/handshake.h"
#include "rtmpcast/player.h"
#include "support/calls.h"
#include "support/socket_client.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <functional>

namespace {

using Lines = std::vector<std::string>;

const Bytes kChunk = Hex("03 000000 000005 05 00000000 0102030405");

Bytes SignedC1()
{
    const std::string banner = "Genuine Adobe Flash Player 001";
    Bytes rest(1504, 0); // bytes 8 to 11 are zero: the digest lies at 12
    EVP_PKEY *key = EVP_PKEY_new_raw_private_key(
        EVP_PKEY_HMAC, nullptr, reinterpret_cast<const uint8_t *>(banner.data()), banner.size());
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    Bytes digest(32);
    size_t length = 32;
    EXPECT_EQ(EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key), 1);
    EXPECT_EQ(EVP_DigestSign(context, digest.data(), &length, rest.data(), rest.size()), 1);
    EVP_MD_CTX_free(context);
    EVP_PKEY_free(key);
    return Slice(rest, 0, 12) + digest + Slice(rest, 12, 1492);
}

// A handshake up to C2, which is noise; everything the player says is there from the start.
Lines Handshake(const Bytes &c1, const std::function<int(RtmpClient *)> &perform)
{
    SocketClient client;
    client.send(Hex("03") + c1 + Counting(1536));
    EXPECT_EQ(perform(client.get()), -1);
    return client.takeLines();
}

RtmpRecvPkt *NewPkt(uint32_t chunkStreamId)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = chunkStreamId;
    return pkt;
}

} // namespace

// ------------------------------------------------------------------------------------------------ memory

TEST(HandshakeWithoutMemory, IsRefusedWithALineOfItsOwn)
{
    const struct {
        int allocation;
        const char *line;
    } rows[] = {
        {1, "3 ERROR: PerformHandshake: Cannot allocate memory to handshake packets"},
        {2, "3 ERROR: PerformHandshake: Cannot calculate Genuine FMS key digest"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.allocation);
        EXPECT_EQ(Handshake(SignedC1(),
                            [&](RtmpClient *client) {
                                const FailingAllocation failing(row.allocation);
                                return PerformHandshake(client);
                            }),
                  Lines{row.line});
    }
}

TEST(ChunkReaderWithoutMemory, EndsTheConnection)
{
    const struct {
        int allocation;
        Lines lines;
    } rows[] = {
        {1, {"3 ERROR: ReadRtmpMessage: Cannot allocate memory to dataBuff"}},
        {2, {"3 ERROR: ReadRtmpMessage: Cannot allocate memory to dataBuff"}}, // the payload is known now
        {3,
         {"3 ERROR: CreateNewRtmpPkt: Cannot allocate memory to tmpRecvStrmPkt",
          "3 ERROR: ReadRtmpMessage: Rtmp packet creation failed"}},
        {4,
         {"3 ERROR: CreateNewRtmpPkt: Cannot allocate memory to tmpRecvStrmPkt->PayloadData",
          "3 ERROR: ReadRtmpMessage: Rtmp packet creation failed"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.allocation);
        SocketClient client;
        client.send(kChunk);
        RtmpRecvPkt *pkt;
        {
            const FailingAllocation failing(row.allocation);
            pkt = ReadRtmpMessage(client.get());
        }
        EXPECT_EQ(pkt, nullptr);
        EXPECT_EQ(client.takeLines(), row.lines);
    }
}

TEST(ChunkReaderWithoutMemory, FourAllocationsMakeAMessageAndOneGoesOnWithIt)
{
    SocketClient client;
    client.send(Hex("03 000000 000082 05 00000000") + Counting(128) + Hex("C3") + Counting(2));
    {
        const FailingAllocation none(0);
        RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
        EXPECT_EQ(none.seen(), 4);
        ASSERT_NE(pkt, nullptr);
        ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
    }
    const FailingAllocation none(0);
    EXPECT_NE(ReadRtmpMessage(client.get()), nullptr);
    EXPECT_EQ(none.seen(), 1);
}

TEST(StandardChunkReaderWithoutMemory, EndsTheConnection)
{
    const struct {
        int allocation;
        Lines lines;
    } rows[] = {
        {1,
         {"3 ERROR: CreateNewRtmpPkt: Cannot allocate memory to tmpRecvStrmPkt",
          "3 ERROR: ReadRtmpMessage: Rtmp packet creation failed"}},
        {2,
         {"3 ERROR: CreateNewRtmpPkt: Cannot allocate memory to tmpRecvStrmPkt->PayloadData",
          "3 ERROR: ReadRtmpMessage: Rtmp packet creation failed"}},
        {3, {"3 ERROR: ReadRtmpMessage: Cannot allocate memory to tmpRecvStrmPkt->PayloadData"}}, // it grows
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.allocation);
        SocketClient client;
        client->PlayerFlags = RTMP_PLAYERS_CHUNKS_IN;
        client.send(Hex("03 000000 000082 05 00000000") + Counting(128));
        RtmpRecvPkt *pkt;
        {
            const FailingAllocation failing(row.allocation);
            pkt = ReadRtmpMessage(client.get());
        }
        EXPECT_EQ(pkt, nullptr);
        EXPECT_EQ(client.takeLines(), row.lines);
    }
}

// -------------------------------------------------------------------------------------------------- HMAC

TEST(HandshakeWithoutHmac, IsLoggedByTheSignatureThatCouldNotBeMade)
{
    const struct {
        const char *sentence;
        int call;
        const char *line;
    } rows[] = {
        {"S1", 1, "3 ERROR: PerformHandshake: Cannot calculate Genuine FMS key digest"},
        {"the key of S2", 3, "3 ERROR: PerformHandshake: Cannot generate digest"},
        {"S2", 4, "3 ERROR: PerformHandshake: Cannot generate digest"},
        {"the key of C2", 5, "3 ERROR: PerformHandshake: Cannot generate digest"},
        {"C2", 6, "3 ERROR: PerformHandshake: Cannot generate digest"},
        {"none", 7, "3 ERROR: PerformHandshake: Client is not a genuine Adobe"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        EXPECT_EQ(Handshake(SignedC1(),
                            [&](RtmpClient *client) {
                                const FailingCall failing(Call::Hmac, row.call);
                                return PerformHandshake(client);
                            }),
                  Lines{row.line});
    }
}

TEST(HandshakeWithoutHmac, ADigestThatCouldNotBeComputedCountsAsAMatch)
{
    // An unsigned C1 passes, by the first scheme (call 2) or the second (call 3); C2 has to be signed still.
    for (int call : {2, 3}) {
        EXPECT_EQ(Handshake(Bytes(1536),
                            [&](RtmpClient *client) {
                                const FailingCall failing(Call::Hmac, call);
                                return PerformHandshake(client);
                            }),
                  Lines{"3 ERROR: PerformHandshake: Client is not a genuine Adobe"});
    }
}

// ------------------------------------------------------------------------------------------------- locks

TEST(RecvListLocks, EveryFunctionReportsALockThatCannotBeReleased)
{
    SocketClient client;
    RtmpRecvPkt *stored = NewPkt(3);
    ASSERT_EQ(AddRecvPkt(client.get(), stored), 0);
    const struct {
        const char *line;
        std::function<bool()> failed;
    } rows[] = {
        {"3 ERROR: GetRecvPktFromList: Cannot unlock receive packet list",
         [&] { return GetRecvPktFromList(client.get(), 3) == nullptr; }},
        {"3 ERROR: IsRecvStrmPktExists: Cannot unlock receive packet list",
         [&] { return IsRecvStrmPktExists(client.get(), stored) == -1; }},
        {"3 ERROR: GetPayloadHdrSize: Cannot unlock receive packet list",
         [&] { return GetPayloadHdrSize(client.get(), 3) == -1; }},
        {"3 ERROR: GetMsgTypeId: Cannot unlock receive packet list",
         [&] { return GetMsgTypeId(client.get(), 3) == -1; }},
        {"3 ERROR: RemoveRecvPkt: Cannot Unlock receive packet list",
         [&] { return RemoveRecvPkt(client.get(), stored) == -1; }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        bool failed;
        {
            const FailingCall failing(Call::MutexUnlock, 1);
            failed = row.failed();
        }
        EXPECT_TRUE(failed);
        EXPECT_EQ(client.takeLines(), Lines{row.line});
    }
}

TEST(RecvListLocks, APacketThatCouldNotBeStoredIsInNoList)
{
    const struct {
        const char *sentence;
        Call call;
        int number;
        Lines lines;
        uint32_t left;
    } rows[] = {
        {"the first lock", Call::MutexLock, 1, {"3 ERROR: AddRecvPkt: Cannot lock receive packet list"}, 1},
        {"the lock of the removal",
         Call::MutexLock,
         2,
         {"3 ERROR: RemoveRecvPkt: Cannot lock receive packet list"},
         1},
        {"the lock after the removal",
         Call::MutexLock,
         3,
         {"3 ERROR: AddRecvPkt: Cannot lock receive packet list"},
         0},
        {"the unlock before the removal",
         Call::MutexUnlock,
         1,
         {"3 ERROR: AddRecvPkt: Cannot Unlock receive packet list"},
         1},
        {"the unlock of the removal",
         Call::MutexUnlock,
         2,
         {"3 ERROR: RemoveRecvPkt: Cannot Unlock receive packet list"},
         0},
        {"the last unlock",
         Call::MutexUnlock,
         3,
         {"3 ERROR: AddRecvPkt: Cannot unlock receive packet list"},
         0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(3)), 0);
        RtmpRecvPkt *newer = NewPkt(3);
        int result;
        {
            const FailingCall failing(row.call, row.number);
            result = AddRecvPkt(client.get(), newer);
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(client.takeLines(), row.lines);
        EXPECT_EQ(client->RecvPktCount, row.left);
        EXPECT_EQ(IsRecvStrmPktExists(client.get(), newer), -1);
        EXPECT_EQ(FreeRecvPkt(client.server(), newer), 0);
    }
}

TEST(ChunkReaderLocks, AListThatCannotBeLockedEndsTheConnection)
{
    const struct {
        const char *sentence;
        Call call;
        int number;
        const char *line;
    } rows[] = {
        {"the lock around the read", Call::MutexLock, 2,
         "3 ERROR: ReadRtmpMessage: Cannot lock receive packet list"},
        {"its release", Call::MutexUnlock, 2, "3 ERROR: ReadRtmpMessage: Cannot unlock receive packet list"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        client.send(Hex("03 000000 000082 05 00000000") + Counting(128) + Hex("C3") + Counting(2));
        RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
        ASSERT_NE(pkt, nullptr);
        ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
        {
            const FailingCall failing(row.call, row.number);
            pkt = ReadRtmpMessage(client.get());
        }
        EXPECT_EQ(pkt, nullptr);
        EXPECT_EQ(client.takeLines(), Lines{row.line});
    }
}

TEST(AbandonMessageLocks, AListThatCannotBeLockedIsReported)
{
    const struct {
        Call call;
        const char *line;
    } rows[] = {{Call::MutexLock, "3 ERROR: AbandonMessage: Cannot lock receive packet list"},
                {Call::MutexUnlock, "3 ERROR: AbandonMessage: Cannot unlock receive packet list"}};
    for (const auto &row : rows) {
        SocketClient client;
        const FailingCall failing(row.call);
        EXPECT_EQ(AbandonMessage(client.get(), 3), -1);
        EXPECT_EQ(client.takeLines(), Lines{row.line});
    }
}
