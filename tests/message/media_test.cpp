#include "message/media.h"

#include "instruments/monitor_records.h"
#include "instruments/queue_records.h"
#include "message_fixture.h"

namespace {

class MediaMessages : public MessageTest {
  protected:
    MediaMessages()
    {
        client.StreamId = 1;
        client.StatusChunkStreamId = 5;
        client.AudioChunkStreamId = 6;
        client.Session = &session;
        session.Monitor = &monitor;
        session.Queue = &queue;
    }

    Packet Media(int kind, uint32_t length, uint64_t delta)
    {
        return Packet(GenerateRtmpMediaMsg(&client, kind, length, frame, delta));
    }

    uint8_t frame[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    RtmpMonitor monitor = {};
    RtmpThreadedQueue queue = {};
};

TEST_F(MediaMessages, VideoGoesOutOnTheStatusChunkStreamWithFiveBytesMore)
{
    const Packet pkt = Media(RTMP_MSG_VIDEO, 100, 40);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ChunkStreamId, 5U);
    EXPECT_EQ(pkt->MsgTypeId, 9U);
    EXPECT_EQ(pkt->MsgKind, 51U);
    EXPECT_EQ(pkt->PayloadLength, 105U);
    EXPECT_EQ(pkt->PayloadData, frame);
    EXPECT_EQ(StreamIdOf(pkt.get()), "01 00 00 00");
}

TEST_F(MediaMessages, AudioGoesOutOnItsOwnChunkStreamWithTwoBytesMore)
{
    const Packet pkt = Media(RTMP_MSG_AUDIO, 100, 23);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ChunkStreamId, 6U);
    EXPECT_EQ(pkt->MsgTypeId, 8U);
    EXPECT_EQ(pkt->MsgKind, 52U);
    EXPECT_EQ(pkt->PayloadLength, 102U);
    EXPECT_EQ(pkt->PayloadData, frame);
    EXPECT_EQ(StreamIdOf(pkt.get()), "01 00 00 00");
}

TEST_F(MediaMessages, TheFirstMessageFollowsTheWallClock)
{
    const Packet pkt = Media(RTMP_MSG_VIDEO, 100, 40);
    EXPECT_EQ(pkt->Timestamp, 1000U);
    EXPECT_EQ(ToHex(pkt->HdrTimestamp, 3), "00 03 E8");
    EXPECT_EQ(ToHex(pkt->HdrTimestampDelta, 3), "00 00 00");
}

struct RunningRow {
    const char *sentence;
    uint64_t stored;
    uint64_t wanted;
    uint64_t timestamp;
    const char *field, *extended, *delta, *extendedDelta;
};

const RunningRow kRunning[] = {
    {"the clock is ahead of the frames", 500, 40, 540, "00 02 1C", "00 00 00 00", "00 00 28", "00 00 00 00"},
    {"the clock is behind the frames", 5000, 40, 5040, "00 13 B0", "00 00 00 00", "00 00 28", "00 00 00 00"},
    {"the clock agrees", 960, 40, 1000, "00 03 E8", "00 00 00 00", "00 00 28", "00 00 00 00"},
    {"a frame at the same time", 500, 0, 500, "00 01 F4", "00 00 00 00", "00 00 00", "00 00 00 00"},
    {"the time becomes all ones", 0xFFFFFE, 1, 0xFFFFFF, "FF FF FF", "00 FF FF FF", "00 00 01",
     "00 00 00 00"},
    {"a huge delta", 1, 0x1000000, 0x1000001, "FF FF FF", "01 00 00 01", "FF FF FF", "01 00 00 00"},
    {"a delta of all ones", 1, 0xFFFFFF, 0x1000000, "FF FF FF", "01 00 00 00", "FF FF FF", "00 FF FF FF"},
    {"beyond 32 bits", 0xFFFFFFFF, 40, 0x100000027, "FF FF FF", "00 00 00 27", "00 00 28", "00 00 00 00"},
};

