// What the host is told on the steady road: how its encoder should go on, and what players miss.
#include "instruments/queue_records.h"
#include "net/platform.h"
#include "steady/records.h"
#include "steady/steady_server.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/wait.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <thread>

using namespace wire;

namespace {

constexpr int32_t kConfigured = 2000000000; // bit/s: more than any test sends
constexpr size_t kFrame = 8000;
constexpr size_t kMessage = 5 + kFrame;

RtmpServiceLimits RingOf(uint32_t milliseconds)
{
    RtmpServiceLimits limits = {};
    limits.RingMilliseconds = milliseconds;
    return limits;
}

// A session in one of the sender modes whose players' sockets take little.
struct FollowedServer : SteadyTestServer {
    // `slots`: of the queue that the settings name.
    explicit FollowedServer(uint32_t mode, const RtmpServiceLimits &limits = {}, uint32_t slots = 100)
        : SteadyTestServer(limits), cam(session("cam", {.media = false, .mode = mode, .queue = slots - 1}))
    {
        HostFakes::get().reset();
        const int small = 8192;
        setsockopt(server->RtmpSocket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        const Bytes sets = ParameterSets();
        const VideoMediaInfo video = {7, kConfigured, {}, static_cast<int32_t>(sets.size()), sets.data()};
        EXPECT_EQ(RtmpAddMediaInfo(cam, &video, nullptr), 0);
    }
    // One more picture; 40 ms of the host's clock.
    void picture(uint8_t nal = kInterNal)
    {
        EXPECT_EQ(SendVideo(cam, VideoFrame(kFrame, nal), time), 0);
        time += 40;
    }
    void follow()
    {
        EXPECT_EQ(RtmpBWMSettings(cam, 1, 30), 0);
        EXPECT_EQ(RtmpAdaptiveBitrateSettings(cam, 1, 0, 0, 1000000, 1, 5, 0, 0, 1, 20, 50, 90, 100, 1, 0),
                  0);
    }
    RtmpSession *cam;
    uint64_t time = 1000;
};

// A player that has begun: it has the first key frame.
struct Player : ScriptedPeer {
    explicit Player(FollowedServer &server) : ScriptedPeer(server.port)
    {
        chunks.standard = true;
        socket.setReceiveBuffer(8192);
        socket.keepRecord(false);
        playing("cam", 6);
    }
};

std::set<std::string> KeysReported()
{
    std::set<std::string> keys;
    for (const StatusReport &report : HostFakes::get().statusReports()) {
        keys.insert(report.key);
    }
    return keys;
}

bool IsReported(const std::string &key, const std::string &value)
{
    const std::vector<StatusReport> reports = HostFakes::get().statusReports();
    return std::any_of(reports.begin(), reports.end(), [&](const StatusReport &report) {
        return report.key == key && report.value == value;
    });
}

// The lowest bitrate that the encoder was told.
int32_t LowestBitrate()
{
    int32_t lowest = INT32_MAX;
    for (const auto &[session, bitrate] : HostFakes::get().bitrates()) {
        lowest = std::min(lowest, bitrate);
    }
    return lowest;
}

} // namespace

TEST(Feedback, ASlowPlayerLowersTheBitrate)
{
    FollowedServer server(RTMP_SENDER_THREADED);
    server.follow();
    Player fast(server);
    Player slow(server);
    server.picture(kKeyNal);
    fast.read();
    slow.read();
    EXPECT_TRUE(WaitUntil([&] {
        server.picture();
        fast.read();
        slow.socket.receive(kMessage / 8); // it makes progress, and falls behind
        return LowestBitrate() < kConfigured;
    }));
}

// At a pace at which the network's own delays are few pictures.
TEST(Feedback, AStoppedPlayerDoesNot)
{
    FollowedServer server(RTMP_SENDER_THREADED);
    server.follow();
    Player fast(server);
    Player stopped(server);
    server.picture(kKeyNal);
    fast.read();
    stopped.read();
    const uint64_t begun = RtmpGetSystemTime();
    for (uint64_t i = 1; i <= 200;
         i++) { // eight seconds of the host's clock, twice what the queue is said to hold
        ASSERT_TRUE(WaitUntil([&] { return RtmpGetSystemTime() >= begun + 10 * i; }));
        server.picture();
        fast.read();
    }
    EXPECT_EQ(LowestBitrate(), kConfigured); // as it began
}

TEST(Feedback, WithoutAControllerTheHostIsWarnedOfAFullQueueAndToldOfItsEnd)
{
    FollowedServer server(RTMP_SENDER_THREADED, RingOf(60000), 10);
    Player slow(server);
    server.picture(kKeyNal);
    slow.read();
    ASSERT_TRUE(WaitUntil([&] {
        server.picture();
        slow.socket.receive(kMessage / 8);
        return IsReported("rtmpLowBitrate", "1");
    }));
    EXPECT_FALSE(IsReported("rtmpLowBitrate", "0"));
    EXPECT_TRUE(WaitUntil([&] { // it catches up
        uint8_t bytes[65536];
        while (recv(slow.socket.descriptor(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
        RtmpClientFigures figures = {};
        EXPECT_EQ(RtmpClientStatistics(server.cam, &figures, 1), 1);
        if (figures.WaitingBytes == 0) {
            server.picture();
        }
        return IsReported("rtmpLowBitrate", "0");
    }));
}

// In both modes on the thread that calls RtmpSendData.
TEST(Feedback, BandwidthAndUptimeAreReportedOnTheHostsThread)
{
    for (const uint32_t mode : {uint32_t{0}, uint32_t{RTMP_SENDER_THREADED}}) {
        FollowedServer server(mode);
        EXPECT_EQ(RtmpBWMSettings(server.cam, 1, 30), 0);
        std::set<std::thread::id> threads;
        std::mutex guard;
        HostFakes::get().status = [&] {
            const std::lock_guard<std::mutex> held(guard);
            threads.insert(std::this_thread::get_id());
        };
        Player player(server);
        server.picture(kKeyNal);
        player.read();
        EXPECT_TRUE(WaitUntil([&] {
            server.picture();
            player.read();
            const std::set<std::string> keys = KeysReported();
            return keys.contains("rtmpBandwidth") && keys.contains("rtmpUptime");
        }));
        EXPECT_EQ(threads, std::set<std::thread::id>{std::this_thread::get_id()});
        HostFakes::get().status = nullptr;
    }
}

// The monitor measures what the slowest player takes, and not what is offered.
TEST(Feedback, TheMeasuredRateIsThatOfTheSlowestPlayer)
{
    constexpr int64_t kWindow = 100;
    FollowedServer server(RTMP_SENDER_THREADED, RingOf(60000));
    EXPECT_EQ(RtmpBWMSettings(server.cam, 1, kWindow), 0);
    Player fast(server);
    Player slow(server);
    server.picture(kKeyNal);
    fast.read();
    slow.read();
    const auto measured = [&] { return server.cam->Queue->Bwm->TotalBytes; };
    for (int64_t i = 0; i < 2 * kWindow; i++) {
        server.picture();
        fast.read();
        slow.read();
    }
    EXPECT_NEAR(static_cast<double>(measured()), kWindow * kMessage, 10 * kMessage);
    for (int64_t i = 0; i < 3 * kWindow; i++) {
        server.picture();
        fast.read();
        slow.socket.receive(kMessage / 8);
    }
    EXPECT_LT(measured(), kWindow * static_cast<int64_t>(kMessage) / 2);
    EXPECT_GT(measured(), kWindow * static_cast<int64_t>(kMessage) / 32);
}

TEST(Feedback, FramesThatASlowPlayerMissesAreToldToTheHostAtMostOnceASecond)
{
    for (const uint32_t mode : {uint32_t{0}, uint32_t{RTMP_SENDER_THREADED}}) {
        FollowedServer server(mode, RingOf(1000));
        Player player(server);
        server.picture(kKeyNal);
        player.read();
        for (int i = 1; i <= 200; i++) { // eight seconds of the host's clock
            server.picture(i % 50 == 0 ? kKeyNal : kInterNal);
        }
        EXPECT_TRUE(WaitUntil([&] {
            player.socket.receive(1000);
            server.picture(kKeyNal);
            return KeysReported().contains("rtmpDroppedFrames");
        }));
        const uint64_t begun = RtmpGetSystemTime();
        for (int i = 0; i < 50; i++) {
            player.socket.receive(1000);
            server.picture(kKeyNal);
        }
        const std::vector<StatusReport> reports = HostFakes::get().statusReports();
        const auto isTold = [](const StatusReport &report) { return report.key == "rtmpDroppedFrames"; };
        const auto first = std::find_if(reports.begin(), reports.end(), isTold);
        EXPECT_EQ(first->context, server.cam);
        EXPECT_GT(std::stoul(first->value), 0u);
        EXPECT_LE(static_cast<uint64_t>(std::count_if(reports.begin(), reports.end(), isTold)),
                  2 + (RtmpGetSystemTime() - begun) / 1000);
    }
}

TEST(Feedback, AKeyFrameIsAskedForAtMostOnceASecondUntilItComes)
{
    for (const uint32_t mode : {uint32_t{0}, uint32_t{RTMP_SENDER_THREADED}}) {
        FollowedServer server(mode);
        Player player(server);
        const uint64_t begun = RtmpGetSystemTime();
        ASSERT_TRUE(WaitUntil([&] {
            server.picture();
            return HostFakes::get().keyFramesWanted().size() == 1;
        }));
        for (int i = 0; i < 20; i++) {
            server.picture();
        }
        EXPECT_LE(HostFakes::get().keyFramesWanted().size(), 1 + (RtmpGetSystemTime() - begun) / 1000);
        ASSERT_TRUE(WaitUntil([&] {
            server.picture();
            return HostFakes::get().keyFramesWanted().size() == 2;
        }));
        EXPECT_GE(RtmpGetSystemTime() - begun, 1000u);
        EXPECT_EQ(HostFakes::get().keyFramesWanted()[1], server.cam);
        server.picture(kKeyNal);
        EXPECT_EQ(player.read().timestamp, 0u);
        server.picture();
        player.read();
        EXPECT_EQ(server.cam->Stream->KeyFrameWanted, 0);
    }
}

TEST(Feedback, ASessionWithoutPicturesIsAskedForNone)
{
    SteadyTestServer server;
    HostFakes::get().reset();
    RtmpSession *session = server.session("cam", {.video = false});
    ScriptedPeer peer(server.port);
    peer.chunks.standard = true;
    peer.playing("cam", 6);
    EXPECT_EQ(SendAudio(session, Bytes(30, 0x77), 1000), 0);
    EXPECT_TRUE(HostFakes::get().keyFramesWanted().empty());
}

TEST(Feedback, ResetMeasuresAnewAndSetsTheConfiguredBitrateAgain)
{
    FollowedServer server(RTMP_SENDER_THREADED);
    server.follow();
    Player player(server);
    server.picture(kKeyNal);
    player.read();
    EXPECT_EQ(HostFakes::get().bitrates().size(), 1u);
    EXPECT_EQ(RtmpThreadedQueueReset(server.cam), 0);
    server.picture(kKeyNal);
    player.read();
    EXPECT_EQ(HostFakes::get().bitrates().size(), 2u);
    EXPECT_EQ(HostFakes::get().bitrates()[1].second, kConfigured);
}
