// Hosts that call in any order, and log functions and disks that are no help.
#include "net/atomic.h"
#include "support/produced.h"
#include "support/session_rig.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <numeric>
#include <poll.h>
#include <unistd.h>

namespace {

struct HostRoad {
    const char *name;
    bool steady;
    uint32_t mode; // of the sender
};

constexpr HostRoad kHostRoads[] = {
    {"Exact", false, 0}, {"ExactThreaded", false, 1}, {"Steady", true, 0}, {"SteadyThreaded", true, 1}};

const Bytes kKeyFrame = Hex("00000004 65 AABBCC");

class HostileHost : public testing::TestWithParam<HostRoad> {
  public:
    HostileHost() : rig({.steady = GetParam().steady})
    {
        char name[] = "/tmp/rtmpcast-host-XXXXXX";
        directory = mkdtemp(name);
    }
    void TearDown() override
    {
        std::filesystem::remove_all(directory);
    }
    RtmpSession *newSession()
    {
        RtmpSession *session = RtmpSessionCreate(rig.server, "other", nullptr);
        EXPECT_NE(session, nullptr);
        return session;
    }
    void chooseSender(RtmpSession *session)
    {
        EXPECT_EQ(RtmpSenderSettings(session, GetParam().mode, 0, 0, 1, 255, 5, 10, 10), 0);
    }
    void watchBandwidth(RtmpSession *session)
    {
        EXPECT_EQ(RtmpBWMSettings(session, 1, 30), 0);
    }
    void trace(RtmpSession *session)
    {
        EXPECT_EQ(RtmpDebugSettings(session, 1, 1, 1, directory.c_str(), 0), 0);
    }
    void adapt(RtmpSession *session)
    {
        EXPECT_EQ(RtmpAdaptiveBitrateSettings(session, 1, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);
    }
    void addMedia(RtmpSession *session)
    {
        const VideoMediaInfo video = {
            7, 0, {0, 0, 0}, static_cast<int32_t>(kRigVideoConfig.size()), kRigVideoConfig.data()};
        EXPECT_EQ(RtmpAddMediaInfo(session, &video, nullptr), 0);
    }
    int32_t offer(RtmpSession *session)
    {
        return RtmpSendData(session, kKeyFrame.data(), static_cast<int32_t>(kKeyFrame.size()), 0, 0,
                            time += 40, RTMP_FRAME_VIDEO);
    }
    // The frame that was offered last has come, whole.
    static bool hasFrame(const RigClient &player)
    {
        const auto endsWithIt = [](const Bytes &came) {
            return came.size() >= kKeyFrame.size() &&
                   Slice(came, came.size() - kKeyFrame.size(), kKeyFrame.size()) == kKeyFrame;
        };
        Bytes came;
        return WaitUntil([&] {
            Append(came, DrainBytes(player.peer));
            return endsWithIt(came);
        });
    }
    SessionRig rig;
    std::string directory;
    uint64_t time = 1000;
};

} // namespace

TEST_P(HostileHost, SettingsInEveryOrderAndTwiceLeadToAStream)
{
    using Call = void (HostileHost::*)(RtmpSession *);
    // Frames in between are refused, or dropped, or go out.
    const Call calls[] = {&HostileHost::chooseSender, &HostileHost::watchBandwidth, &HostileHost::trace,
                          &HostileHost::adapt, &HostileHost::addMedia};
    std::array<size_t, std::size(calls)> order;
    std::iota(order.begin(), order.end(), size_t{0});
    do {
        RtmpSession *session = newSession();
        const RigClient player = rig.addClientTo(session);
        for (const size_t each : order) {
            (this->*calls[each])(session);
            (void)offer(session);
            (this->*calls[each])(session);
        }
        (void)RtmpThreadedQueueReset(session); // what is queued is of no interest
        (void)DrainBytes(player.peer);
        EXPECT_EQ(offer(session), 0);
        EXPECT_TRUE(hasFrame(player));
        rig.removeClient(player.client);
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
        ASSERT_FALSE(HasFailure()) << testing::PrintToString(order);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_P(HostileHost, ResetCloseAndDestroyInEveryPhaseLeaveAServerThatServes)
{
    enum Act { Reset, Close, CloseAndReset, Destroy, Acts };
    constexpr int kPhases = 6;
    for (int act = 0; act < Acts; act++) {
        for (int phase = 0; phase < kPhases; phase++) {
            SCOPED_TRACE("act " + std::to_string(act) + " in phase " + std::to_string(phase));
            RtmpSession *session = newSession();
            RigClient player = {};
            for (int step = 0; step < kPhases; step++) {
                if (step == 1) {
                    chooseSender(session);
                } else if (step == 2) {
                    addMedia(session);
                } else if (step == 3) {
                    player = rig.addClientTo(session);
                } else if (step >= 4) {
                    (void)offer(session);
                }
                if (step != phase) {
                    continue;
                }
                if (act == Destroy) {
                    break;
                }
                EXPECT_EQ(act == Reset ? RtmpThreadedQueueReset(session) : RtmpThreadedQueueClose(session),
                          0);
                if (act == CloseAndReset) {
                    EXPECT_EQ(RtmpThreadedQueueReset(session), 0);
                }
            }
            if (player.client != nullptr) {
                rig.removeClient(player.client);
            }
            EXPECT_EQ(RtmpSessionDestroy(session), 0);
            ASSERT_FALSE(HasFailure());
        }
    }
    const RigClient player = rig.addClient();
    EXPECT_EQ(offer(rig.session), 0);
    EXPECT_TRUE(hasFrame(player));
}

TEST_P(HostileHost, ADiskThatIsFullCostsNoFrame)
{
    for (time_t second = ::time(nullptr) - 1; second < ::time(nullptr) + 30; second++) {
        std::filesystem::create_symlink("/dev/full", directory + "/debug-" + std::to_string(second) + ".csv");
    }
    RtmpSession *session = newSession();
    chooseSender(session);
    trace(session);
    addMedia(session);
    const RigClient player = rig.addClientTo(session);
    for (int frame = 0; frame < 20; frame++) {
        EXPECT_EQ(offer(session), 0);
        EXPECT_TRUE(hasFrame(player));
    }
    rig.removeClient(player.client);
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
}

INSTANTIATE_TEST_SUITE_P(On, HostileHost, testing::ValuesIn(kHostRoads),
                         [](const testing::TestParamInfo<HostRoad> &row) { return row.param.name; });

// ------------------------------------------------------------------------------------------------ loggers

namespace {

// Stops whoever asks for the stream "stuck", in the middle of its line, until it is let go.
struct StuckLogger {
    static void Log(void *context, uint8_t, const char *format, va_list arguments)
    {
        StuckLogger *self = static_cast<StuckLogger *>(context);
        char line[1024];
        vsnprintf(line, sizeof line, format, arguments);
        if (self->armed && strstr(line, "message: PLAY") != nullptr && !self->isHolding.exchange(true)) {
            EXPECT_TRUE(WaitUntil([self] { return self->isLetGo.load(); }, 60000));
        }
    }
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
        for (int i = 0; i < 20; i++) {
            std::this_thread::yield();
        }
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

void PlayAFrame(RtmpSession *session, wire::ScriptedPeer &player, uint64_t time)
{
    EXPECT_EQ(wire::SendVideo(session, wire::VideoFrame(64), time), 0);
    EXPECT_EQ(player.read().payload.size(), 69U);
}

} // namespace

TEST(HostileLogger, OneThatHoldsAThreadHoldsNobodyElse)
{
    StuckLogger stuck;
    wire::TestServer server(4096, &stuck.logger);
    RtmpSession *session = server.session("cam");
    wire::ScriptedPeer player(server.port);
    player.playing("cam");
    wire::ScriptedPeer held(server.port);
    held.created();
    stuck.armed = true;
    held.command(wire::PlayCommand("cam"));
    ASSERT_TRUE(WaitUntil([&] { return stuck.isHolding.load(); }));
    for (uint64_t frame = 0; frame < 10; frame++) {
        PlayAFrame(session, player, 1000 + 40 * frame);
    }
    wire::ScriptedPeer late(server.port);
    late.playing("cam");
    stuck.isLetGo = true;
    EXPECT_EQ(held.read(7).size(), 7U);
}

TEST(HostileLogger, OneThatIsSlowAndWritesLinesItselfIsServed)
{
    TalkativeLogger talkative;
    wire::TestServer server(4096, &talkative.logger);
    talkative.server = server.server;
    RtmpSession *session = server.session("cam");
    wire::ScriptedPeer player(server.port);
    player.playing("cam");
    for (uint64_t round = 0; round < 5; round++) {
        wire::ScriptedPeer guest(server.port);
        guest.playing("cam");
        PlayAFrame(session, player, 1000 + 40 * round);
        guest.command(wire::DeleteStreamCommand());
        EXPECT_TRUE(WaitUntil([&] { return LoadShared(&session->ClientCount) == 1; }));
    }
    EXPECT_GT(talkative.lines, 200U);
}