TEST_F(MediaMessages, OnceAMessageIsStoredTimeFollowsTheFrames)
{
    for (int kind : {RTMP_MSG_VIDEO, RTMP_MSG_AUDIO}) {
        for (const RunningRow &row : kRunning) {
            SCOPED_TRACE(row.sentence);
            Store(kind == RTMP_MSG_VIDEO ? 5 : 6, row.stored);
            const Packet pkt = Media(kind, 100, row.wanted);
            EXPECT_EQ(pkt->Timestamp, row.timestamp);
            EXPECT_EQ(ToHex(pkt->HdrTimestamp, 3), row.field);
            EXPECT_EQ(ToHex(pkt->ExtTimestamp, 4), row.extended);
            EXPECT_EQ(ToHex(pkt->HdrTimestampDelta, 3), row.delta);
            EXPECT_EQ(ToHex(pkt->ExtTimestampDelta, 4), row.extendedDelta);
            EXPECT_EQ(kind == RTMP_MSG_VIDEO ? monitor.LastVideoRtmpTs : monitor.LastAudioRtmpTs,
                      row.timestamp);
        }
    }
}

TEST_F(MediaMessages, TheWallClockOfAnOldClientLeavesNothingInTheExtendedField)
{
    Store(5, 100);
    calls::setClock(4000 + 0x12345678);
    const Packet pkt = Media(RTMP_MSG_VIDEO, 100, 40);
    EXPECT_EQ(ToHex(pkt->HdrTimestamp, 3), "00 00 8C");
    EXPECT_EQ(ToHex(pkt->ExtTimestamp, 4), "00 00 00 00");
}

TEST_F(MediaMessages, ARunOfFramesAdvancesByItsOwnDeltas)
{
    Packet first = Media(RTMP_MSG_VIDEO, 100, 40);
    RtmpSendPkt *stored = first.get();
    EXPECT_EQ(AddSendPkt(&client, first.release()), 0);
    uint64_t expected = 1000;
    for (uint64_t delta : {40U, 33U, 0U, 34U}) {
        calls::setClock(calls::clock() + 100); // whatever the clock does
        expected += delta;
        const Packet next = Media(RTMP_MSG_VIDEO, 100, delta);
        EXPECT_EQ(next->Timestamp, expected);
        DecideMsgHdrType(next.get(), stored);
    }
}

TEST_F(MediaMessages, TheMonitorLearnsTheTimestampUnlessTheSessionHasASenderThread)
{
    session.SenderMode = 0;
    Media(RTMP_MSG_VIDEO, 1, 0);
    calls::setClock(calls::clock() + 5);
    Media(RTMP_MSG_AUDIO, 1, 0);
    EXPECT_EQ(monitor.LastVideoRtmpTs, 1000U);
    EXPECT_EQ(monitor.LastAudioRtmpTs, 1005U);
    EXPECT_EQ(queue.LastVideoRtmpTs, 0U);
    EXPECT_EQ(queue.LastAudioRtmpTs, 0U);
    session.SenderMode = 2;
    calls::setClock(calls::clock() + 5);
    Media(RTMP_MSG_VIDEO, 1, 0);
    EXPECT_EQ(monitor.LastVideoRtmpTs, 1010U);
}

TEST_F(MediaMessages, TheThreadedQueueLearnsTheTimestampInItsMode)
{
    session.SenderMode = RTMP_SENDER_THREADED;
    Media(RTMP_MSG_VIDEO, 1, 0);
    calls::setClock(calls::clock() + 5);
    Media(RTMP_MSG_AUDIO, 1, 0);
    EXPECT_EQ(queue.LastVideoRtmpTs, 1000U);
    EXPECT_EQ(queue.LastAudioRtmpTs, 1005U);
    EXPECT_EQ(monitor.LastVideoRtmpTs, 0U);
    EXPECT_EQ(monitor.LastAudioRtmpTs, 0U);
}

