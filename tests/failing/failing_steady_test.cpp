// The steady road without memory: sessions, clients of the host's own, frames.
#include "serve/dispatch.h"
#include "state/session_list.h"
#include "steady/steady_server.h"
#include "support/calls.h"

using namespace wire;

namespace {

const std::string kNoFrames = "3 ERROR: RtmpSessionCreate: Cannot allocate memory to the session's frames";

} // namespace

TEST(SteadyWithoutMemory, ASessionIsMadeWholeOrNotAtAllAndSaysWhatItLacks)
{
    SteadyTestServer server;
    const size_t threads = RunningThreads();
    int number = 0;
    int withoutFrames = 0;
    RtmpSession *session = nullptr;
    while (session == nullptr) {
        SCOPED_TRACE(++number);
        ASSERT_LT(number, 50);
        server.log.clear();
        int err = 0;
        {
            const FailingAllocation failing(number);
            session = RtmpSessionCreate(server.server, "cam", &err);
        }
        if (session == nullptr) {
            EXPECT_EQ(err, RTMP_ERR_MEMORY);
            EXPECT_EQ(server.log.count("3 ERROR: RtmpSessionCreate: Cannot allocate memory"), 1U);
            withoutFrames += static_cast<int>(server.log.count(kNoFrames));
        }
    }
    EXPECT_EQ(withoutFrames, number - 4)
        << "all behind record, name and captions, but for the last that is there";
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads; }));
}

TEST(SteadyWithoutMemory, AFrameIsRefusedAndTheNextOneGoesOut)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    steady::HandMade player(server.server);
    player.join(session);
    const Bytes frame = VideoFrame(100, kKeyNal);
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(SendVideo(session, frame, 1000), RTMP_FAILED);
    }
    EXPECT_EQ(server.log.count("3 ERROR: RtmpSendData: Not enough memory for a frame of 100 bytes"), 1U);
    EXPECT_EQ(SendVideo(session, frame, 1040), 0);
    EXPECT_EQ(player.chunks->next().payload.size(), 5 + frame.size());
}

TEST(SteadyWithoutMemory, AClientOfTheHostsOwnDoesNotJoinAndMayTryAgain)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    steady::HandMade player(server.server);
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(AddClientInSession(session, player.client), -1);
    }
    EXPECT_EQ(server.log.count("3 ERROR: AddClientInSession: Cannot allocate memory to the client's frames"),
              1U);
    EXPECT_EQ(session->ClientCount, 0);
    player.join(session);
    EXPECT_EQ(session->ClientCount, 1);
}

// A message that was not stored whole gets the rest of its place before it is handled.
TEST(DispatchWithoutMemory, AMessageWithoutItsPlaceIsRefused)
{
    SteadyTestServer server;
    steady::HandMade player(server.server);
    RtmpRecvPkt message = {};
    message.MsgTypeId = RTMP_TYPE_ACKNOWLEDGEMENT;
    message.MsgLength = 4;
    message.PayloadData = static_cast<uint8_t *>(calloc(1, 2));
    message.PayloadRoom = 2;
    uint32_t kind = 0;
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(ParseRequestMsg(player.client, &message, &kind), -1);
    }
    EXPECT_EQ(
        server.log.count("3 ERROR: ParseRequestMsg: Cannot allocate memory to tmpRecvStrmPkt->PayloadData"),
        1U);
    EXPECT_EQ(ParseRequestMsg(player.client, &message, &kind), 0);
    EXPECT_EQ(kind, static_cast<uint32_t>(RTMP_MSG_ACKNOWLEDGEMENT));
    free(message.PayloadData);
    FreeClientRecord(player.client); // it has never received: DestroyRtmpClient would miss its lists
    player.client = nullptr;
}

TEST(SteadyWithoutMemory, AClientThatIsToJoinAGivenSessionIsToldWhyNotAndMayTryAgain)
{
    SteadyTestServer server;
    RtmpSession *session = server.session();
    steady::HandMade player(server.server);
    {
        const FailingCall failing(Call::MutexLock, 1, &server.server->LiveSessionListLock);
        EXPECT_EQ(JoinGiven(player.client, session), JOIN_FAILED);
    }
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(JoinGiven(player.client, session), JOIN_FAILED);
    }
    EXPECT_EQ(session->ClientCount, 0);
    EXPECT_EQ(JoinGiven(player.client, session), 0);
    EXPECT_EQ(session->ClientCount, 1);
}
