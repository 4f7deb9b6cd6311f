// Peers that are rude at the worst moment, on both roads: while they are being ended, while others fill the
// second port, and a byte at a time.
#include "net/atomic.h"
#include "steady/steady_peers.h"
#include "support/leaving_steps.h"
#include "support/unread.h"

#include <algorithm>
#include <atomic>
#include <poll.h>

using namespace wire;

namespace {

struct RudeRoad {
    const char *name;
    bool steady;
    bool reset; // or close
};

constexpr RudeRoad kRudeRoads[] = {{"ExactClose", false, false},
                                   {"ExactReset", false, true},
                                   {"SteadyClose", true, false},
                                   {"SteadyReset", true, true}};

std::unique_ptr<TestServer> ServerOf(const RudeRoad &road)
{
    return road.steady ? std::make_unique<SteadyTestServer>() : std::make_unique<TestServer>();
}

std::unique_ptr<ScriptedPeer> PeerOf(const TestServer &server, bool steady)
{
    auto peer = std::make_unique<ScriptedPeer>(server.port);
    peer->chunks.standard = steady;
    return peer;
}

class RudePeers : public testing::TestWithParam<RudeRoad> {
  protected:
    RudePeers() : server(ServerOf(GetParam())) {}

    // Peers of every state: about to play, playing, paused, in the middle of a message, and playing again;
    // and in each round two at steps on the way there. Another one leaves first in each round.
    void come(size_t round)
    {
        for (int i = 0; i < 5; i++) {
            peers.push_back(PeerOf(*server, GetParam().steady));
            i == 0 ? peers[0]->created() : (void)peers.back()->playing("cam");
        }
        peers[0]->command(PlayCommand("cam"));
        peers[2]->command(PauseCommand(true));
        peers[3]->socket.send(Slice(Chunks({.payload = PauseCommand(true)}), 0, 20));
        peers[4]->command(PlayCommand("cam"));
        for (const size_t step : {2 * round, 2 * round + 1}) {
            peers.push_back(PeerOf(*server, GetParam().steady));
            EXPECT_NO_THROW(kLeavingSteps[step % kStepsBeforePlaying](*peers.back())) << "step " << step;
        }
        std::rotate(peers.begin(), peers.begin() + static_cast<ptrdiff_t>(round % peers.size()), peers.end());
    }
    // On a thread of their own; some have gone when it begins, some have not.
    void leaveMeanwhile(const std::function<void()> &end, size_t gone)
    {
        std::atomic<size_t> left = 0;
        std::thread leaving([&] {
            for (const std::unique_ptr<ScriptedPeer> &peer : peers) {
                GetParam().reset ? peer->socket.reset() : peer->socket.leave();
                ++left;
            }
        });
        EXPECT_TRUE(WaitUntil([&] { return left >= gone; }));
        end();
        leaving.join();
        peers.clear();
    }
    std::unique_ptr<TestServer> server;
    std::vector<std::unique_ptr<ScriptedPeer>> peers;
};

constexpr size_t kRudeRounds = 12;
static_assert(2 * kRudeRounds >= kStepsBeforePlaying);

} // namespace

TEST_P(RudePeers, ThatLeaveWhileTheirSessionGoesHarmNobody)
{
    RtmpSession *other = server->session("other");
    const std::unique_ptr<ScriptedPeer> watcher = PeerOf(*server, GetParam().steady);
    watcher->playing("other");
    for (size_t round = 0; round < kRudeRounds; round++) {
        RtmpSession *session = server->session("cam");
        come(round);
        (void)SendVideo(session, VideoFrame(5000, kKeyNal), 1000);
        leaveMeanwhile([&] { EXPECT_EQ(RtmpSessionDestroy(session), 0); }, round % 8);
        EXPECT_EQ(SendVideo(other, VideoFrame(64, kKeyNal), 1000 + 40 * round), 0);
        EXPECT_EQ(watcher->read().payload.size(), 69U);
    }
}

TEST_P(RudePeers, ThatLeaveWhileTheServerGoesHarmNobody)
{
    for (size_t round = 0; round < kRudeRounds; round++) {
        RtmpSession *session = server->session("cam");
        come(round);
        (void)SendVideo(session, VideoFrame(5000, kKeyNal), 1000);
        leaveMeanwhile([&] { EXPECT_EQ(server->destroy(), 0); }, round % 8);
        server = ServerOf(GetParam());
    }
}

TEST_P(RudePeers, ThatLeaveAtEveryStepCostAPlayerNothing)
{
    RtmpSession *session = server->session("cam");
    const std::unique_ptr<ScriptedPeer> player = PeerOf(*server, GetParam().steady);
    player->socket.keepRecord(false);
    player->playing("cam");
    std::atomic<bool> done = false, lastIsSent = false;
    std::atomic<uint64_t> sent = 0, seen = 0;
    std::thread host([&] {
        Patience ahead;
        for (uint64_t time = 1000; !done; ahead.pause()) {
            if (sent - seen < 8) {
                (void)SendVideo(session, VideoFrame(700, kKeyNal), time += 20); // -1: one of the leavers
                ++sent;
                ahead.reset();
            }
        }
    });
    std::thread watching(OnAThread([&] {
        Patience behind;
        for (; !lastIsSent || seen < sent; behind.pause()) {
            if (seen < sent) {
                EXPECT_EQ(player->read().payload.size(), 705U);
                ++seen;
                behind.reset();
            }
        }
    }));
    OnAThread([&] {
        for (size_t step = 0; step < kLeavingStepCount; step++) {
            SCOPED_TRACE(step);
            const std::unique_ptr<ScriptedPeer> peer = PeerOf(*server, GetParam().steady);
            kLeavingSteps[step](*peer);
            GetParam().reset ? peer->socket.reset() : peer->socket.leave();
        }
    })(); // the threads are joined, whatever becomes of it
    done = true;
    host.join();
    lastIsSent = true;
    watching.join();
    EXPECT_EQ(sent, seen);
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&session->ClientCount) == 1; }));
}

