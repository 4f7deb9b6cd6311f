// Sessions and clients when memory, locks or threads fail: codes, lines, and nothing left in the lists.
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/client.h"
#include "state/session_list.h"
#include "support/calls.h"
#include "support/session_rig.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

struct Server {
    Server() : server(RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 4096, nullptr))
    {
        log.clear();
    }
    ~Server()
    {
        EXPECT_EQ(RtmpServerDestroy(server), 0);
    }
    void expectNoSession() const
    {
        EXPECT_EQ(server->LiveSessionHead, nullptr);
        EXPECT_EQ(server->LiveSessionTail, nullptr);
        EXPECT_EQ(server->LiveSessionCount, 0);
    }
    CaptureLogger log;
    RtmpServer *server;
};

bool IsFree(RtmpMutex *lock)
{
    return pthread_mutex_trylock(lock) == 0 && pthread_mutex_unlock(lock) == 0;
}

// What RtmpSessionDestroy has left of a session that is out of its server's list.
void FreeRest(RtmpSession *session)
{
    free(session->Pieces);
    free(session->Name);
    free(session);
}

// A client in the session whose thread ends it when it is signalled.
struct ServedClient {
    explicit ServedClient(SessionRig &rig)
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        RtmpClient *client =
            CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
        EXPECT_EQ(AddClientInSession(rig.session, client), 0);
        SetClientState(client, CLIENT_STATE_PLAY_DONE);
        EXPECT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, client), 0);
        EXPECT_TRUE(rig.log.waitFor("ServeRtmpClient: Serving RTMP Client"));
        rig.log.clear();
    }
    ~ServedClient()
    {
        close(ends[0]);
        close(ends[1]);
    }
    int ends[2];
    pthread_t thread;
};

// A client with something in both lists, in the rig's session.
RtmpClient *UsedClient(SessionRig &rig)
{
    RtmpClient *client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, -1, "127.0.0.1", 0, nullptr);
    EXPECT_EQ(AddClientInSession(rig.session, client), 0);
    EXPECT_EQ(AddRecvPkt(client, static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)))), 0);
    EXPECT_EQ(AddSendPkt(client, static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)))), 0);
    rig.log.clear();
    return client;
}

} // namespace

// ------------------------------------------------------------------------------------------------ create

TEST(SessionCreateFailing, EveryStepHasItsCodeItsLineAndLeavesNothing)
{
    Server rig;
    const struct {
        const char *sentence;
        Call call;
        const RtmpMutex *mutex;
        int code;
        const char *line;
    } rows[] = {
        {"no client list lock", Call::MutexInit, nullptr, -79, "Cannot initialize client list lock"},
        {"no session list", Call::MutexLock, &rig.server->LiveSessionListLock, -78,
         "Cannot lock Rtmp session list"},
        {"session list not given back", Call::MutexUnlock, &rig.server->LiveSessionListLock, -77,
         "Cannot unlock Rtmp session list"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        rig.log.clear();
        int err = 0;
        const FailingCall failing(row.call, 1, row.mutex);
        EXPECT_EQ(RtmpSessionCreate(rig.server, "live", &err), nullptr);
        EXPECT_EQ(err, row.code);
        EXPECT_EQ(rig.log.lines(), Lines{std::string("3 ERROR: RtmpSessionCreate: ") + row.line});
        rig.expectNoSession();
        EXPECT_TRUE(IsFree(&rig.server->LiveSessionListLock));
    }
}

TEST(SessionCreateFailing, EveryAllocationIsNamed)
{
    Server rig;
    const char *const lines[] = {"Cannot allocate memory to rtmpSession",
                                 "Cannot allocate memory to session name", "Cannot allocate memory for CC"};
    for (int number = 1; number <= 3; number++) {
        SCOPED_TRACE(number);
        rig.log.clear();
        int err = 0;
        const FailingAllocation failing(number);
        EXPECT_EQ(RtmpSessionCreate(rig.server, "live", &err), nullptr);
        EXPECT_EQ(err, -89);
        EXPECT_EQ(rig.log.lines(), Lines{std::string("3 ERROR: RtmpSessionCreate: ") + lines[number - 1]});
        rig.expectNoSession();
    }
    const FailingAllocation counted(0);
    EXPECT_NE(RtmpSessionCreate(rig.server, "live", nullptr), nullptr);
    EXPECT_EQ(counted.seen(), 3);
}

// ----------------------------------------------------------------------------------------------- destroy

TEST(SessionDestroyFailing, WithoutTheSessionListTheSessionStays)
{
    SessionRig rig;
    rig.log.clear();
    {
        const FailingCall failing(Call::MutexLock, 1, &rig.server->LiveSessionListLock);
        EXPECT_EQ(RtmpSessionDestroy(rig.session), -78);
    }
    EXPECT_EQ(rig.log.lines(), Lines{"3 ERROR: RtmpSessionDestroy: Cannot lock Rtmp session list"});
    EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, rig.session), 0);
}

