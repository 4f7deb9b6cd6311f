// Thousands of connections that leave in the middle of every step, while a player misses no frame.
#include "support/leaving_steps.h"
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

void RunConnections(uint16_t port, size_t worker, std::atomic<size_t> &failures)
{
    for (size_t i = worker; i < kConnections; i += kWorkers) {
        try {
            ScriptedPeer peer(port);
            peer.socket.keepRecord(false);
            kLeavingSteps[i % kLeavingStepCount](peer);
            i / kLeavingStepCount % 2 == 0 ? peer.socket.leave() : peer.socket.reset();
        } catch (const PeerError &error) {
            ++failures;
            ADD_FAILURE() << "connection " << i << ", step " << i % kLeavingStepCount << ": " << error.what();
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
    std::thread watching(OnAThread([&] {
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
    }));
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