TEST_F(MediaMessages, WithoutASenderObjectOrASessionNothingIsRecorded)
{
    session.Monitor = nullptr;
    session.Queue = nullptr;
    for (uint32_t mode : {0U, 1U}) {
        session.SenderMode = mode;
        EXPECT_NE(Media(RTMP_MSG_VIDEO, 1, 0), nullptr);
        EXPECT_NE(Media(RTMP_MSG_AUDIO, 1, 0), nullptr);
    }
    client.Session = nullptr;
    EXPECT_NE(Media(RTMP_MSG_AUDIO, 1, 0), nullptr);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(MediaMessages, FillingAllocatesNothingAndGivesTheSameMessage)
{
    Store(5, 500);
    const Packet made = Media(RTMP_MSG_VIDEO, 100, 40);
    RtmpSendPkt filled = {};
    const uint64_t before = calls::made(Call::Calloc);
    EXPECT_EQ(FillRtmpMediaMsg(&client, RTMP_MSG_VIDEO, 100, frame, 40, &filled), 0);
    EXPECT_EQ(calls::made(Call::Calloc), before);
    EXPECT_EQ(memcmp(&filled, made.get(), sizeof filled), 0);
}

TEST_F(MediaMessages, WithoutMemoryThereIsNoMessage)
{
    calls::failNext(Call::Calloc);
    EXPECT_EQ(Media(RTMP_MSG_VIDEO, 100, 40), nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: GenerateRtmpMediaMsg: Cannot allocate memory to sndStrmPkt"});
}

TEST_F(MediaMessages, AListThatCannotBeLockedEndsTheGeneration)
{
    calls::failNext(Call::MutexLock);
    EXPECT_EQ(Media(RTMP_MSG_VIDEO, 100, 40), nullptr);
    calls::failNext(Call::MutexUnlock);
    EXPECT_EQ(Media(RTMP_MSG_AUDIO, 100, 40), nullptr);
    EXPECT_EQ(monitor.LastVideoRtmpTs, 0U);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: GetSendPktFromList: Cannot lock send packet list",
                                  "3 ERROR: GetSendPktFromList: Cannot unlock send packet list"}));
}

TEST_F(MediaMessages, OnlyVideoAndAudioAreMedia)
{
    EXPECT_EQ(Media(RTMP_MSG_META_DATA, 100, 40), nullptr);
    RtmpSendPkt pkt = {};
    const RtmpFrameTime time = {40, 40, 1};
    EXPECT_EQ(FillTimelineMediaMsg(&client, RTMP_MSG_META_DATA, 100, nullptr, &time, &pkt), -1);
    EXPECT_EQ(log.lines(), Lines(2, "3 ERROR: GenerateRtmpMediaMsg: Invalid input arguments"));
}

// A player's own thread answers it while frames are stamped; both look at the send list.
TEST_F(MediaMessages, FramesAndRepliesAreStampedAtTheSameTime)
{
    RtmpSendPkt *stored = Store(5, 0);
    stored->MsgStreamId[0] = 1; // the client's stream, so that the time moves on
    std::atomic<bool> stop{false};
    std::thread serving([&] {
        while (!stop) {
            EXPECT_NE(Generate(nullptr, RTMP_MSG_PLAY_STOP), nullptr);
            EXPECT_NE(Media(RTMP_MSG_AUDIO, 1, 0), nullptr);
        }
    });
    for (int i = 0; i < 2000; i++) {
        RtmpSendPkt pkt = {};
        EXPECT_EQ(FillRtmpMediaMsg(&client, RTMP_MSG_VIDEO, 100, frame, 40, &pkt), 0);
        DecideMsgHdrType(&pkt, stored);
    }
    stop = true;
    serving.join();
    EXPECT_EQ(stored->Timestamp, 80000U);
}

} // namespace