TEST(SessionDestroyFailing, WithoutTheClientListTheSessionStaysWithItsClients)
{
    const struct {
        Call call;
        int code;
        Lines lines;
    } rows[] = {
        {Call::MutexLock, -78, {"3 ERROR: RtmpSessionDestroy: Cannot lock Rtmp client list"}},
        {Call::MutexUnlock,
         -77,
         {"6 INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread",
          "3 ERROR: RtmpSessionDestroy: Cannot unlock Rtmp client list"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.code);
        SessionRig rig;
        const ServedClient client(rig);
        {
            const FailingCall failing(row.call, 1, &rig.session->ClientListLock);
            EXPECT_EQ(RtmpSessionDestroy(rig.session), row.code);
        }
        Lines own;
        for (const std::string &line : rig.log.lines()) {
            if (line.find("RtmpSessionDestroy") != std::string::npos) {
                own.push_back(line);
            }
        }
        EXPECT_EQ(own, row.lines);
        EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, rig.session), 0);
        EXPECT_TRUE(IsFree(&rig.server->LiveSessionListLock));
        if (row.code == -77) { // the client has been told to leave
            EXPECT_TRUE(WaitUntil([&] { return IsAnyClientConnected(rig.session) != 0; }));
        }
        EXPECT_EQ(RtmpSessionDestroy(rig.session), 0); // and again, with everything in order
        rig.session = nullptr;
    }
}

TEST(SessionDestroyFailing, AServeThreadThatCannotBeJoinedIsReportedAndTheSessionStays)
{
    SessionRig rig;
    const ServedClient client(rig);
    testing::internal::CaptureStderr();
    {
        const FailingCall failing(Call::ThreadJoin);
        EXPECT_EQ(RtmpSessionDestroy(rig.session), -83);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RtmpWaitForThreadCompletion: No such process\n");
    EXPECT_TRUE(rig.log.contains("3 ERROR: RtmpSessionDestroy: Wait For serve client thread Failed"));
    EXPECT_EQ(rig.session->ClientCount, 0);
    EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, rig.session), 0);
    EXPECT_EQ(pthread_join(client.thread, nullptr), 0);
    EXPECT_EQ(RtmpSessionDestroy(rig.session), 0);
    rig.session = nullptr;
}

