#include "support/produced.h"
#include "support/session_rig.h"

#include <csignal>
#include <cstring>
#include <poll.h>
#include <pthread.h>

namespace {

using Lines = std::vector<std::string>;

struct Server {
    CaptureLogger log;
    RtmpServer *server;
    Server()
    {
        HostFakes::get().reset();
        server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 4096, nullptr);
        log.clear();
    }
    ~Server()
    {
        RtmpServerDestroy(server);
    }
};

} // namespace

TEST(Session, ANewSessionHasNoMediaAndIsAnnounced)
{
    Server rig;
    int err = 5;
    RtmpSession *session = RtmpSessionCreate(rig.server, "studio", &err);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(err, 5);
    EXPECT_STREQ(session->Name, "studio");
    EXPECT_EQ(session->MediaKind, static_cast<uint32_t>(RTMP_MEDIA_NONE));
    EXPECT_EQ(session->MediaInfoAdded, 0U);
    EXPECT_EQ(session->CodecInfo, nullptr);
    EXPECT_EQ(session->CcGen->Handle, 0xCCU);
    EXPECT_EQ(rig.log.lines(), Lines{"6 INFO: RtmpSessionCreate: Session Created with name 'studio'"});
    EXPECT_EQ(HostFakes::get().syslog(), Lines{"RTMP|Session Created with name 'studio'\n"});
}

TEST(Session, ASecondSessionOfTheSameNameIsRefusedAsInvalidArguments)
{
    Server rig;
    ASSERT_NE(RtmpSessionCreate(rig.server, "live", nullptr), nullptr);
    rig.log.clear();
    int err = 0;
    EXPECT_EQ(RtmpSessionCreate(rig.server, "live", &err), nullptr);
    EXPECT_EQ(err, -88);
    EXPECT_EQ(rig.log.lines(), Lines{"3 ERROR: RtmpSessionCreate: Invalid input arguments"});
    EXPECT_NE(RtmpSessionCreate(rig.server, "Live", &err), nullptr); // names are case-sensitive
}

TEST(Session, NullArgumentsAreRefused)
{
    Server rig;
    int err = 0;
    EXPECT_EQ(RtmpSessionCreate(rig.server, nullptr, &err), nullptr);
    EXPECT_EQ(err, -99);
    EXPECT_EQ(rig.log.lines(), Lines{"3 ERROR: RtmpSessionCreate: Invalid input arguments"});
    testing::internal::CaptureStdout();
    EXPECT_EQ(RtmpSessionCreate(nullptr, "live", &err), nullptr);
    EXPECT_EQ(RtmpSessionDestroy(nullptr), -99);
    EXPECT_EQ(produced::CapturedStdout(), "RTMPWriter: ERROR: RtmpSessionCreate: Invalid input arguments\n"
                                          "RTMPWriter: ERROR: RtmpSessionDestroy: Invalid input arguments\n");
}

TEST(Session, TheListKeepsCreationOrderThroughEveryPlaceOfRemoval)
{
    Server rig;
    RtmpSession *a = RtmpSessionCreate(rig.server, "a", nullptr);
    RtmpSession *b = RtmpSessionCreate(rig.server, "b", nullptr);
    RtmpSession *c = RtmpSessionCreate(rig.server, "c", nullptr);
    RtmpSession *d = RtmpSessionCreate(rig.server, "d", nullptr);
    EXPECT_EQ(rig.server->LiveSessionCount, 4);
    EXPECT_EQ(RtmpSessionDestroy(b), 0); // middle
    EXPECT_EQ(a->NextSession, c);
    EXPECT_EQ(c->PrevSession, a);
    EXPECT_EQ(RtmpSessionDestroy(d), 0); // last
    EXPECT_EQ(rig.server->LiveSessionTail, c);
    EXPECT_EQ(c->NextSession, nullptr);
    EXPECT_EQ(RtmpSessionDestroy(a), 0); // first
    EXPECT_EQ(rig.server->LiveSessionHead, c);
    EXPECT_EQ(c->PrevSession, nullptr);
    EXPECT_EQ(RtmpSessionDestroy(c), 0); // only
    EXPECT_EQ(rig.server->LiveSessionHead, nullptr);
    EXPECT_EQ(rig.server->LiveSessionTail, nullptr);
    EXPECT_EQ(rig.server->LiveSessionCount, 0);
}

