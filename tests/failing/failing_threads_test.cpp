// Calls that fail on threads of the library's own: those that accept, serve, send and keep. A player comes,
// watches and leaves, or its session or server is destroyed, while the first, the second, ... call of each
// kind fails on whichever thread makes it. Either that costs nobody anything, or a line or the end of the
// connection tells of it; and the next player is served.
#include "failing/thread_rig.h"
#include "failing/transcripts.h"
#include "rtmpcast/rtmpcast.h"
#include "state/client.h"
#include "support/test_server.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <optional>

using namespace thread_trials;
using every_call::NamedCall;

namespace {

struct Result {
    bool came = false; // to the call that fails
    Fate first = Fate::Lost;
};

// ---------------------------------------------------------------------------- what the exact road requires

bool IsExactAccept(const Way &way, Call call)
{
    return way.road == Road::Exact && call == Call::Accept;
}

// Whatever the reason, nobody is accepted any more (AcceptRtmpConnectionThread, KEPT).
void ExpectNobodyIsAccepted(Ground &ground)
{
    EXPECT_TRUE(ground.watch.log.waitFor("6 INFO: AcceptRtmpConnectionThread: Exiting RTMP connection"));
}

// The record of a client without a thread stays allocated (StartServing, KEPT).
void FreeUnservedRecord(const Way &way, Call call)
{
    if (way.road == Road::Exact && call == Call::ThreadCreate) {
        FreeClientRecord(static_cast<RtmpClient *>(calls::argumentOfTheUnstartedThread()));
    }
}

constexpr const char *kIsServed = "ServeRtmpClient: Serve RTMP client thread created";

// A sender that has failed stays closed, and the next frame closes the first player: required, and why hosts
// reset it when a line tells of it.
Fate ServeAnother(Ground &ground, const Way &way)
{
    const bool mayBeClosed = way.road == Road::Exact && way.mode == RTMP_SENDER_THREADED;
    const CaptureLogger &log = ground.watch.log;
    const size_t before = log.count(kIsServed);
    const Fate fate = ground.visitAgain();
    if (!mayBeClosed || fate == Fate::Served) {
        return fate;
    }
    EXPECT_TRUE(log.contains("RtmpSenderThread: ====>Sending message to connected clients failed"));
    EXPECT_TRUE(log.waitForAtLeast(kIsServed, before + 1)); // it may be gone before it is accepted
    EXPECT_EQ(RtmpThreadedQueueReset(ground.session), 0);
    EXPECT_TRUE(ground.waitUntilAlone());
    return ground.visitAgain();
}

// ------------------------------------------------------------------------------------------------- a trial

Result VisitWith(Ground &ground, const Way &way, Call call, int number)
{
    std::optional<FailingCallElsewhere> failing;
    Result result;
    result.first = ground.visit([&](Step step) {
        if (step == way.from) {
            failing.emplace(call, number);
        }
    });
    EXPECT_TRUE(ground.waitUntilAlone());
    result.came = failing && failing->cameToIt();
    return result;
}

void ExpectTheNextIsServed(Ground &ground, const Way &way, Call call)
{
    if (way.ending == Ending::ServerIsDestroyed) {
        return;
    }
    if (IsExactAccept(way, call)) {
        ExpectNobodyIsAccepted(ground);
        return;
    }
    EXPECT_EQ(ServeAnother(ground, way), Fate::Served);
    EXPECT_TRUE(ground.waitUntilAlone());
    EXPECT_EQ(ground.session->ClientCount, 0);
}

void ShowLog(const Ground &ground)
{
    for (const std::string &line : ground.watch.log.lines()) {
        printf("    %s\n", line.c_str());
    }
}

Result Try(const Way &way, Call call, int number)
{
    Footprint footprint;
    Ground ground(way);
    const Result result = VisitWith(ground, way, call, number);
    if (result.came) {
        FreeUnservedRecord(way, call);
        ExpectTheNextIsServed(ground, way, call);
    } else {
        EXPECT_EQ(result.first, Fate::Served) << "nothing fails";
    }
    if (testing::Test::HasFailure()) {
        ShowLog(ground);
    }
    ground.destroy();
    const int leftOpen = footprint.expectOnly(ground.port);
    // A connection that ends by a read error stays open on the exact road (LeaveLoop, KEPT), once for each
    // player; never on the steady one.
    EXPECT_LE(leftOpen, way.road == Road::Exact ? 3 : 0);
    calls::forgetMutexes();
    return result;
}

// --------------------------------------------------------------------------------------------- all of them

const std::vector<NamedCall> kAcceptCalls = {
    {Call::Accept, "accept"}, {Call::Accept4, "accept4"}, {Call::GetPeerName, "getpeername"}};

constexpr int kMost = 40;        // of those whose number hangs on the time: reads and waits
constexpr int kMostOfAll = 1000; // more, and there is no end to it

int MostOf(Call call)
{
    return call == Call::Poll || call == Call::Read ? kMost : kMostOfAll;
}

using Counts = std::map<std::string, int>;

void GoThroughKind(const Way &way, const NamedCall &kind, Counts *counts)
{
    bool came = true;
    for (int number = 1; came && number <= MostOf(kind.call); number++) {
        SCOPED_TRACE(std::string(way.name) + ", " + kind.name + " " + std::to_string(number));
        const Result result = Try(way, kind.call, number);
        came = result.came;
        (*counts)[kind.name] += came ? 1 : 0;
        (*counts)[result.first == Fate::Served ? "served" : "not served"]++;
        ASSERT_FALSE(testing::Test::HasFailure());
        ASSERT_LT(number, kMostOfAll) << "there is no end to it";
    }
}

// But for fcntl: that it fails says of a connection over TLS that there is no descriptor, and then no thread
// waits for its turn at the handle. Of one that is there nobody says so.
std::vector<NamedCall> AllKinds()
{
    std::vector<NamedCall> kinds = kAcceptCalls;
    kinds.insert(kinds.end(), every_call::kKinds.begin(), every_call::kKinds.end());
    std::erase_if(kinds, [](const NamedCall &kind) { return kind.call == Call::Fcntl; });
    return kinds;
}

// Goes the way with each call in turn. Those of `mustCome` are made on it.
void GoThrough(const Way &way, const std::vector<std::string> &mustCome,
               const std::vector<NamedCall> &kinds = AllKinds())
{
    Counts counts;
    for (const NamedCall &kind : kinds) {
        GoThroughKind(way, kind, &counts);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
    for (const std::string &name : mustCome) {
        EXPECT_GT(counts[name], 0) << name;
    }
}

// What a thread may call on its way out.
const std::vector<NamedCall> kOnTheWayOut = {
    {Call::Calloc, "calloc"},
    {Call::Malloc, "malloc"},
    {Call::MutexLock, "lock"},
    {Call::MutexUnlock, "unlock"},
    {Call::MutexDestroy, "lock destroy"},
    {Call::Shutdown, "shutdown"},
    {Call::Close, "close"},
    {Call::Poll, "poll"},
    {Call::Recv, "recv"},
    {Call::Read, "read"},
    {Call::SendMmsg, "sendmmsg"},
    {Call::SendMsg, "sendmsg"},
    {Call::Write, "write"},
};

void GoThroughAllEnds(Ending ending)
{
    for (const Road road : {Road::Exact, Road::Steady}) {
        for (const uint32_t mode : {0U, 1U}) {
            const char *name = road == Road::Exact ? "exact road" : "steady road";
            GoThrough({.name = name, .road = road, .mode = mode, .from = Step::Ends, .ending = ending},
                      {"lock", "unlock", road == Road::Exact ? "lock destroy" : "close"}, kOnTheWayOut);
        }
    }
}

} // namespace

TEST(FailingThreads, ThoseThatAcceptAndServeOnTheExactRoad)
{
    GoThrough({.name = "exact road"},
              {"accept", "getpeername", "calloc", "realloc", "lock init", "lock", "unlock", "lock destroy",
               "thread create", "HMAC", "recv", "send", "sendmmsg", "not served"});
}

TEST(FailingThreads, ThoseThatAcceptAndServeOnTheSteadyRoad)
{
    GoThrough({.name = "steady road", .road = Road::Steady},
              {"accept4", "getpeername", "calloc", "malloc", "realloc", "lock init", "lock", "unlock",
               "thread create", "HMAC", "recv", "sendmsg", "epoll_ctl", "close", "not served"});
}

TEST(FailingThreads, TheSenderOfTheExactRoad)
{
    GoThrough({.name = "exact road, threaded sender", .mode = RTMP_SENDER_THREADED, .from = Step::Plays},
              {"calloc", "lock", "unlock", "sendmmsg", "fprintf", "not served"});
}

TEST(FailingThreads, TheKeeperAndTheSenderOfTheSteadyRoad)
{
    GoThrough({.name = "steady road, threaded sender",
               .road = Road::Steady,
               .mode = RTMP_SENDER_THREADED,
               .from = Step::Plays},
              {"lock", "unlock", "poll", "sendmsg", "close", "not served"});
}

// The dialogue is that of players without TLS: of its calls those are gone through that carry it.
TEST(FailingThreads, ThoseThatAcceptAndServePlayersOverTls)
{
    const std::vector<NamedCall> carrying = {
        {Call::Accept4, "accept4"},
        {Call::GetPeerName, "getpeername"},
        {Call::ThreadCreate, "thread create"},
        {Call::EpollCtl, "epoll_ctl"},
        {Call::TlsRead, "SSL_read"},
        {Call::TlsWrite, "SSL_write"},
        {Call::Recv, "recv"},
    };
    GoThrough({.name = "steady road, TLS", .road = Road::Steady, .overTls = true},
              {"accept4", "getpeername", "thread create", "epoll_ctl", "SSL_read", "SSL_write", "not served"},
              carrying);
}

TEST(FailingThreads, TheKeeperOfPlayersOverTls)
{
    GoThrough({.name = "steady road, TLS", .road = Road::Steady, .overTls = true, .from = Step::Plays},
              {"lock", "unlock", "poll", "SSL_write", "close", "not served"});
}

TEST(FailingThreads, ThoseOfPlayersWhoseSessionIsDestroyed)
{
    GoThroughAllEnds(Ending::SessionIsDestroyed);
}

TEST(FailingThreads, ThoseOfPlayersWhoseServerIsDestroyed)
{
    GoThroughAllEnds(Ending::ServerIsDestroyed);
}

// epoll does not refuse to watch for room what it watches already. If it did, the limit for players that take
// nothing would be what ends the wait.
TEST(FailingThreads, APlayerWhoseRoomIsNotWatchedIsDroppedByTheStallLimit)
{
    Ground ground({.name = "stalled", .road = Road::Steady, .from = Step::Plays, .stallMilliseconds = 2000});
    calls::failAlways(Call::EpollMod);
    EXPECT_NE(ground.visit([](Step) {}), Fate::Served);
    EXPECT_GT(calls::made(Call::EpollMod), 0U);
    calls::reset();
    EXPECT_TRUE(ground.watch.log.waitFor("leaves: it took nothing for too long"));
    EXPECT_EQ(ground.visitAgain(), Fate::Served);
    ground.destroy();
}
