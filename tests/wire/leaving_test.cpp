// Leaving: sessions and servers destroyed around their players, the client list, descriptors.
#include "support/produced.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <atomic>
#include <memory>
#include <thread>

using namespace wire;

namespace {

struct Stage {
    const char *name;
    void (*reach)(ScriptedPeer &);
    bool joined; // a member of the session "cam"
};

void Join(ScriptedPeer &peer)
{
    peer.handshake();
    peer.command(PlayCommand("cam"));
}

const Stage kStages[] = {
    {"nothing sent", [](ScriptedPeer &) {}, false},
    {"half of C1", [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 700}); }, false},
    {"half of C2", [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 2000}); }, false},
    {"handshake done", [](ScriptedPeer &peer) { peer.handshake(); }, false},
    {"connected", [](ScriptedPeer &peer) { peer.connected(); }, false},
    {"created", [](ScriptedPeer &peer) { peer.created(); }, false},
    {"deleted", [](ScriptedPeer &peer) { peer.created(), peer.command(DeleteStreamCommand()); }, false},
    {"joined in state 2", [](ScriptedPeer &peer) { Join(peer), peer.settle(); }, true},
    {"joined, then connected",
     [](ScriptedPeer &peer) {
         Join(peer);
         peer.command(ConnectCommand());
         peer.read(6);
     },
     true},
    {"joined, then created",
     [](ScriptedPeer &peer) {
         Join(peer);
         peer.command(ConnectCommand());
         peer.read(6);
         peer.command(CreateStreamCommand());
         peer.read();
     },
     true},
    {"playing", [](ScriptedPeer &peer) { peer.playing("cam"); }, true},
    {"playing, half a header sent",
     [](ScriptedPeer &peer) { peer.playing("cam"), peer.socket.send(Hex("030000")); }, true},
    {"playing, half a message sent",
     [](ScriptedPeer &peer) {
         peer.playing("cam");
         peer.socket.send(Slice(Chunks({.payload = ConnectCommand()}), 0, 12 + 128));
     },
     true},
    {"paused",
     [](ScriptedPeer &peer) {
         peer.playing("cam");
         peer.command(PauseCommand(true));
         peer.settle();
     },
     true},
    {"playing again",
     [](ScriptedPeer &peer) {
         peer.playing("cam");
         peer.command(PlayCommand("cam"));
         peer.read(2);
         peer.chunks.restart();
         peer.read(6);
     },
     true},
    {"gone again", [](ScriptedPeer &peer) { peer.playing("cam"), peer.socket.reset(); }, false},
};

// Counted once a thread has been started: a sanitizer adds one of its own then.
size_t ThreadsBefore()
{
    std::thread([] {}).join();
    return RunningThreads();
}

using Peers = std::vector<std::unique_ptr<ScriptedPeer>>;

Peers OneAtEveryStage(uint16_t port)
{
    Peers peers;
    for (const Stage &stage : kStages) {
        SCOPED_TRACE(stage.name);
        peers.push_back(std::make_unique<ScriptedPeer>(port));
        stage.reach(*peers.back());
    }
    return peers;
}

Peers Players(uint16_t port, size_t count)
{
    Peers peers;
    for (size_t i = 0; i < count; ++i) {
        peers.push_back(std::make_unique<ScriptedPeer>(port));
        peers.back()->playing("cam");
    }
    return peers;
}

void PlayPauseAndPlay(uint16_t port)
{
    try {
        ScriptedPeer peer(port);
        peer.playing("cam");
        peer.read(5);
        peer.command(PauseCommand(true));
        while (peer.read().type != 20) {
        }
        EXPECT_TRUE(peer.settle().empty()) << "no frame behind the answer to pause";
        peer.chunks.restart();
        peer.command(PauseCommand(false));
        peer.read(10);
    } catch (const PeerError &error) {
        ADD_FAILURE() << error.what();
    }
}

bool Gets(ScriptedPeer &peer, const Bytes &frame)
{
    return Slice(peer.read().payload, 5, frame.size()) == frame;
}

} // namespace

TEST(WireSessionDestroy, EndsItsPlayersInEveryStateAndNobodyElse)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    RtmpSession *other = server.session("other");
    ScriptedPeer watcher(server.port);
    watcher.playing("other");
    Peers peers = OneAtEveryStage(server.port);
    ASSERT_TRUE(server.log.waitFor("3 ERROR: ServeRtmpClient: Exiting")); // the one that has gone
    server.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    size_t members = 0;
    for (const Stage &stage : kStages) {
        members += stage.joined;
    }
    EXPECT_EQ(server.log.count("Removed client"), members);
    EXPECT_TRUE(server.log.waitForCount("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread", members));
    EXPECT_EQ(ValidateRtmpSessionHandle(server.server, session), -1);
    EXPECT_EQ(ValidateRtmpSessionHandle(server.server, other), 0);
    EXPECT_EQ(SendVideo(other, VideoFrame(20), 1000), 0);
    EXPECT_EQ(watcher.read().type, 9);
    for (const std::unique_ptr<ScriptedPeer> &peer : peers) {
        EXPECT_FALSE(peer->socket.isOpen() && peer->socket.ends(0)) << "descriptors stay open";
    }
    peers[5]->command(PlayCommand("cam")); // created before, and still served
    EXPECT_EQ(peers[5]->read(2).size(), 2U);
    EXPECT_TRUE(peers[5]->socket.ends());
}

