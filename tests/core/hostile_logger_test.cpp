// Log functions that are no help: one that does not return, and one that is slow and calls back into the
// library.
#include "net/atomic.h"
#include "steady/steady_server.h"

#include <cstring>
#include <future>
#include <poll.h>

namespace {

// Stops whoever writes a line with these words, once, in the middle of it, until it is let go.
struct StuckLogger {
    explicit StuckLogger(const char *line) : words(line) {}
    static void Log(void *context, uint8_t, const char *format, va_list arguments)
    {
        StuckLogger *self = static_cast<StuckLogger *>(context);
        char line[1024];
        vsnprintf(line, sizeof line, format, arguments);
        if (self->armed && strstr(line, self->words) != nullptr && !self->isHolding.exchange(true)) {
            EXPECT_TRUE(WaitUntil([self] { return self->isLetGo.load(); }, 60000));
        }
    }
    const char *const words;
    std::atomic<bool> armed = false, isHolding = false, isLetGo = false;
    RtmpLogger logger = {&StuckLogger::Log, this};
};

// Takes its time for every line, and writes more lines for each.
struct TalkativeLogger {
    static void Log(void *context, uint8_t level, const char *, va_list)
    {
        static thread_local int depth = 0;
        TalkativeLogger *self = static_cast<TalkativeLogger *>(context);
        self->lines++;
        if (depth > 0) {
            return;
        }
        depth++;
        poll(nullptr, 0, 1);
        RtmpLogPrint(&self->logger, level, "once more\n");
        AmfObject values = {};
        EXPECT_EQ(WriteAmfNumber(self->server, &values, "lines", 1), 0);
        FreeAmfObject(self->server, &values, 1);
        depth--;
    }
    std::atomic<size_t> lines = 0;
    std::atomic<RtmpServer *> server = nullptr; // null for the first lines: the server logs while it is made
    RtmpLogger logger = {&TalkativeLogger::Log, this};
};

std::unique_ptr<wire::TestServer> ServerWith(RtmpLogger *logger, bool steady)
{
    constexpr uint32_t kMost = 4; // players, and whoever is held
    if (!steady) {
        return std::make_unique<wire::TestServer>(4096, logger);
    }
    return std::make_unique<wire::SteadyTestServer>(steady::With(&RtmpServiceLimits::MostClients, kMost),
                                                    4096, logger);
}

std::unique_ptr<wire::ScriptedPeer> PeerOfRoad(const wire::TestServer &server, bool steady)
{
    auto peer = std::make_unique<wire::ScriptedPeer>(server.port);
    peer->chunks.standard = steady;
    return peer;
}

void PlayAFrame(RtmpSession *session, wire::ScriptedPeer &player, uint64_t time)
{
    EXPECT_EQ(wire::SendVideo(session, wire::VideoFrame(64, wire::kKeyNal), time), 0);
    EXPECT_EQ(player.read().payload.size(), 69U);
}

// Where a thread is held, and what a peer does that it comes to that.
struct HeldLine {
    const char *name;
    bool steady;
    const char *words;
    void (*bring)(wire::ScriptedPeer &peer);
    bool takesNewcomers; // the accept thread is another one
};

void AskToPlay(wire::ScriptedPeer &peer)
{
    peer.created();
    peer.command(wire::PlayCommand("cam"));
}

constexpr HeldLine kHeldLines[] = {
    {"ExactPlay", false, "message: PLAY", AskToPlay, true},
    {"SteadyConnected", true, "is connected", [](wire::ScriptedPeer &) {}, true},
    {"SteadyPlay", true, "message: PLAY", AskToPlay, true},
    {"SteadyTurnedAway", true, "is turned away", [](wire::ScriptedPeer &) {}, false},
    {"SteadyLeaves", true, ", leaves: ",
     [](wire::ScriptedPeer &peer) {
         peer.playing("cam");
         peer.socket.leave();
     },
     true},
};

class HeldLogger : public testing::TestWithParam<HeldLine> {
  protected:
    HeldLogger() : stuck(GetParam().words), server(ServerWith(&stuck.logger, GetParam().steady)) {}
    ~HeldLogger() override
    {
        stuck.isLetGo = true;
    }
    std::unique_ptr<wire::ScriptedPeer> comes()
    {
        return PeerOfRoad(*server, GetParam().steady);
    }
    bool plays()
    {
        try {
            comes()->playing("cam");
            return true;
        } catch (const wire::PeerError &) {
            return false;
        }
    }
    // Until one of them is held. Who finds no place, needs others that have taken it.
    void holdOne()
    {
        stuck.armed = true;
        while (GetParam().takesNewcomers ? held.empty() : held.size() < 3) {
            held.push_back(comes());
        }
        GetParam().bring(*held.back());
        ASSERT_TRUE(WaitUntil([&] { return stuck.isHolding.load(); }));
    }
    StuckLogger stuck;
    std::unique_ptr<wire::TestServer> server;
    std::vector<std::unique_ptr<wire::ScriptedPeer>> held;
};

} // namespace

TEST_P(HeldLogger, HoldsNobodyElse)
{
    RtmpSession *session = server->session("cam");
    RtmpSession *other = server->session("other");
    const std::unique_ptr<wire::ScriptedPeer> player = comes(), neighbour = comes();
    player->playing("cam");
    neighbour->playing("other");
    holdOne();
    for (uint64_t frame = 0; frame < 10; frame++) {
        PlayAFrame(session, *player, 1000 + 40 * frame);
    }
    if (GetParam().takesNewcomers) {
        comes()->playing("cam");
    }
    std::future<int> destroyed =
        std::async(std::launch::async, [other] { return RtmpSessionDestroy(other); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    stuck.isLetGo = true;
    EXPECT_EQ(destroyed.get(), 0);
    if (GetParam().bring == AskToPlay) {
        EXPECT_EQ(held.back()->read(7).size(), 7U);
    }
    held.clear();
    EXPECT_TRUE(WaitUntil([this] { return plays(); })); // their places are free a moment later
}

INSTANTIATE_TEST_SUITE_P(In, HeldLogger, testing::ValuesIn(kHeldLines),
                         [](const testing::TestParamInfo<HeldLine> &row) { return row.param.name; });

class TalkativeHost : public testing::TestWithParam<bool> {};

TEST_P(TalkativeHost, ThatIsSlowAndWritesLinesItselfIsServed)
{
    TalkativeLogger talkative;
    const std::unique_ptr<wire::TestServer> server = ServerWith(&talkative.logger, GetParam());
    talkative.server = server->server;
    RtmpSession *session = server->session("cam");
    const std::unique_ptr<wire::ScriptedPeer> player = PeerOfRoad(*server, GetParam());
    player->playing("cam");
    for (uint64_t round = 0; round < 5; round++) {
        const std::unique_ptr<wire::ScriptedPeer> guest = PeerOfRoad(*server, GetParam());
        guest->playing("cam");
        PlayAFrame(session, *player, 1000 + 40 * round);
        guest->command(wire::DeleteStreamCommand());
        EXPECT_TRUE(WaitUntil([&] { return LoadShared(&session->ClientCount) == 1; }));
    }
    EXPECT_GT(talkative.lines, 100U);
}

INSTANTIATE_TEST_SUITE_P(On, TalkativeHost, testing::Bool(), [](const testing::TestParamInfo<bool> &row) {
    return row.param ? "Steady" : "Exact";
});