INSTANTIATE_TEST_SUITE_P(On, RudePeers, testing::ValuesIn(kRudeRoads),
                         [](const testing::TestParamInfo<RudeRoad> &row) { return row.param.name; });

// By default the host waits for it; nothing is lost.
TEST(BurstyReader, OfTheExactRoadGetsEveryFrame)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer player(server.port);
    player.socket.keepRecord(false);
    player.playing("cam");
    constexpr int kFrames = 120;
    constexpr size_t kLength = 40000;
    std::atomic<bool> done = false;
    std::thread host([&] {
        for (uint8_t i = 0; i < kFrames; i++) {
            EXPECT_EQ(SendVideo(session, VideoFrame(kLength, kKeyNal, i), 1000 + i * uint64_t{40}), 0);
        }
        done = true;
    });
    OnAThread([&] {
        for (int seen = 0; seen < kFrames;) {
            // How much a socket takes that nobody reads is the kernel's affair: then the host waits, and so
            // much for this pause.
            (void)WaitUntil([&] { return done || UnreadBytes(player.socket.descriptor()) > 30000; }, 100);
            for (int burst = 0; burst < 15 && seen < kFrames; burst++, seen++) {
                EXPECT_TRUE(Same(Slice(player.read().payload, 5, kLength),
                                 VideoFrame(kLength, kKeyNal, static_cast<uint8_t>(seen))));
            }
        }
    })();
    player.socket.leave(); // where it was in vain, the host waits for it
    host.join();
}

TEST(SlowHandshake, OfAByteAtATimeHasNoMoreTimeThanAnother)
{
    SteadyTestServer server(steady::With(&RtmpServiceLimits::HandshakeMilliseconds, 500));
    ByteSocket peer(server.port);
    const Bytes bytes(3073, 3); // never sent whole: ten milliseconds and more for each
    size_t sent = 0;
    for (; sent < bytes.size(); sent++) {
        pollfd ready = {peer.descriptor(), POLLIN, 0};
        uint8_t ignored[4096];
        if (poll(&ready, 1, 10) > 0 && recv(peer.descriptor(), ignored, sizeof ignored, MSG_DONTWAIT) <= 0) {
            break; // the end
        }
        (void)::send(peer.descriptor(), bytes.data() + sent, 1, MSG_NOSIGNAL);
    }
    EXPECT_LT(sent, 1000U);
    EXPECT_TRUE(server.log.waitForCount("leaves: its handshake took too long", 1));
}

namespace {

constexpr size_t kCrowd = 200;

// Connections to the second port that say nothing, while a player gets a frame for each.
class CrowdAndPlayer {
  public:
    CrowdAndPlayer(TwoPorts &ports, bool steady) : session_(NewSession(ports.server)), player_(ports.port)
    {
        player_.chunks.standard = steady;
        player_.playing("cam");
        for (size_t i = 0; i < kCrowd; i++) {
            crowd.push_back(std::make_unique<ByteSocket>(ports.tunnelPort));
            // The exact road's listener drops whoever comes while ten wait, and a second is lost.
            EXPECT_TRUE(steady || ports.log.waitForCount("Waiting for RTMPT client connection on", i + 2));
            expectAFrame();
        }
    }
    void expectAFrame()
    {
        EXPECT_EQ(SendVideo(session_, VideoFrame(64, kKeyNal), time_ += 40), 0);
        EXPECT_EQ(player_.read().payload.size(), 69U);
    }
    std::vector<std::unique_ptr<ByteSocket>> crowd;

  private:
    RtmpSession *const session_;
    ScriptedPeer player_;
    uint64_t time_ = 1000;
};

} // namespace

TEST(IdleCrowd, OnTheSecondPortCostsPlayersNothingAndGoesWhenItsTimeIsUp)
{
    RtmpServiceLimits limits = steady::With(&RtmpServiceLimits::MostClientsPerAddress, 2 * kCrowd);
    limits.TunnelMilliseconds = 1000;
    TwoPorts server(limits);
    const size_t descriptors = OpenDescriptors();
    {
        CrowdAndPlayer there(server, true);
        for (const std::unique_ptr<ByteSocket> &idle : there.crowd) {
            EXPECT_TRUE(idle->ends());
            there.expectAFrame();
        }
    }
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; }));
}

// There it stays, with a thread and a socket each.
TEST(IdleCrowd, OnTheSecondPortOfTheExactRoadCostsPlayersNothing)
{
    TwoPorts server;
    CrowdAndPlayer there(server, false);
    there.expectAFrame();
}