TEST(WireSessionDestroy, MayBeFollowedByASessionOfTheSameName)
{
    TestServer server;
    for (int round = 0; round < 5; ++round) {
        RtmpSession *session = server.session("cam");
        Peers players = Players(server.port, 3);
        EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);
        for (const std::unique_ptr<ScriptedPeer> &player : players) {
            EXPECT_EQ(player->read().type, 9);
        }
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
    }
}

// Players that ask for the stream at the very moment at which it goes: either answer will do, a hang not.
TEST(WireSessionDestroy, RacesWithPlayWithoutHanging)
{
    TestServer server;
    for (int round = 0; round < 60; ++round) {
        RtmpSession *session = server.session("cam");
        Peers peers;
        for (int i = 0; i < 4; ++i) {
            peers.push_back(std::make_unique<ScriptedPeer>(server.port));
            peers.back()->created();
        }
        server.log.clear();
        for (const std::unique_ptr<ScriptedPeer> &peer : peers) {
            peer->command(PlayCommand("cam"));
        }
        const size_t heard = static_cast<size_t>(round % 5);
        ASSERT_TRUE(server.log.waitForAtLeast("message: PLAY", heard));
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
    }
}

// A member asks for the list that the destroying thread holds while it waits for that very member.
TEST(WireSessionDestroy, RacesWithARepeatedPlayWithoutHanging)
{
    TestServer server;
    for (int round = 0; round < 40; ++round) {
        RtmpSession *session = server.session("cam");
        Peers players = Players(server.port, 3);
        server.log.clear();
        for (const std::unique_ptr<ScriptedPeer> &player : players) {
            player->command(PlayCommand("cam"));
            player->command(PlayCommand("cam"));
        }
        const size_t heard = static_cast<size_t>(round % 4);
        ASSERT_TRUE(server.log.waitForAtLeast("message: PLAY", heard));
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
    }
}

// Frames go out on one thread while players come, go, pause and play again on others. The first in the list
// stays, so that nobody falls out of it.
TEST(WireSessionDestroy, FollowsALiveStreamWithRestlessPlayers)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer first(server.port);
    first.playing("cam");
    first.command(PauseCommand(true));
    first.settle();
    std::atomic<bool> done = false;
    std::thread host([&] {
        for (uint64_t time = 1000; !done; time += 40) {
            SendAudio(session, Bytes(100, 0xA5), time);
            SendVideo(session, VideoFrame(3000, 0x65), time); // -1 when a player has just gone
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> players;
    for (int i = 0; i < 3; ++i) {
        players.emplace_back([&server] {
            for (int round = 0; round < 15; ++round) {
                PlayPauseAndPlay(server.port);
            }
        });
    }
    for (std::thread &player : players) {
        player.join();
    }
    done = true;
    host.join();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
}

TEST(WireServerDestroy, EndsPlayersAndOutlivesConnectionsThatNeverJoined)
{
    const size_t threads = ThreadsBefore();
    TestServer server;
    server.session("cam");
    Peers peers = OneAtEveryStage(server.port);
    const size_t lines = server.log.lines().size();
    EXPECT_EQ(server.destroy(), 0);
    EXPECT_GE(server.log.lines().size(), lines);
    const size_t last = server.log.lines().size();
    EXPECT_THROW(ScriptedPeer(server.port), PeerError) << "nobody listens";

    // Those that never joined are served as before, with what they need of the server.
    peers[3]->command(ConnectCommand());
    EXPECT_EQ(peers[3]->read(6).size(), 6U);
    peers[4]->command(CreateStreamCommand());
    EXPECT_EQ(peers[4]->read(1).size(), 1U);
    peers[5]->command(PlayCommand("cam"));
    EXPECT_EQ(peers[5]->read(2).size(), 2U);
    EXPECT_TRUE(peers[5]->socket.ends());
    peers.clear();
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads; })) << "every thread ends with its peer";
    EXPECT_EQ(server.log.lines().size(), last) << "the host's logger is not called any more";
}

