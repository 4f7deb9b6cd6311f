// The ways of servers and sessions, and of their settings.
#include "failing/every_call_rig.h"
#include "support/host_fakes.h"
#include "support/session_rig.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

namespace every_call {
namespace {

// Of a socket that listens shutdown(2) cannot fail, and nothing else ends the accept thread that is waited
// for.
const std::vector<Call> kEndings = {Call::Shutdown};
// Nor can a write of 1 to an eventfd, which wakes the keeper that is waited for, nor the joining of a thread
// that is joined by nobody else.
const std::vector<Call> kSteadyEndings = {Call::Shutdown, Call::Write, Call::ThreadJoin};
const std::vector<Call> kJoins = {Call::ThreadJoin};

// ------------------------------------------------------------------------------------------------- servers

void CreateServer(Trial &trial, const char *interfaceName)
{
    trial.prints = true; // the logger is set aside while a server ends
    HostFakes::get().reset();
    RtmpServer *server = nullptr;
    trial.run([&] {
        int err = 0;
        server = RtmpServerCreate(trial.logger(), interfaceName, 1935, 8080, 46, 4096, &err);
        return server != nullptr ? 0 : err;
    });
    EXPECT_EQ(RtmpServerDestroy(server), 0);
}

// A server with both ports, a session and its media.
RtmpServer *WholeServer(Trial &trial, Road road)
{
    RtmpServer *server = RtmpServerCreate(trial.logger(), "ANY", 1935, 8080, 0, 4096, nullptr);
    RtmpServiceLimits limits = {};
    limits.TlsPort = 4433; // the kit binds to a port of the system's choice
    EXPECT_EQ(road == Road::Steady ? RtmpServiceSettings(server, &limits) : 0, 0);
    RtmpSession *session = RtmpSessionCreate(server, "live", nullptr);
    EXPECT_EQ(RtmpSenderSettings(session, RTMP_SENDER_THREADED, 0, 0, 1, 255, 5, 10, 10), 0);
    EXPECT_EQ(AddRigMedia(session), 0);
    return server;
}

// The server's end passes over a session that it could not free, having logged it.
bool IsSessionLeft(const Trial &trial)
{
    const std::string unlock = "RtmpSessionDestroy: Cannot unlock Rtmp session list";
    const std::string lock = "RtmpSessionDestroy: Cannot destroy client list lock";
    return std::any_of(trial.lines.begin(), trial.lines.end(), [&](const std::string &line) {
        return line.find(unlock) != line.npos || line.find(lock) != line.npos;
    });
}

void DestroyServer(Trial &trial, Road road)
{
    trial.prints = true; // the logger is set aside while a server ends
    HostFakes::get().reset();
    RtmpServer *server = WholeServer(trial, road);
    RtmpSession *session = server->LiveSessionHead;
    trial.run([&] { return RtmpServerDestroy(server); });
    if (IsSessionLeft(trial)) {
        FreeRest(session);
    }
}

void SetService(Trial &trial)
{
    trial.prints = true; // the logger is set aside while a server ends
    HostFakes::get().reset();
    RtmpServer *server = RtmpServerCreate(trial.logger(), "ANY", 1935, 0, 0, 4096, nullptr);
    RtmpServiceLimits limits = {};
    limits.TlsPort = 4433;
    trial.run([&] { return RtmpServiceSettings(server, &limits); });
    EXPECT_EQ(RtmpServerDestroy(server), 0);
}

// ------------------------------------------------------------------------------------------------ sessions

void CreateSession(Trial &trial, Road road)
{
    Host host(trial, {.road = road});
    RtmpSession *session = nullptr;
    trial.run([&] {
        int err = 0;
        session = RtmpSessionCreate(host.server, "another", &err);
        return session != nullptr ? 0 : err;
    });
    EXPECT_EQ(ValidateRtmpSessionHandle(host.server, session), 0);
}

void DestroySession(Trial &trial, const HostSetup &setup)
{
    Host host(trial, setup);
    trial.run([&] { return RtmpSessionDestroy(host.session); }, [&] { return DestroySessionAgain(host); });
    EXPECT_EQ(host.server->LiveSessionCount, 0);
}

// A connection is shut down once, or until its thread has left: how often is that thread's affair. One that
// is there can be shut down, and one that has gone needs it no more.
const std::vector<Call> kLeaving = {Call::Shutdown};

void DestroyServedSession(Trial &trial, const HostSetup &setup, const std::vector<uint32_t> &states)
{
    Host host(trial, setup);
    for (const uint32_t state : states) {
        host.served(state);
    }
    trial.run([&] { return RtmpSessionDestroy(host.session); }, [&] { return DestroySessionAgain(host); });
    EXPECT_EQ(host.server->LiveSessionCount, 0);
}

// What the players' threads say goes to standard output, too, in any order: nothing of it is compared.
void DestroyServedServer(Trial &trial, const HostSetup &setup)
{
    Host host(trial, setup);
    host.served(CLIENT_STATE_PLAY_DONE);
    host.served(CLIENT_STATE_PAUSE_DONE);
    RtmpSession *session = host.session;
    testing::internal::CaptureStdout();
    trial.run([&] { return RtmpServerDestroy(host.server); });
    const std::string printed = testing::internal::GetCapturedStdout();
    host.server = nullptr;
    if (printed.find("RtmpSessionDestroy: Cannot unlock Rtmp session list") != printed.npos) {
        FreeRest(session);
    }
}

void RegisterMedia(Trial &trial, uint32_t players, bool again)
{
    Host host(trial, {.media = again, .players = players});
    trial.run([&] { return AddRigMedia(host.session); });
    EXPECT_EQ(host.session->MediaInfoAdded, 1U);
}

void AddDestroys(std::vector<Scenario> *to, const std::vector<int> &codes)
{
    const auto add = [&](const char *way, const HostSetup &setup, const std::vector<uint32_t> &states) {
        to->push_back({.function = "RtmpSessionDestroy",
                       .way = way,
                       .codes = codes,
                       .go = [=](Trial &trial) { DestroyServedSession(trial, setup, states); },
                       .cannotFail = kLeaving,
                       .isCompared = false});
    };
    add("exact road, one plays", {}, {CLIENT_STATE_PLAY_DONE});
    add("exact road, one has paused", {}, {CLIENT_STATE_PAUSE_DONE});
    add("exact road, three, threaded sender", kThreaded,
        {CLIENT_STATE_PLAY_DONE, CLIENT_STATE_PAUSE_DONE, CLIENT_STATE_PLAY_DONE});
    add("steady road, one plays", kSteady, {CLIENT_STATE_PLAY_DONE});
    add("steady road, one has paused", kSteady, {CLIENT_STATE_PAUSE_DONE});
    add("steady road, three, threaded sender", kSteadyThreaded,
        {CLIENT_STATE_PLAY_DONE, CLIENT_STATE_PAUSE_DONE, CLIENT_STATE_PLAY_DONE});
    const auto addServer = [&](const char *way, const HostSetup &setup) {
        // -76 is with the ways without players.
        to->push_back({.function = "RtmpServerDestroy",
                       .way = way,
                       .codes = {},
                       .go = [=](Trial &trial) { DestroyServedServer(trial, setup); },
                       .cannotFail = {Call::Shutdown, Call::Write, Call::ThreadJoin, Call::MutexDestroy},
                       .isCompared = false});
    };
    addServer("exact road, with players", {});
    addServer("steady road, with players", kSteady);
}

// ------------------------------------------------------------------------------------------------ settings

void ChooseSender(Trial &trial, Road road, uint32_t mode)
{
    Host host(trial, {.road = road, .sender = false});
    trial.run([&] { return RtmpSenderSettings(host.session, mode, 0, 0, 1, 255, 5, 10, 10); });
}

// A setting of a session.
void Set(Trial &trial, const HostSetup &setup, int32_t (*set)(RtmpSession *session))
{
    Host host(trial, setup);
    trial.run([&] { return set(host.session); });
}

// The same while a sender thread runs that has to be ended first.
void SetBesideFrames(Trial &trial, const HostSetup &setup, int32_t (*set)(RtmpSession *session))
{
    trial.prints = true; // a thread that cannot be joined is told of on standard error
    Host host(trial, setup);
    host.joined();
    const Bytes frame = Hex("00000002 65 11");
    EXPECT_EQ(RtmpSendData(host.session, frame.data(), 6, 0, 0, 40, RTMP_FRAME_VIDEO), 0);
    trial.run([&] { return set(host.session); });
}

int32_t Monitor(RtmpSession *session)
{
    return RtmpBWMSettings(session, 1, 30);
}

int32_t Trace(RtmpSession *session)
{
    return RtmpDebugSettings(session, 1, 1, 1, "/nowhere", 5);
}

int32_t Adapt(RtmpSession *session)
{
    return RtmpAdaptiveBitrateSettings(session, 1, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

void Figures(Trial &trial, int32_t (*ask)(RtmpSession *session))
{
    Host host(trial, kSteady);
    host.joined();
    trial.run([&] { return ask(host.session); }, {}, ask(host.session));
}

int32_t AskSession(RtmpSession *session)
{
    RtmpSessionFigures figures;
    return RtmpSessionStatistics(session, &figures);
}

int32_t AskClients(RtmpSession *session)
{
    RtmpClientFigures figures[2];
    return RtmpClientStatistics(session, figures, 2);
}

void AddSettings(std::vector<Scenario> *to)
{
    const auto add = [&](const char *function, const char *way, const HostSetup &setup,
                         int32_t (*set)(RtmpSession * session)) {
        to->push_back({function, way, {}, [=](Trial &trial) { Set(trial, setup, set); }});
    };
    const auto addBesideFrames = [&](const char *function, const char *way, const HostSetup &setup,
                                     int32_t (*set)(RtmpSession * session)) {
        to->push_back({function, way, {}, [=](Trial &trial) { SetBesideFrames(trial, setup, set); }, kJoins});
    };
    add("RtmpBWMSettings", "threaded sender", kThreaded, Monitor);
    add("RtmpBWMSettings", "packet monitor", {}, Monitor);
    addBesideFrames("RtmpBWMSettings", "beside frames", kThreaded, Monitor);
    add("RtmpDebugSettings", "threaded sender", kThreaded, Trace);
    add("RtmpDebugSettings", "packet monitor", {}, Trace);
    add("RtmpAdaptiveBitrateSettings", "threaded sender", kThreaded, Adapt);
    add("RtmpAdaptiveBitrateSettings", "packet monitor", {}, Adapt);
    addBesideFrames("RtmpThreadedQueueReset", "beside frames", kThreaded, RtmpThreadedQueueReset);
    addBesideFrames("RtmpThreadedQueueReset", "beside frames, steady road", kSteadyThreaded,
                    RtmpThreadedQueueReset);
    addBesideFrames("RtmpThreadedQueueClose", "beside frames", kThreaded, RtmpThreadedQueueClose);
    addBesideFrames("RtmpThreadedQueueClose", "beside frames, steady road", kSteadyThreaded,
                    RtmpThreadedQueueClose);
    for (const uint32_t mode : {0U, 1U}) {
        const std::string sender = mode == RTMP_SENDER_THREADED ? "threaded sender" : "packet monitor";
        to->push_back({"RtmpSenderSettings", sender, {}, [mode](Trial &trial) {
                           ChooseSender(trial, Road::Exact, mode);
                       }});
        to->push_back({"RtmpSenderSettings", sender + ", steady road", {}, [mode](Trial &trial) {
                           ChooseSender(trial, Road::Steady, mode);
                       }});
    }
}

} // namespace

std::vector<Scenario> SessionScenarios()
{
    const std::vector<int> ofServer = {RTMP_ERR_IP_ADDRESS,   RTMP_ERR_MEMORY, RTMP_ERR_LOCK_INIT,
                                       RTMP_ERR_SOCKET,       RTMP_ERR_BIND,   RTMP_ERR_LISTEN,
                                       RTMP_ERR_THREAD_CREATE};
    const std::vector<int> ofService = {RTMP_ERR_MEMORY, RTMP_ERR_THREAD_CREATE, RTMP_ERR_SOCKET,
                                        RTMP_ERR_BIND, RTMP_ERR_LISTEN};
    const std::vector<int> ofSession = {RTMP_ERR_MEMORY, RTMP_ERR_LOCK_INIT, RTMP_ERR_LOCK, RTMP_ERR_UNLOCK};
    const std::vector<int> ofEnd = {RTMP_ERR_LOCK, RTMP_ERR_UNLOCK, RTMP_ERR_THREAD_JOIN,
                                    RTMP_ERR_LOCK_DESTROY};
    const std::vector<int> ofMedia = {RTMP_ERR_LOCK,       RTMP_ERR_MEMORY,    RTMP_ERR_VIDEO_INFO,
                                      RTMP_ERR_AUDIO_INFO, RTMP_ERR_META_DATA, RTMP_ERR_UNLOCK};
    const auto without = std::vector<int>{}; // nothing on its way can fail
    std::vector<Scenario> all = {
        {"RtmpServerCreate", "all addresses", ofServer, [](Trial &trial) { CreateServer(trial, "ANY"); }},
        {"RtmpServerCreate", "an interface", ofServer, [](Trial &trial) { CreateServer(trial, "lo"); }},
        {"RtmpServerDestroy",
         "exact road",
         {RTMP_ERR_THREAD_JOIN, RTMP_ERR_LOCK_DESTROY},
         [](Trial &trial) { DestroyServer(trial, Road::Exact); },
         kEndings},
        {.function = "RtmpServerDestroy",
         .way = "steady road",
         .codes = {RTMP_ERR_THREAD_JOIN, RTMP_ERR_LOCK_DESTROY},
         .go = [](Trial &trial) { DestroyServer(trial, Road::Steady); },
         .cannotFail = {Call::Shutdown, Call::Write},
         .mostJoins = 2}, // of the two accept threads
        {"RtmpServiceSettings", "with TLS", ofService, SetService, kSteadyEndings},
        {"RtmpPlayerSettings", "every rule", without,
         [](Trial &trial) {
             Host host(trial);
             trial.run([&] { return RtmpPlayerSettings(host.server, RTMP_PLAYERS_ALL); });
         }},
        {"RtmpSessionCreate", "exact road", ofSession,
         [](Trial &trial) { CreateSession(trial, Road::Exact); }},
        {"RtmpSessionCreate", "steady road", ofSession,
         [](Trial &trial) { CreateSession(trial, Road::Steady); }},
        {"RtmpSessionDestroy", "packet monitor", ofEnd, [](Trial &trial) { DestroySession(trial, {}); }},
        {"RtmpSessionDestroy", "threaded sender", ofEnd,
         [](Trial &trial) { DestroySession(trial, kThreaded); }, kJoins},
        {"RtmpSessionDestroy", "steady road", ofEnd, [](Trial &trial) { DestroySession(trial, kSteady); }},
        {"RtmpAddMediaInfo", "first", ofMedia,
         [](Trial &trial) { RegisterMedia(trial, RTMP_PLAYERS_EXACT, false); }},
        {"RtmpAddMediaInfo", "again", ofMedia,
         [](Trial &trial) { RegisterMedia(trial, RTMP_PLAYERS_EXACT, true); }},
        {"RtmpAddMediaInfo", "every rule", ofMedia,
         [](Trial &trial) { RegisterMedia(trial, RTMP_PLAYERS_ALL, false); }},
        {"RtmpSessionStatistics", "one player", without, [](Trial &trial) { Figures(trial, AskSession); }},
        {"RtmpClientStatistics", "one player", without, [](Trial &trial) { Figures(trial, AskClients); }},
    };
    AddDestroys(&all, ofEnd);
    AddSettings(&all);
    return all;
}

} // namespace every_call
