#include "message_fixture.h"

namespace {

class SendList : public MessageTest {
  protected:
    // Chunk stream ids from head to tail; the links are walked both ways.
    std::vector<uint32_t> Ids() const
    {
        std::vector<uint32_t> forward, backward;
        for (const RtmpSendPkt *pkt = client.SendPktHead; pkt != nullptr; pkt = pkt->Next) {
            forward.push_back(pkt->ChunkStreamId);
        }
        for (const RtmpSendPkt *pkt = client.SendPktTail; pkt != nullptr; pkt = pkt->Prev) {
            backward.insert(backward.begin(), pkt->ChunkStreamId);
        }
        EXPECT_EQ(forward, backward);
        EXPECT_EQ(forward.size(), client.SendPktCount);
        return forward;
    }
};

using Ids32 = std::vector<uint32_t>;

TEST_F(SendList, MessagesAreAppended)
{
    Store(2, 0);
    Store(4, 0);
    Store(5, 0);
    EXPECT_EQ(Ids(), (Ids32{2, 4, 5}));
}

TEST_F(SendList, AMessageReplacesTheOneOfItsChunkStreamAndGoesToTheTail)
{
    for (uint32_t id : {2U, 4U, 5U}) {
        Store(id, 1);
    }
    Store(2, 7);
    EXPECT_EQ(Ids(), (Ids32{4, 5, 2}));
    Store(2, 8);
    EXPECT_EQ(Ids(), (Ids32{4, 5, 2}));
    Store(5, 9);
    EXPECT_EQ(Ids(), (Ids32{4, 2, 5}));
    EXPECT_EQ(GetSendPktFromList(&client, 2)->Timestamp, 8U);
}

TEST_F(SendList, AddingTheStoredMessageAgainChangesNothing)
{
    RtmpSendPkt *pkt = Store(4, 1);
    Store(5, 1);
    EXPECT_EQ(AddSendPkt(&client, pkt), 0);
    EXPECT_EQ(Ids(), (Ids32{4, 5}));
}

TEST_F(SendList, AMessageIsFoundByItsChunkStream)
{
    EXPECT_EQ(GetSendPktFromList(&client, 4), nullptr);
    RtmpSendPkt *four = Store(4, 0);
    RtmpSendPkt *zero = Store(0, 0);
    EXPECT_EQ(GetSendPktFromList(&client, 4), four);
    EXPECT_EQ(GetSendPktFromList(&client, 0), zero);
    EXPECT_EQ(GetSendPktFromList(&client, 5), nullptr);
    EXPECT_EQ(GetSendPktFromList(&client, -1), nullptr);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(SendList, NothingIsFoundWhenTheCountIsZero)
{
    RtmpSendPkt *pkt = Store(4, 0);
    client.SendPktCount = 0;
    EXPECT_EQ(GetSendPktFromList(&client, 4), nullptr);
    client.SendPktCount = 1;
    EXPECT_EQ(GetSendPktFromList(&client, 4), pkt);
}

struct RemovalRow {
    const char *sentence;
    uint32_t removed;
    Ids32 left;
};

TEST_F(SendList, RemovingKeepsHeadTailAndLinks)
{
    const RemovalRow rows[] = {{"the head", 2, {4, 5}}, {"the middle", 4, {2, 5}}, {"the tail", 5, {2, 4}}};
    for (const RemovalRow &row : rows) {
        SCOPED_TRACE(row.sentence);
        for (uint32_t id : {2U, 4U, 5U}) {
            Store(id, 0);
        }
        EXPECT_EQ(RemoveSendPkt(&client, GetSendPktFromList(&client, static_cast<int>(row.removed))), 0);
        EXPECT_EQ(Ids(), row.left);
        EXPECT_EQ(RemoveSendPkt(&client, nullptr), 0);
    }
}

TEST_F(SendList, RemovingTheOnlyMessageEmptiesTheList)
{
    EXPECT_EQ(RemoveSendPkt(&client, Store(4, 0)), 0);
    EXPECT_EQ(Ids(), Ids32{});
    EXPECT_EQ(client.SendPktHead, nullptr);
    EXPECT_EQ(client.SendPktTail, nullptr);
}

TEST_F(SendList, RemovingAllEmptiesTheListAndItCanBeFilledAgain)
{
    Store(2, 0);
    Store(4, 0);
    EXPECT_EQ(RemoveSendPkt(&client, nullptr), 0);
    EXPECT_EQ(Ids(), Ids32{});
    Store(4, 0);
    EXPECT_EQ(Ids(), Ids32{4});
}

TEST_F(SendList, AnEmptyListHasNothingToRemove)
{
    RtmpSendPkt stranger = {};
    EXPECT_EQ(RemoveSendPkt(&client, nullptr), -1);
    EXPECT_EQ(RemoveSendPkt(&client, &stranger), -1);
    EXPECT_EQ(log.lines(), Lines(2, "3 ERROR: RemoveSendPkt: No Rtmp Send stream packet list"));
}

TEST_F(SendList, AStrangerIsNotRemoved)
{
    Store(4, 0);
    RtmpSendPkt stranger = {};
    stranger.ChunkStreamId = 4;
    EXPECT_EQ(RemoveSendPkt(&client, &stranger), -1);
    EXPECT_EQ(Ids(), Ids32{4});
    EXPECT_EQ(log.lines(), Lines{});
}

// Under the address sanitizer a payload that is freed though borrowed, or not freed though owned, ends the
// test.
TEST_F(SendList, PayloadsAreFreedUnlessTheyAreBorrowed)
{
    static uint8_t borrowed[4] = {1, 2, 3, 4};
    for (uint32_t kind = 0; kind <= 60; kind++) {
        const bool isBorrowed =
            kind == RTMP_MSG_META_DATA || kind == RTMP_MSG_VIDEO || kind == RTMP_MSG_AUDIO;
        RtmpSendPkt *pkt = Store(4, 0, kind);
        pkt->PayloadData = isBorrowed ? borrowed : static_cast<uint8_t *>(calloc(1, 4));
        EXPECT_EQ(kind % 2 == 0 ? RemoveSendPkt(&client, pkt) : RemoveSendPkt(&client, nullptr), 0);
    }
    EXPECT_EQ(ToHex(borrowed, 4), "01 02 03 04");
    FreeSendPkt(nullptr);
}

TEST_F(SendList, AReplacedMessageFreesItsPayload)
{
    Store(4, 0)->PayloadData = static_cast<uint8_t *>(calloc(1, 4));
    Store(4, 1);
    EXPECT_EQ(Ids(), Ids32{4});
}

TEST_F(SendList, TheStoredTimestampIsCopiedOut)
{
    uint64_t time = 55;
    EXPECT_EQ(StoredTimestamp(&client, 4, &time), 0);
    EXPECT_EQ(time, 55U);
    Store(4, 0x1122334455);
    EXPECT_EQ(StoredTimestamp(&client, 4, &time), 1);
    EXPECT_EQ(time, 0x1122334455U);
}

TEST_F(SendList, AListThatCannotBeLockedIsLeftAlone)
{
    RtmpSendPkt *stored = Store(4, 0);
    RtmpSendPkt fresh = {};
    fresh.ChunkStreamId = 5;
    uint64_t time = 0;
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(AddSendPkt(&client, &fresh), -1);
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(RemoveSendPkt(&client, stored), -1);
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(GetSendPktFromList(&client, 4), nullptr);
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(StoredTimestamp(&client, 4, &time), -1);
    EXPECT_EQ(Ids(), Ids32{4});
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: AddSendPkt: Cannot lock send packet list",
                                  "3 ERROR: RemoveSendPkt: Cannot lock send packet list",
                                  "3 ERROR: GetSendPktFromList: Cannot lock send packet list",
                                  "3 ERROR: GetSendPktFromList: Cannot lock send packet list"}));
}

