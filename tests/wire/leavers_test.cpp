// Thousands of connections that leave in the middle of every step, while a player misses no frame.
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <array>
#include <atomic>
#include <sys/resource.h>
#include <thread>

using namespace wire;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kConnections =
    1000; // 18 rounds of both ways out of each step, where each costs ten times as much
#else
constexpr size_t kConnections = 10000;
#endif
constexpr size_t kWorkers = 3;
constexpr size_t kFramesAhead = 8; // frames on their way to the player

// Ended connections leave their descriptors open, by design.
void RaiseDescriptorLimit()
{
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = kConnections + 500;
    limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0)
        << "this test needs " << limit.rlim_cur << " descriptors (ulimit -n)";
}

// Lines would be a gigabyte: only the ends are counted, by the server's own relay.
void Drop(void *, uint8_t, const char *, va_list) {}

void HalfOf(ScriptedPeer &peer, const Bytes &command)
{
    const Bytes bytes = Chunks({.payload = command});
    peer.socket.send(Slice(bytes, 0, bytes.size() / 2));
}

void StartToPlay(ScriptedPeer &peer)
{
    peer.created();
    peer.command(PlayCommand("cam"));
}

void Playing(ScriptedPeer &peer)
{
    StartToPlay(peer);
    peer.read(7);
}

using Step = void (*)(ScriptedPeer &);

constexpr Step kSteps[] = {
    [](ScriptedPeer &) {},
    [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 1}); },
    [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 800}); },
    [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 1537}); },
    [](ScriptedPeer &peer) { peer.handshake({.scheme = 2, .stopAfter = 2500}); },
    [](ScriptedPeer &peer) { peer.handshake({.scheme = 2}); },
    [](ScriptedPeer &peer) { peer.handshake({.signC2 = false}); },
    [](ScriptedPeer &peer) {
        peer.handshake(), peer.socket.send({0x03, 0x00});
    },
    [](ScriptedPeer &peer) { peer.handshake(), HalfOf(peer, ConnectCommand()); },
    [](ScriptedPeer &peer) { peer.handshake(), peer.command(ConnectCommand()); },
    [](ScriptedPeer &peer) { peer.handshake(), peer.command(ConnectCommand("vod")); },
    [](ScriptedPeer &peer) { peer.connected(); },
    [](ScriptedPeer &peer) { peer.connected(), HalfOf(peer, CreateStreamCommand()); },
    [](ScriptedPeer &peer) { peer.created(); },
    [](ScriptedPeer &peer) { peer.created(), HalfOf(peer, PlayCommand("cam")); },
    [](ScriptedPeer &peer) { peer.created(), peer.command(PlayCommand("nobody")); },
    [](ScriptedPeer &peer) { peer.handshake(), peer.command(PlayCommand("cam")); },
    [](ScriptedPeer &peer) { StartToPlay(peer); },
    [](ScriptedPeer &peer) { StartToPlay(peer), peer.read(3); },
    [](ScriptedPeer &peer) { Playing(peer); },
    [](ScriptedPeer &peer) { Playing(peer), peer.read(1), peer.socket.receive(10); }, // within a frame
    [](ScriptedPeer &peer) { Playing(peer), HalfOf(peer, PauseCommand(true)); },
    [](ScriptedPeer &peer) { Playing(peer), peer.command(PauseCommand(true)); },
    [](ScriptedPeer &peer) {
        Playing(peer);
        peer.command(PauseCommand(true)), peer.command(PauseCommand(false));
    },
    [](ScriptedPeer &peer) { Playing(peer), peer.command(PlayCommand("cam")); },
    [](ScriptedPeer &peer) { Playing(peer), peer.command(DeleteStreamCommand()); },
    [](ScriptedPeer &peer) { Playing(peer), peer.send({.payload = {1}, .type = 9}); },
};
constexpr size_t kStepCount = sizeof kSteps / sizeof kSteps[0];

void RunConnections(uint16_t port, size_t worker, std::atomic<size_t> &failures)
{
    for (size_t i = worker; i < kConnections; i += kWorkers) {
        try {
            ScriptedPeer peer(port);
            peer.socket.keepRecord(false);
            kSteps[i % kStepCount](peer);
            i / kStepCount % 2 == 0 ? peer.socket.leave() : peer.socket.reset();
        } catch (const PeerError &error) {
            ++failures;
            ADD_FAILURE() << "connection " << i << ", step " << i % kStepCount << ": " << error.what();
        }
    }
}

Bytes NumberedFrame(uint32_t number)
{
    Bytes frame = VideoFrame(700, OrdinaryNal(), static_cast<uint8_t>(number));
    const Bytes text = BigEndian(number, 4);
    std::copy(text.begin(), text.end(), frame.begin() + 5);
    return frame;
}

} // namespace

TEST(WireLeavers, ManyConnectionsLeaveInTheMiddleOfEveryStepAndAPlayerMissesNothing)
{
    RaiseDescriptorLimit();
    RtmpLogger quiet = {&Drop, &quiet};
    TestServer server(4096, &quiet);
    RtmpSession *session = server.session("cam");
    ScriptedPeer player(server.port);
    player.socket.keepRecord(false);
    player.playing("cam");

    std::atomic<bool> done = false, lastIsSent = false;
    std::atomic<size_t> failures = 0;
    std::atomic<uint32_t> sent = 0, received = 0;
    std::thread host([&] {
        Patience ahead;
        while (!done) {
            if (sent - received < kFramesAhead) {
                const int result = SendVideo(session, NumberedFrame(sent), 1000 + uint64_t{sent} * 20);
                ASSERT_TRUE(result == 0 || result == -1) << result; // -1: one of the leavers
                ++sent;
                ahead.reset();
            } else {
                ahead.pause();
            }
        }
    });
    std::thread watching([&] {
        Patience behind;
        while (!lastIsSent || received < sent) {
            if (received < sent) {
                const Message message = player.read();
                ASSERT_TRUE(Same(Slice(message.payload, 5, 700), NumberedFrame(received)));
                ++received;
                behind.reset();
            } else {
                behind.pause();
            }
        }
    });
    std::vector<std::thread> workers;
    for (size_t worker = 0; worker < kWorkers; ++worker) {
        workers.emplace_back(RunConnections, server.port, worker, std::ref(failures));
    }
    for (std::thread &worker : workers) {
        worker.join();
    }
    done = true;
    host.join();
    lastIsSent = true;
    watching.join();
    EXPECT_EQ(failures, 0U);
    EXPECT_EQ(received, sent);
    EXPECT_GT(sent, kConnections / 10);
    RecordProperty("frames", static_cast<int>(sent));

    // And the server is as good as new.
    ScriptedPeer late(server.port);
    late.playing("cam");
    EXPECT_EQ(SendVideo(session, NumberedFrame(7), 100000000), 0);
    EXPECT_TRUE(Same(Slice(late.read().payload, 5, 700), NumberedFrame(7)));
}
