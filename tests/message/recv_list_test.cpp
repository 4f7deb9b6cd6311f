#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "support/socket_client.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

using Lines = std::vector<std::string>;

RtmpRecvPkt *NewPkt(uint32_t chunkStreamId, uint32_t length = 4, uint32_t typeId = 5)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = chunkStreamId;
    pkt->MsgLength = length;
    pkt->MsgTypeId = typeId;
    pkt->PayloadData = static_cast<uint8_t *>(calloc(length, 1));
    return pkt;
}

// What decoding leaves behind: a holder on the heap, its values, and strings within the payload.
void AttachCommand(RtmpRecvPkt *pkt, int values)
{
    AmfObject *list = static_cast<AmfObject *>(calloc(1, sizeof(AmfObject)));
    for (int i = 0; i < values; i++) {
        AmfObjProperty *value = static_cast<AmfObjProperty *>(calloc(1, sizeof(AmfObjProperty)));
        value->type = AMF_STRING;
        value->ObjVal.StrObj.data = reinterpret_cast<char *>(pkt->PayloadData);
        value->ObjVal.StrObj.len = 4;
        value->prev = list->last;
        (list->last != nullptr ? list->last->next : list->first) = value;
        list->last = value;
        list->count++;
    }
    pkt->Result.Amf = list;
}

// Chunk stream ids from head to tail; checks every link, both ways, and the count.
std::vector<uint32_t> IdsOf(RtmpClient *client)
{
    std::vector<uint32_t> ids;
    const RtmpRecvPkt *before = nullptr;
    for (const RtmpRecvPkt *pkt = client->RecvPktHead; pkt != nullptr; pkt = pkt->Next) {
        EXPECT_EQ(pkt->Prev, before);
        ids.push_back(pkt->ChunkStreamId);
        before = pkt;
    }
    EXPECT_EQ(client->RecvPktTail, before);
    EXPECT_EQ(client->RecvPktCount, ids.size());
    return ids;
}

// A lock that refuses: error-checking, and held by this thread already.
struct StuckLock {
    explicit StuckLock(RtmpMutex *lock) : lock_(lock)
    {
        pthread_mutex_destroy(lock);
        pthread_mutexattr_t checking;
        pthread_mutexattr_init(&checking);
        pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(lock, &checking);
        pthread_mutex_lock(lock);
    }
    ~StuckLock()
    {
        pthread_mutex_unlock(lock_);
    }
    RtmpMutex *lock_;
};

} // namespace

TEST(RecvList, PacketsAreAppendedInOrder)
{
    SocketClient client;
    for (uint32_t id : {3U, 2U, 65599U}) {
        ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(id)), 0);
    }
    EXPECT_EQ(IdsOf(client.get()), (std::vector<uint32_t>{3, 2, 65599}));
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(RecvList, APacketTakesThePlaceOfTheOneOfItsChunkStreamAtTheTail)
{
    SocketClient client;
    for (uint32_t id : {3U, 4U, 5U}) {
        ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(id)), 0);
    }
    RtmpRecvPkt *newer = NewPkt(4);
    ASSERT_EQ(AddRecvPkt(client.get(), newer), 0);
    EXPECT_EQ(IdsOf(client.get()), (std::vector<uint32_t>{3, 5, 4}));
    EXPECT_EQ(GetRecvPktFromList(client.get(), 4), newer);
}

TEST(RecvList, ReplacingTheOnlyPacketLeavesOne)
{
    SocketClient client;
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(3)), 0);
    RtmpRecvPkt *newer = NewPkt(3);
    ASSERT_EQ(AddRecvPkt(client.get(), newer), 0);
    EXPECT_EQ(IdsOf(client.get()), std::vector<uint32_t>{3});
    EXPECT_EQ(client->RecvPktHead, newer);
}

TEST(RecvList, AddingAStoredPacketAgainChangesNothing)
{
    SocketClient client;
    RtmpRecvPkt *pkt = NewPkt(3);
    ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(4)), 0);
    EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
    EXPECT_EQ(IdsOf(client.get()), (std::vector<uint32_t>{3, 4}));
}

TEST(RecvList, RemovingUnlinksFirstMiddleLastAndOnly)
{
    const struct {
        const char *sentence;
        std::vector<uint32_t> stored;
        int removed;
        std::vector<uint32_t> left;
    } rows[] = {
        {"the first of three", {3, 4, 5}, 3, {4, 5}}, {"the middle of three", {3, 4, 5}, 4, {3, 5}},
        {"the last of three", {3, 4, 5}, 5, {3, 4}},  {"the first of two", {3, 4}, 3, {4}},
        {"the last of two", {3, 4}, 4, {3}},          {"the only one", {3}, 3, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        SocketClient client;
        for (uint32_t id : row.stored) {
            ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(id)), 0);
        }
        EXPECT_EQ(RemoveRecvPkt(client.get(), GetRecvPktFromList(client.get(), row.removed)), 0);
        EXPECT_EQ(IdsOf(client.get()), row.left);
        EXPECT_EQ(client.takeLines(), Lines{});
    }
}

TEST(RecvList, RemovingNoPacketRemovesAll)
{
    SocketClient client;
    for (uint32_t id : {3U, 4U, 5U}) {
        ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(id)), 0);
    }
    EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0);
    EXPECT_EQ(IdsOf(client.get()), std::vector<uint32_t>{});
}

TEST(RecvList, AnEmptyListHasNothingToRemove)
{
    SocketClient client;
    RtmpRecvPkt *stranger = NewPkt(3);
    EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), -1);
    EXPECT_EQ(RemoveRecvPkt(client.get(), stranger), -1);
    EXPECT_EQ(client.takeLines(), (Lines{"3 ERROR: RemoveRecvPkt: No Rtmp Recv stream packet list",
                                         "3 ERROR: RemoveRecvPkt: No Rtmp Recv stream packet list"}));
    EXPECT_EQ(FreeRecvPkt(client.server(), stranger), 0);
}

