// A connection's line, on records: what it needs to begin, and what it counts for.
#include "steady/line.h"

#include "net/platform.h"
#include "steady/farewell.h"
#include "steady/message_pool.h"
#include "steady/message_ring.h"
#include "steady_server.h"

namespace {

class LineRecords : public testing::Test {
  protected:
    LineRecords()
    {
        client_.ClientIP = address_;
        client_.State = CLIENT_STATE_PLAY_DONE;
        line_.Client = &client_;
        service_.Limits.RingMilliseconds = UINT32_MAX;
        service_.Limits.RingBytes = UINT32_MAX;
        stream_ = NewSteadyStream(&service_, nullptr);
    }
    ~LineRecords() override
    {
        FreeSteadyStream(stream_);
    }
    void pictures(uint64_t count)
    {
        for (uint64_t i = 0; i < count; i++) {
            FinishedMessage *message = TakeMessage(stream_, 100);
            message->Kind = STEADY_VIDEO;
            message->Time = 1000 + 40 * i;
            AppendMessage(stream_, message);
        }
    }

    char address_[16] = "127.0.0.1";
    SteadyService service_ = {};
    SteadyStream *stream_ = nullptr;
    RtmpClient client_ = {};
    SteadyLine line_ = {};
};

TEST_F(LineRecords, APlayerThatTakesNothingForSecondsIsNotTheSlowestOfASession)
{
    JoinPlayers(stream_, &line_);
    line_.Place.IsBased = 1;
    line_.Place.Time = 1000;
    pictures(5);
    line_.WantsRoom = 1;
    line_.LastProgress = RtmpGetSystemTime();
    SteadyLag lag = LagOf(stream_);
    EXPECT_EQ(lag.Playing, 1u);
    EXPECT_EQ(lag.Pictures, 5u);
    EXPECT_EQ(lag.Milliseconds, 160u);
    line_.LastProgress -= 10000;
    lag = LagOf(stream_);
    EXPECT_EQ(lag.Playing, 1u);
    EXPECT_EQ(lag.Pictures, 0u);
    EXPECT_EQ(lag.Milliseconds, 0u);
}

TEST_F(LineRecords, NoFramesWaitForAClientWithoutASession)
{
    pictures(1);
    EXPECT_FALSE(HasFramesWaiting(&line_));
    JoinPlayers(stream_, &line_);
    EXPECT_TRUE(HasFramesWaiting(&line_));
}

TEST_F(LineRecords, NoneIsMadeForAServerThatClosesOrASocketThatCannotBeWatched)
{
    steady::Server server;
    SteadyService *service = server.server->Service;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    client_.Server = server.server;
    client_.Socket = -1;
    EXPECT_EQ(NewLine(service, &client_, 0), LINE_NO_MEMORY);
    EXPECT_EQ(client_.Line, nullptr);
    client_.Socket = ends[0];
    {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
        service->Closing = 1;
    }
    EXPECT_EQ(NewLine(service, &client_, 0), LINE_NO_MEMORY);
    EXPECT_EQ(client_.Line, nullptr);
    {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
        service->Closing = 0;
    }
    EXPECT_EQ(NewLine(service, &client_, 0), 0);
    FreeLine(&client_);
    EXPECT_EQ(client_.Line, nullptr);
    close(ends[0]);
    close(ends[1]);
}

} // namespace
