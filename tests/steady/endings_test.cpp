// Thousands of connections that end in every way, after which descriptors, threads and memory are where they
// were.
#include "steady/steady_peers.h"
#include "support/host_fakes.h"

#include <sys/resource.h>

#include <cstdio>

using namespace wire;

namespace {

#if defined(RTMPCAST_EMULATED)
constexpr size_t kEndings = 40;
constexpr size_t kGrowth = size_t{1} << 30; // an emulator keeps memory of its own for each thread that was
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kEndings = 80;
constexpr size_t kGrowth = size_t{1} << 30; // the sanitizers keep what is freed, and find leaks themselves
#else
constexpr size_t kEndings = 2000;
constexpr size_t kGrowth =
    size_t{1} << 20; // a record and its line for each ending would be more than twice this
#endif
constexpr size_t kWarmUp = 100;
constexpr size_t kOnExactRoad = 100; // for comparison
constexpr size_t kOfOneSession = 50; // players

// Lines would be hundreds of megabytes.
void Drop(void *, uint8_t, const char *, va_list) {}

struct State {
    size_t descriptors = OpenDescriptors();
    size_t threads = RunningThreads();
    size_t resident = ResidentBytes();
};

long Difference(size_t now, size_t before)
{
    return static_cast<long>(now) - static_cast<long>(before);
}

using Step = void (*)(ScriptedPeer &);

struct Ending {
    const char *name;
    Step step;
    bool reset;
};

constexpr Ending kEndingKinds[] = {
    {"NoHandshake", [](ScriptedPeer &) {}, false},
    {"HalfAHandshake", [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 1537}); }, false},
    {"AfterConnect", [](ScriptedPeer &peer) { peer.connected(); }, false},
    {"HalfAMessage",
     [](ScriptedPeer &peer) {
         peer.connected();
         peer.socket.send(Slice(Chunks({.payload = CreateStreamCommand()}), 0, 20));
     },
     false},
    {"Playing", [](ScriptedPeer &peer) { peer.playing("cam"); }, false},
    {"Paused",
     [](ScriptedPeer &peer) {
         peer.playing("cam");
         peer.command(PauseCommand(true));
         peer.read();
     },
     false},
    {"DeleteStream",
     [](ScriptedPeer &peer) {
         peer.playing("cam");
         peer.command(DeleteStreamCommand());
     },
     false},
    {"Refused",
     [](ScriptedPeer &peer) {
         peer.created();
         peer.command(PlayCommand("nobody"));
         peer.read();
         peer.read();
         EXPECT_TRUE(peer.socket.ends());
     },
     false},
    {"Reset", [](ScriptedPeer &peer) { peer.playing("cam"); }, true},
};

// The host of the tests notes every viewer: that memory is not the library's.
void ForgetTheHost(size_t i)
{
    if (i % 20 == 0) {
        HostFakes::get().reset();
    }
}

void EndSome(const Ending &ending, uint16_t port, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        ScriptedPeer peer(port);
        peer.socket.keepRecord(false);
        ending.step(peer);
        ending.reset ? peer.socket.reset() : peer.socket.leave();
        ForgetTheHost(i);
    }
}

// The C library keeps the stacks of threads that have ended for the next ones: forty of a mebibyte, of which
// 72 KiB are resident. How many it has depends on how many threads ran at once. So many did that it has them
// all before anything is measured.
void FillTheCacheOfStacks(TestServer &server)
{
    constexpr size_t kMoreThanItKeeps = 60;
    SteadyService *service = server.server->Service;
    const auto accepted = [service] {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
        return service->AcceptedCount;
    };
    std::vector<std::unique_ptr<ScriptedPeer>> peers;
    for (size_t i = 0; i < kMoreThanItKeeps; i++) {
        peers.push_back(std::make_unique<ScriptedPeer>(server.port));
    }
    EXPECT_TRUE(WaitUntil([&] { return accepted() == kMoreThanItKeeps; }));
}

// The exact road leaves descriptors behind, by design.
void MakeRoomForDescriptors()
{
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

bool HasSettled(const State &before)
{
    return WaitUntil(
        [&] { return OpenDescriptors() <= before.descriptors && RunningThreads() <= before.threads; });
}

void Print(const char *road, const char *name, size_t count, const State &before)
{
    printf("%-7s road, %5zu times %-16s descriptors %+ld, threads %+ld, resident %+ld KiB\n", road, count,
           name, Difference(OpenDescriptors(), before.descriptors),
           Difference(RunningThreads(), before.threads), Difference(ResidentBytes(), before.resident) / 1024);
}

void ShowTheExactRoad(const Ending &ending)
{
    RtmpLogger quiet = {&Drop, &quiet};
    TestServer server(4096, &quiet);
    server.session();
    EndSome(ending, server.port, 10);
    ASSERT_TRUE(server.waitForClientsToEnd());
    const State before;
    EndSome(ending, server.port, kOnExactRoad);
    ASSERT_TRUE(server.waitForClientsToEnd());
    Print("exact", ending.name, kOnExactRoad, before);
}

class SteadyEndings : public testing::TestWithParam<Ending> {};

} // namespace