TEST(RecvList, APacketThatIsNotStoredIsNotRemovedAndNothingIsLogged)
{
    SocketClient client;
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(3)), 0);
    RtmpRecvPkt *stranger = NewPkt(3);
    EXPECT_EQ(RemoveRecvPkt(client.get(), stranger), -1);
    EXPECT_EQ(IdsOf(client.get()), std::vector<uint32_t>{3});
    EXPECT_EQ(client.takeLines(), Lines{});
    EXPECT_EQ(FreeRecvPkt(client.server(), stranger), 0);
}

TEST(RecvList, ExistsMeansThisVeryPacket)
{
    SocketClient client;
    RtmpRecvPkt *pkt = NewPkt(3);
    EXPECT_EQ(IsRecvStrmPktExists(client.get(), pkt), -1); // also with an empty list
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(3)), 0);
    EXPECT_EQ(IsRecvStrmPktExists(client.get(), pkt), -1); // same chunk stream, another packet
    ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
    EXPECT_EQ(IsRecvStrmPktExists(client.get(), pkt), 0);
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(RecvList, LookupsAnswerByChunkStream)
{
    SocketClient client;
    EXPECT_EQ(GetRecvPktFromList(client.get(), 3), nullptr);
    EXPECT_EQ(GetPayloadHdrSize(client.get(), 3), -1);
    EXPECT_EQ(GetMsgTypeId(client.get(), 3), -1);
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(4, 16777215, 22)), 0);
    ASSERT_EQ(AddRecvPkt(client.get(), NewPkt(3, 7, 255)), 0);
    EXPECT_EQ(GetPayloadHdrSize(client.get(), 3), 7);
    EXPECT_EQ(GetMsgTypeId(client.get(), 3), 255);
    EXPECT_EQ(GetPayloadHdrSize(client.get(), 4), 16777215);
    EXPECT_EQ(GetMsgTypeId(client.get(), 4), 22);
    EXPECT_EQ(GetRecvPktFromList(client.get(), INT_MIN), nullptr);
    EXPECT_EQ(client.takeLines(), Lines{});
}

// The leak checker tells whether holder and values are freed.
TEST(RecvList, ACommandIsFreedWithItsDecodedValues)
{
    SocketClient client;
    for (uint32_t id : {3U, 4U, 5U}) {
        RtmpRecvPkt *pkt = NewPkt(id, 4, 20);
        AttachCommand(pkt, static_cast<int>(id));
        ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
    }
    RtmpRecvPkt *newer = NewPkt(4, 4, 20); // not decoded yet
    EXPECT_EQ(AddRecvPkt(client.get(), newer), 0);
    EXPECT_EQ(RemoveRecvPkt(client.get(), GetRecvPktFromList(client.get(), 3)), 0);
    EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0);
    EXPECT_EQ(IdsOf(client.get()), std::vector<uint32_t>{});
}

TEST(RecvList, TheEventOfAUserControlMessageIsNotTakenForACommand)
{
    SocketClient client;
    RtmpRecvPkt *pkt = NewPkt(2, 6, 4);
    pkt->Result.Event.EventType = 3;
    pkt->Result.Event.EventValue = 0xFFFFFFFF;
    ASSERT_EQ(AddRecvPkt(client.get(), pkt), 0);
    EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), 0);
}

TEST(RecvList, APacketThatWasNeverStoredIsFreedWithItsCommand)
{
    SocketClient client;
    RtmpRecvPkt *pkt = NewPkt(3, 4, 20);
    AttachCommand(pkt, 3);
    EXPECT_EQ(FreeRecvPkt(client.server(), pkt), 0);
    EXPECT_EQ(client.takeLines(), Lines{});
}

TEST(RecvList, EveryFunctionReportsALockThatCannotBeTaken)
{
    SocketClient client;
    RtmpRecvPkt *stored = NewPkt(3);
    ASSERT_EQ(AddRecvPkt(client.get(), stored), 0);
    RtmpRecvPkt *newer = NewPkt(3);
    {
        const StuckLock stuck(&client->RecvStrmListLock);
        EXPECT_EQ(AddRecvPkt(client.get(), newer), -1);
        EXPECT_EQ(RemoveRecvPkt(client.get(), nullptr), -1);
        EXPECT_EQ(GetRecvPktFromList(client.get(), 3), nullptr);
        EXPECT_EQ(IsRecvStrmPktExists(client.get(), stored), -1);
        EXPECT_EQ(GetPayloadHdrSize(client.get(), 3), -1);
        EXPECT_EQ(GetMsgTypeId(client.get(), 3), -1);
    }
    EXPECT_EQ(client.takeLines(), (Lines{"3 ERROR: AddRecvPkt: Cannot lock receive packet list",
                                         "3 ERROR: RemoveRecvPkt: Cannot lock receive packet list",
                                         "3 ERROR: GetRecvPktFromList: Cannot lock receive packet list",
                                         "3 ERROR: IsRecvStrmPktExists: Cannot lock receive packet list",
                                         "3 ERROR: GetPayloadHdrSize: Cannot lock receive packet list",
                                         "3 ERROR: GetMsgTypeId: Cannot lock receive packet list"}));
    EXPECT_EQ(IdsOf(client.get()), std::vector<uint32_t>{3});
    EXPECT_EQ(client->RecvPktHead, stored);
    EXPECT_EQ(FreeRecvPkt(client.server(), newer), 0);
}