TEST(WireServerDestroy, WithoutSessionsAndWithoutPlayers)
{
    const size_t threads = ThreadsBefore();
    const size_t descriptors = OpenDescriptors();
    for (int round = 0; round < 20; ++round) {
        TestServer server;
        EXPECT_EQ(server.destroy(), 0);
        EXPECT_TRUE(
            server.log.contains("6 INFO: AcceptRtmpConnectionThread: Exiting RTMP connection accept thread"));
    }
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() <= threads; }));
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(WireServerDestroy, LinesOfItsSessionsGoToStandardOutput)
{
    TestServer server;
    server.session("cam");
    Peers players = Players(server.port, 2);
    testing::internal::CaptureStdout();
    EXPECT_EQ(server.destroy(), 0);
    const std::string out = produced::CapturedStdout();
    EXPECT_NE(out.find("RTMPWriter: INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread\n"),
              std::string::npos);
    EXPECT_NE(out.find("RTMPWriter: INFO: DestroyRtmpClient: Removed client; No. of connected clients : 0\n"),
              std::string::npos);
    EXPECT_FALSE(server.log.contains("SIGUSR1"));
}

TEST(WireClientList, EveryOrderOfLeavingIsNamedInTheLog)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    Peers players = Players(server.port, 3);
    players[1].reset();
    EXPECT_TRUE(server.log.waitFor("6 INFO: DestroyRtmpClient: Removing Middle Node from client list"));
    EXPECT_TRUE(server.log.waitFor("Removed client; No. of connected clients : 2"));
    players[2].reset();
    EXPECT_TRUE(server.log.waitFor("6 INFO: DestroyRtmpClient: Removing Last node from client list"));
    EXPECT_TRUE(server.log.waitFor("Removed client; No. of connected clients : 1"));
    players.push_back(std::make_unique<ScriptedPeer>(server.port));
    players.back()->playing("cam");
    players[0].reset();
    EXPECT_TRUE(server.log.waitFor("6 INFO: DestroyRtmpClient: Removing First node from send pkt list"));
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);
    EXPECT_TRUE(Gets(*players[3], VideoFrame(20)));
    players[3].reset();
    EXPECT_TRUE(server.log.waitFor("6 INFO: DestroyRtmpClient: Only one node is present in send pkt list"));
    EXPECT_TRUE(server.log.waitFor("Removed client; No. of connected clients : 0"));
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1040), RTMP_ERR_NO_CLIENT);
}

// The first of three leaves and makes the second the tail; whoever joins next is linked behind it, and the
// third is no longer reached by frames. It still counts.
TEST(WireClientList, TheThirdOfThreeIsCutOffByANewcomerAfterTheFirstHasLeft)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    Peers players = Players(server.port, 3);
    players[0].reset();
    ASSERT_TRUE(server.log.waitFor("Removed client; No. of connected clients : 2"));
    const Bytes before = VideoFrame(30, OrdinaryNal(), 1), after = VideoFrame(30, OrdinaryNal(), 2);
    EXPECT_EQ(SendVideo(session, before, 1000), 0);
    EXPECT_TRUE(Gets(*players[1], before));
    EXPECT_TRUE(Gets(*players[2], before)) << "still linked behind the second";

    players.push_back(std::make_unique<ScriptedPeer>(server.port));
    players[3]->playing("cam");
    EXPECT_TRUE(server.log.contains("Adding client: No. of connected clients : 3"));
    EXPECT_EQ(SendVideo(session, after, 1040), 0);
    EXPECT_TRUE(Gets(*players[1], after));
    EXPECT_TRUE(Gets(*players[3], after));
    EXPECT_TRUE(players[2]->settle().empty()) << "no frame, and yet it is served";

    server.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    EXPECT_TRUE(server.log.contains("Removed client; No. of connected clients : 0"));
    EXPECT_TRUE(server.log.waitForCount("Exiting ServeRtmpClient thread", 3));
}

TEST(WireClientList, TheOneThatWasCutOffLeavesWithoutHarm)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    Peers players = Players(server.port, 3);
    players[0].reset();
    ASSERT_TRUE(server.log.waitFor("Removed client; No. of connected clients : 2"));
    players.push_back(std::make_unique<ScriptedPeer>(server.port));
    players[3]->playing("cam");
    players[1].reset(); // the neighbour that it was linked with
    ASSERT_TRUE(server.log.waitForCount("Removed client", 2));
    players[2].reset();
    ASSERT_TRUE(server.log.waitForCount("Removed client", 3));
    EXPECT_EQ(SendVideo(session, VideoFrame(30), 1000), 0);
    EXPECT_TRUE(Gets(*players[3], VideoFrame(30))) << "the newcomer is still reached";
    players.push_back(std::make_unique<ScriptedPeer>(server.port));
    players[4]->playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(31), 1040), 0);
    EXPECT_TRUE(Gets(*players[3], VideoFrame(31)));
    EXPECT_TRUE(Gets(*players[4], VideoFrame(31)));
}

TEST(WireDescriptors, ConnectionsThatEndByAReadErrorLeaveTheirsOpen)
{
    TestServer server;
    const size_t before = OpenDescriptors();
    for (size_t gone = 1; gone <= 5; ++gone) {
        {
            ScriptedPeer peer(server.port);
            peer.connected();
        }
        ASSERT_TRUE(server.log.waitForCount("Exiting ServeRtmpClient thread", gone));
        EXPECT_EQ(OpenDescriptors(), before + gone);
    }
}