TEST_P(SteadyEndings, LeaveNothingBehind)
{
    MakeRoomForDescriptors();
    RtmpLogger quiet = {&Drop, &quiet};
    {
        TestServer server(4096, &quiet);
        ASSERT_EQ(RtmpServiceSettings(server.server, nullptr), 0);
        server.session();
        const State empty;
        FillTheCacheOfStacks(server);
        ASSERT_TRUE(HasSettled(empty));
        EndSome(GetParam(), server.port, kWarmUp);
        ASSERT_TRUE(HasSettled(empty));
        const State before;
        EndSome(GetParam(), server.port, kEndings);
        EXPECT_TRUE(HasSettled(before))
            << Difference(OpenDescriptors(), before.descriptors) << " descriptors, "
            << Difference(RunningThreads(), before.threads) << " threads";
        Print("steady", GetParam().name, kEndings, before);
        EXPECT_LE(Difference(ResidentBytes(), before.resident), static_cast<long>(kGrowth));
    }
    ShowTheExactRoad(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Kinds, SteadyEndings, testing::ValuesIn(kEndingKinds),
                         [](const testing::TestParamInfo<Ending> &row) { return row.param.name; });

TEST(SteadyEndingsOfSessions, LeaveNothingBehind)
{
    RtmpLogger quiet = {&Drop, &quiet};
    TestServer server(4096, &quiet);
    ASSERT_EQ(RtmpServiceSettings(server.server, nullptr), 0);
    const auto destroyOne = [&server] {
        ForgetTheHost(0);
        RtmpSession *session = server.session();
        std::vector<std::unique_ptr<ScriptedPeer>> players;
        for (size_t i = 0; i < kOfOneSession; i++) {
            players.push_back(std::make_unique<ScriptedPeer>(server.port));
            players.back()->playing("cam");
        }
        ASSERT_EQ(SendVideo(session, VideoFrame(1000, kKeyNal), 1000), 0);
        ASSERT_EQ(RtmpSessionDestroy(session), 0);
        for (const std::unique_ptr<ScriptedPeer> &player : players) {
            EXPECT_TRUE(ReadsToTheEnd(player->socket));
        }
    };
    const State empty;
    destroyOne();
    ASSERT_TRUE(HasSettled(empty));
    const State before;
    for (size_t ended = 0; ended < kEndings; ended += kOfOneSession) {
        destroyOne();
    }
    EXPECT_TRUE(HasSettled(before));
    Print("steady", "SessionDestroyed", kEndings, before);
    EXPECT_LE(Difference(ResidentBytes(), before.resident), static_cast<long>(kGrowth));
}

TEST(SteadyEndingsOfServers, LeaveNothingBehind)
{
    RtmpLogger quiet = {&Drop, &quiet};
    const auto destroyOne = [&quiet] {
        ForgetTheHost(0);
        TestServer server(4096, &quiet);
        ASSERT_EQ(RtmpServiceSettings(server.server, nullptr), 0);
        server.session();
        std::vector<std::unique_ptr<ScriptedPeer>> peers;
        for (const Ending &ending : kEndingKinds) {
            if (std::string(ending.name) != "DeleteStream" && std::string(ending.name) != "Refused") {
                peers.push_back(std::make_unique<ScriptedPeer>(server.port));
                ending.step(*peers.back());
            }
        }
        const size_t descriptors = OpenDescriptors();
        ASSERT_EQ(server.destroy(), 0);
        // Every connection's and the first listener's, and the two of the keeper: closed when it returns.
        EXPECT_EQ(OpenDescriptors(), descriptors - peers.size() - 3);
        for (const std::unique_ptr<ScriptedPeer> &peer : peers) {
            EXPECT_TRUE(ReadsToTheEnd(peer->socket));
        }
    };
    destroyOne();
    const State before;
    for (size_t i = 0; i < kEndings / 40; i++) {
        destroyOne();
    }
    EXPECT_TRUE(HasSettled(before));
    Print("steady", "ServerDestroyed", kEndings / 40, before);
    EXPECT_LE(Difference(ResidentBytes(), before.resident), static_cast<long>(kGrowth));
}