TEST(Session, DestroyingASessionWithoutClientsSignalsNobodyAndClosesItsCaptions)
{
    Server rig;
    HostFakes::get().captionHandle = 42;
    RtmpSession *session = RtmpSessionCreate(rig.server, "live", nullptr);
    rig.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    EXPECT_TRUE(rig.log.lines().empty());
    EXPECT_EQ(HostFakes::get().closedCaptionHandles(), std::vector<uint64_t>{42});
}

TEST(Session, LookupsFindExactlyWhatIsThere)
{
    Server rig;
    RtmpSession *session = RtmpSessionCreate(rig.server, "live", nullptr);
    EXPECT_EQ(IsSessionNameExists(rig.server, "live"), 0);
    EXPECT_EQ(IsSessionNameExists(rig.server, "liv"), -1);
    EXPECT_EQ(IsSessionNameExists(rig.server, "LIVE"), -1);
    EXPECT_EQ(IsSessionNameExists(nullptr, "live"), -1);
    EXPECT_EQ(IsSessionNameExists(rig.server, nullptr), -1);
    EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, session), 0);
    EXPECT_EQ(ValidateRtmpSessionHandle(nullptr, session), -1);
    RtmpSession stranger = {};
    EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, &stranger), -1);
    EXPECT_EQ(IsAnyClientConnected(session), -1);
    session->ClientCount = 1;
    EXPECT_EQ(IsAnyClientConnected(session), 0);
    session->ClientCount = -1;
    EXPECT_EQ(IsAnyClientConnected(session), -1);
    session->ClientCount = 0;
}

TEST(Session, AStreamNameIsValidOnceTheSessionHasMedia)
{
    SessionRig rig(4096, RTMP_MEDIA_NONE);
    RtmpClient *client = rig.addClient(CLIENT_STATE_CREATESTREAM_DONE).client;
    RtmpSession *found = rig.session;
    EXPECT_EQ(ValidateRtmpStreamName(client, 4, "live", &found), -1);
    EXPECT_EQ(found, nullptr); // the name matches a session without media
    found = rig.session;
    EXPECT_EQ(ValidateRtmpStreamName(client, 5, "other", &found), -1);
    EXPECT_EQ(found, rig.session); // nothing matches: untouched
    rig.session->MediaInfoAdded = 1;
    found = nullptr;
    EXPECT_EQ(ValidateRtmpStreamName(client, 4, "live", &found), 0);
    EXPECT_EQ(found, rig.session);
}

TEST(Session, NoSessionAtAllIsSaidInTheLog)
{
    Server rig;
    RtmpClient client = {};
    client.Server = rig.server;
    RtmpSession *found = nullptr;
    EXPECT_EQ(ValidateRtmpStreamName(&client, 4, "live", &found), -1);
    EXPECT_EQ(rig.log.lines(), Lines{"3 ERROR: ValidateRtmpStreamName: No session found"});
}

TEST(Session, APublishingClientIsToldThatItsSessionGoesAndItsThreadIsSignalledAndJoined)
{
    static volatile sig_atomic_t signalled;
    signalled = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { signalled = 1; };
    sigaction(SIGUSR1, &action, nullptr);

    SessionRig rig;
    RtmpClient *client = CreateNewRtmpClient(rig.server, 0, -1, "1.2.3.4", 0, nullptr);
    ASSERT_EQ(AddClientInSession(rig.session, client), 0);
    PublishCtx publish = {};
    client->PublishCtx = &publish;
    RtmpRecvPkt *received = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    RtmpSendPkt *sent = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    ASSERT_EQ(AddRecvPkt(client, received), 0);
    ASSERT_EQ(AddSendPkt(client, sent), 0);
    const auto serve = [](void *argument) -> void * {
        while (!signalled) {
            poll(nullptr, 0, 1); // the thread sanitizer delivers signals only in such calls
        }
        DestroyRtmpClient(static_cast<RtmpClient *>(argument));
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&client->ServeThread, nullptr, serve, client), 0);
    rig.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
    EXPECT_EQ(HostFakes::get().publishStates(), (std::vector<std::pair<RtmpClient *, int32_t>>{{client, 8}}));
    const Lines lines = rig.log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "6 INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread");
    EXPECT_EQ(rig.log.count("Waiting for Thread Completion"), 1U);
}
