// Hosts that call in any order, and disks that are no help.
#include "support/session_rig.h"
#include "support/test_server.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <numeric>
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
        EXPECT_EQ(AddRigMedia(session, RTMP_MEDIA_VIDEO), 0);
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
    // How often `path` is open in this process.
    static size_t opened(const std::string &path)
    {
        size_t count = 0;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone; // the descriptor of this very look
            count += std::filesystem::read_symlink(entry.path(), gone) == path ? 1 : 0;
        }
        return count;
    }
    // A trace that is opened within the next half minute, by whatever second it is called, is on a full disk.
    void fillTheDisk()
    {
        const time_t now = ::time(nullptr);
        for (time_t second = now - 1; second < now + 30; second++) {
            std::filesystem::create_symlink("/dev/full",
                                            directory + "/debug-" + std::to_string(second) + ".csv");
        }
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

// The packet monitor has no trace.
TEST_P(HostileHost, ADiskThatIsFullCostsNoFrame)
{
    const size_t before = opened("/dev/full");
    fillTheDisk();
    RtmpSession *session = newSession();
    chooseSender(session);
    trace(session);
    addMedia(session);
    const RigClient player = rig.addClientTo(session);
    for (int frame = 0; frame < 20; frame++) {
        EXPECT_EQ(offer(session), 0);
        EXPECT_TRUE(hasFrame(player));
    }
    EXPECT_EQ(opened("/dev/full"), before + (GetParam().mode == RTMP_SENDER_THREADED ? 1 : 0));
    rig.removeClient(player.client);
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    EXPECT_EQ(opened("/dev/full"), before);
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        EXPECT_TRUE(entry.is_symlink()) << entry.path(); // of a trace that missed them
    }
}

INSTANTIATE_TEST_SUITE_P(On, HostileHost, testing::ValuesIn(kHostRoads),
                         [](const testing::TestParamInfo<HostRoad> &row) { return row.param.name; });