TEST(SessionDestroyFailing, ASessionOutOfTheListIsNotFreedWhenALockFails)
{
    const struct {
        Call call;
        int code;
        const char *line;
    } rows[] = {
        {Call::MutexUnlock, -77, "Cannot unlock Rtmp session list"},
        {Call::MutexDestroy, -76, "Cannot destroy client list lock"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        SessionRig rig;
        rig.log.clear();
        {
            const FailingCall failing(row.call, 1,
                                      row.call == Call::MutexUnlock ? &rig.server->LiveSessionListLock
                                                                    : &rig.session->ClientListLock);
            EXPECT_EQ(RtmpSessionDestroy(rig.session), row.code);
        }
        EXPECT_EQ(rig.log.lines(), Lines{std::string("3 ERROR: RtmpSessionDestroy: ") + row.line});
        EXPECT_EQ(ValidateRtmpSessionHandle(rig.server, rig.session), -1);
        EXPECT_EQ(rig.server->LiveSessionCount, 0);
        FreeRest(rig.session);
        rig.session = nullptr;
    }
}

// ----------------------------------------------------------------------------------------------- lookups

TEST(LookupFailing, LocksOfTheSessionListHaveTheirLines)
{
    SessionRig rig;
    RtmpClient *client = rig.addClient(CLIENT_STATE_CREATESTREAM_DONE).client;
    RtmpClient newcomer = {};
    newcomer.Server = rig.server;
    RtmpMutex *lock = &rig.server->LiveSessionListLock;
    RtmpSession *found = nullptr;
    const std::string lookup = "3 ERROR: ValidateRtmpStreamName: ";
    const struct {
        const char *sentence;
        Call call;
        std::function<int()> run;
        int code;
        std::string line;
    } rows[] = {
        {"lookup without the lock", Call::MutexLock,
         [&] { return ValidateRtmpStreamName(client, 4, "live", &found); }, -1,
         lookup + "Locking failed of LiveSessionListLock"},
        {"lookup that does not give it back", Call::MutexUnlock,
         [&] { return ValidateRtmpStreamName(client, 4, "live", &found); }, -1,
         lookup + "UnLocking failed of LiveSessionListLock"},
        {"join without the lock", Call::MutexLock, [&] { return JoinStream(&newcomer, "live"); },
         JOIN_NOT_FOUND, lookup + "Locking failed of LiveSessionListLock"},
        {"repeated join that does not give it back", Call::MutexUnlock,
         [&] { return JoinStream(client, "live"); }, JOIN_NOT_FOUND,
         lookup + "UnLocking failed of LiveSessionListLock"},
        {"adding without the lock", Call::MutexLock,
         [&] { return AddClientInSession(rig.session, &newcomer); }, -1,
         "3 ERROR: AddClientInSession: Cannot lock Rtmp session list"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        rig.log.clear();
        const FailingCall failing(row.call, 1, lock);
        EXPECT_EQ(row.run(), row.code);
        EXPECT_EQ(rig.log.lines(), Lines{row.line});
        EXPECT_EQ(newcomer.Session, nullptr);
        EXPECT_EQ(rig.session->ClientCount, 1);
        EXPECT_TRUE(IsFree(lock));
    }
}

TEST(LookupFailing, AClientWhoseListIsNotGivenBackHasJoinedAllTheSame)
{
    SessionRig rig;
    RtmpClient *client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, -1, "127.0.0.1", 0, nullptr);
    rig.log.clear();
    {
        const FailingCall failing(Call::MutexUnlock, 1, &rig.server->LiveSessionListLock);
        EXPECT_EQ(AddClientInSession(rig.session, client), -1);
    }
    EXPECT_EQ(rig.log.lines(),
              (Lines{"6 INFO: AddClientInSession: Adding client: No. of connected clients : 1",
                     "3 ERROR: AddClientInSession: Cannot unlock Rtmp session list"}));
    FreeClientRecord(client);
    EXPECT_EQ(rig.session->ClientCount, 0);
}

// ----------------------------------------------------------------------------------------------- clients

TEST(ClientFailing, CreationNamesWhatItCouldNotHave)
{
    Server rig;
    const std::string who = "3 ERROR: CreateNewRtmpClient: ";
    const auto create = [&] { return CreateNewRtmpClient(rig.server, 0, -1, "127.0.0.1", 0, nullptr); };
    const char *const memory[] = {"Cannot allocate memory to rtmpClient",
                                  "Cannot allocate memory to rtmpClient->ClientIP"};
    for (int number = 1; number <= 2; number++) {
        rig.log.clear();
        const FailingAllocation failing(number);
        EXPECT_EQ(create(), nullptr);
        EXPECT_EQ(rig.log.lines(), Lines{who + memory[number - 1]});
    }
    const char *const locks[] = {"Cannot initialize receive packet list lock",
                                 "Cannot initialize send packet list lock"};
    for (int number = 1; number <= 2; number++) {
        rig.log.clear();
        const FailingCall failing(Call::MutexInit, number);
        EXPECT_EQ(create(), nullptr);
        EXPECT_EQ(rig.log.lines(), Lines{who + locks[number - 1]});
    }
}

TEST(ClientFailing, EveryStepOfDestroyHasItsLineAndTheRecordCanBeFreedAfterwards)
{
    SessionRig rig;
    struct Step {
        const char *sentence;
        Call call;
        int number;
        RtmpMutex *(*mutex)(RtmpClient *client);
        Lines lines; // the last ones
    };
    const auto receive = [](RtmpClient *client) { return &client->RecvStrmListLock; };
    const auto send = [](RtmpClient *client) { return &client->SendStrmListLock; };
    const auto list = [](RtmpClient *client) { return &client->Session->ClientListLock; };
    const std::string who = "3 ERROR: DestroyRtmpClient: ";
    const Step steps[] = {
        {"receive list locked",
         Call::MutexLock,
         1,
         receive,
         {"3 ERROR: RemoveRecvPkt: Cannot lock receive packet list",
          who + "Cannot remove packets in receive packet list"}},
        {"receive list not given back",
         Call::MutexUnlock,
         1,
         receive,
         {"3 ERROR: RemoveRecvPkt: Cannot Unlock receive packet list",
          who + "Cannot remove packets in receive packet list"}},
        {"receive lock stays",
         Call::MutexDestroy,
         1,
         receive,
         {"6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
          who + "Cannot destroy receive packet list lock"}},
        {"send list locked",
         Call::MutexLock,
         1,
         send,
         {"6 INFO: DestroyRtmpClient: Freeing send stream packet list",
          "3 ERROR: RemoveSendPkt: Cannot lock send packet list",
          who + "Cannot remove packets in send packet list"}},
        {"send list not given back",
         Call::MutexUnlock,
         1,
         send,
         {"3 ERROR: RemoveSendPkt: Cannot unlock send packet list",
          who + "Cannot remove packets in send packet list"}},
        {"send lock stays",
         Call::MutexDestroy,
         1,
         send,
         {"6 INFO: DestroyRtmpClient: Destroying Send packet list lock",
          who + "Cannot destroy send packet list lock"}},
        {"client list locked",
         Call::MutexLock,
         2,
         list,
         {"6 INFO: DestroyRtmpClient: Removing client pointer from client list",
          who + "Cannot lock Rtmp client list"}},
        {"client list not given back",
         Call::MutexUnlock,
         2,
         list,
         {"6 INFO: DestroyRtmpClient: Removed client; No. of connected clients : 0",
          who + "Cannot unlock Rtmp client list"}},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(step.sentence);
        RtmpClient *client = UsedClient(rig);
        {
            const FailingCall failing(step.call, step.number, step.mutex(client));
            EXPECT_EQ(DestroyRtmpClient(client), -1);
        }
        const Lines lines = rig.log.lines();
        ASSERT_GE(lines.size(), step.lines.size());
        EXPECT_EQ(Lines(lines.end() - static_cast<std::ptrdiff_t>(step.lines.size()), lines.end()),
                  step.lines);
        FreeClientRecord(client);
        EXPECT_EQ(rig.session->ClientCount, 0);
        EXPECT_EQ(rig.session->ClientListHead, nullptr);
        EXPECT_EQ(rig.session->MemberHead, nullptr);
        EXPECT_TRUE(IsFree(&rig.session->ClientListLock));
    }
}