TEST_F(SendList, AListThatCannotBeUnlockedSaysSo)
{
    RtmpSendPkt *stored = Store(4, 0);
    RtmpSendPkt fresh = {};
    fresh.ChunkStreamId = 5;
    uint64_t time = 0;
    calls::failNext(Call::MutexUnlock);
    EXPECT_EQ(AddSendPkt(&client, &fresh), -1);
    EXPECT_EQ(Ids(), Ids32{4}) << "a message that was not added stays its caller's";
    calls::failNext(Call::MutexUnlock);
    EXPECT_EQ(GetSendPktFromList(&client, 4), nullptr);
    calls::failNext(Call::MutexUnlock);
    EXPECT_EQ(StoredTimestamp(&client, 4, &time), -1);
    calls::failNext(Call::MutexUnlock);
    EXPECT_EQ(RemoveSendPkt(&client, stored), -1);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: AddSendPkt: Cannot unlock send packet list",
                                  "3 ERROR: GetSendPktFromList: Cannot unlock send packet list",
                                  "3 ERROR: GetSendPktFromList: Cannot unlock send packet list",
                                  "3 ERROR: RemoveSendPkt: Cannot unlock send packet list"}));
}

TEST_F(SendList, ThreadsMayAddRemoveAndLookUpAtOnce)
{
    std::atomic<bool> stop{false};
    std::thread lookup([&] {
        uint64_t time = 0;
        while (!stop) {
            EXPECT_GE(StoredTimestamp(&client, 4, &time), 0);
        }
    });
    std::thread lookupOther([&] {
        uint64_t time = 0;
        while (!stop) {
            EXPECT_GE(StoredTimestamp(&client, 5, &time), 0);
        }
    });
    for (uint64_t i = 0; i < 2000; i++) {
        RtmpSendPkt *stored = Store(4, i);
        RtmpSendPkt next = *stored;
        next.Timestamp = i + 1;
        DecideMsgHdrType(&next, stored); // the sender moves the time on while others look
        Store(5, i);
        EXPECT_EQ(i % 2 == 0 ? RemoveSendPkt(&client, stored) : RemoveSendPkt(&client, nullptr), 0);
    }
    stop = true;
    lookup.join();
    lookupOther.join();
    EXPECT_EQ(log.lines(), Lines{});
}

} // namespace
