// A storm: players that join, leave rudely, pause and ask for nonsense, while two sessions in the two sender
// modes are destroyed and made again; and a player that notices nothing of it. RTMPCAST_STORM_SECONDS in the
// environment makes it longer.
#include "steady_server.h"

#include "rtmpcast/media.h"

#include <algorithm>
#include <cstdlib>
#include <random>
#include <thread>
#include <unistd.h>

using namespace steady;
using namespace wire;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRudePlayers = 20;
constexpr uint64_t kQuietFrames = 100; // at least
constexpr const char *kNames[] = {"one", "two"};

int Seconds()
{
    const char *asked = getenv("RTMPCAST_STORM_SECONDS");
    return asked != nullptr ? atoi(asked) : 2;
}

void DropLine(void *, uint8_t, const char *, va_list) {}

// A thread's own chances.
class Chances {
  public:
    explicit Chances(uint32_t seed) : generator_(seed) {}
    int below(int bound)
    {
        return std::uniform_int_distribution<int>(0, bound - 1)(generator_);
    }

  private:
    std::mt19937 generator_;
};

// An encoder's pace.
void Pace()
{
    poll(nullptr, 0, 2);
}

void SendSome(RtmpSession *session, int frames, Chances &chances)
{
    for (int i = 0; i < frames; i++) {
        const uint64_t time = static_cast<uint64_t>(1000 + 40 * i);
        const size_t length = static_cast<size_t>(10 + chances.below(20000));
        (void)SendVideo(session, VideoFrame(length, i % 12 == 0 ? kKey : kInter), time);
        (void)SendAudio(session, Counting(200), time + 10);
        Pace();
    }
}

// One of the two sessions that come and go.
void KeepRemaking(Server &server, int which, const std::atomic<bool> &stop)
{
    Chances chances(static_cast<uint32_t>(which));
    SessionSetup setup;
    setup.mode = which == 0 ? 0 : RTMP_SENDER_THREADED;
    while (!stop) {
        RtmpSession *session = server.session(kNames[which], setup);
        SendSome(session, 20 + chances.below(100), chances);
        const auto begun = Clock::now();
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
        EXPECT_LT(Clock::now() - begun, std::chrono::seconds(10));
    }
}

void ReadSome(ScriptedPeer &peer, int most)
{
    for (int i = 0; i < most; i++) {
        (void)peer.read();
    }
}

// What one player does with one connection. PeerError: the server, or the end of a session, cut it short.
void Misbehave(uint16_t port, Chances &chances)
{
    ScriptedPeer peer(port, 3000);
    peer.chunks.standard = true;
    peer.socket.keepRecord(false);
    const std::string name = kNames[chances.below(2)];
    const int manner = chances.below(10);
    if (manner == 0) { // half a handshake
        peer.handshake({.stopAfter = static_cast<size_t>(chances.below(3073))});
        return peer.socket.reset();
    }
    peer.created();
    if (manner == 1) { // an unknown stream, and more behind it
        peer.command(PlayCommand("nothing"));
        peer.command(PlayCommand(name));
        return ReadSome(peer, 100);
    }
    peer.command(PlayCommand(name));
    ReadSome(peer, 10 + chances.below(40));
    switch (manner) {
    case 2:
        return peer.socket.reset();
    case 3:
        peer.command(PauseCommand(true));
        peer.command(PauseCommand(false));
        peer.command(PauseCommand(true));
        peer.command(PauseCommand(false));
        return ReadSome(peer, 40);
    case 4: // commands that make no sense here
        peer.command(CreateStreamCommand());
        peer.command(
            amf0::Values({amf0::String("seek"), amf0::Number(9), amf0::Null(), amf0::Number(1)}).bytes);
        peer.command(amf0::Values({amf0::String("publish"), amf0::Number(9), amf0::Null()}).bytes);
        return ReadSome(peer, 20);
    case 5: // half a message
        peer.socket.send(Slice(Chunks({.payload = PauseCommand(true)}), 0, 5));
        return peer.socket.reset();
    case 6:
        peer.command(DeleteStreamCommand());
        return ReadSome(peer, 1000);
    case 7: // pings, and no ear for the answers
        for (uint32_t i = 0; i < 100; i++) {
            peer.pingRequest(i);
        }
        return peer.socket.reset();
    case 8:
        peer.command(PlayCommand(name));
        ReadSome(peer, 30);
        return peer.socket.leave();
    default: // stays until the session ends
        return ReadSome(peer, 100000);
    }
}

void KeepMisbehaving(uint16_t port, uint32_t seed, const std::atomic<bool> &stop, std::atomic<int> &visits)
{
    Chances chances(seed);
    while (!stop) {
        try {
            Misbehave(port, chances);
        } catch (const PeerError &) {
            // cut short
        }
        visits++;
    }
}

// Frames whose lengths count; the player reads them all, up to the one that has no number. The encoder stays
// so near to it that the ring of 8 s, which is 200 of these frames, cannot run out however the machine
// divides its time: who falls out of the ring goes on at a key frame.
void WatchQuietly(const Server &server, RtmpSession *session, const std::atomic<bool> &stop,
                  std::atomic<uint64_t> &seen)
{
    constexpr size_t kLast = 50;
    constexpr uint64_t kFramesAhead = 100;
    ScriptedPlayer player(server);
    player.playing("quiet");
    std::thread encoder([&] {
        uint64_t number = 0;
        for (; !stop; number++, Pace()) {
            while (number - seen > kFramesAhead) {
                Pace();
            }
            const uint8_t nal = number % 10 == 0 ? kKey : kInter;
            EXPECT_EQ(SendVideo(session, VideoFrame(100 + number % 1000, nal), 1000 + 40 * number), 0);
        }
        EXPECT_EQ(SendVideo(session, VideoFrame(kLast, kKey), 1000 + 40 * number), 0);
    });
    size_t length = 0;
    for (; length != kLast + 5; seen++) {
        const Message message = player.frame();
        length = message.payload.size();
        EXPECT_EQ(message.timestamp, 40 * seen);
        EXPECT_TRUE(length == 105 + seen % 1000 || length == kLast + 5) << seen;
    }
    encoder.join();
}

// A sanitizer's own thread comes with the first. That one is gone only some time after it has been joined,
// above all under an emulator, and would be counted as one of those that run before the storm.
void RunFirstThread()
{
    pid_t id = 0;
    std::thread([&id] { id = gettid(); }).join();
    const std::string entry = "/proc/self/task/" + std::to_string(id);
    ASSERT_TRUE(WaitUntil([&] { return access(entry.c_str(), F_OK) != 0; }));
}

} // namespace

TEST(Storm, EverybodyIsServedAndNothingIsLeftOver)
{
    RtmpLogger nothing = {DropLine, nullptr};
    RunFirstThread();
    const size_t descriptors = OpenDescriptors();
    const size_t threads = RunningThreads();
    std::atomic<int> visits = 0;
    {
        Server server({}, 4096, &nothing);
        RtmpSession *quiet = server.session("quiet");
        std::atomic<bool> stop = false, stopQuiet = false;
        std::vector<std::thread> hosts, players;
        for (int which = 0; which < 2; which++) {
            hosts.emplace_back([&, which] { KeepRemaking(server, which, stop); });
        }
        for (uint32_t seed = 0; seed < kRudePlayers; seed++) {
            players.emplace_back([&, seed] { KeepMisbehaving(server.port, 100 + seed, stop, visits); });
        }
        std::atomic<uint64_t> seen = 0;
        std::thread watcher([&] { WatchQuietly(server, quiet, stopQuiet, seen); });
        const auto end = Clock::now() + std::chrono::seconds(Seconds());
        const auto isOver = [&] {
            return Clock::now() > end && visits > kRudePlayers && seen > kQuietFrames;
        };
        EXPECT_TRUE(WaitUntil(isOver, (Seconds() + 60) * 1000)) << visits << " visits, " << seen << " frames";
        stop = true;
        for (std::thread &each : hosts) {
            each.join();
        }
        for (std::thread &each : players) {
            each.join();
        }
        stopQuiet = true;
        watcher.join();
        EXPECT_EQ(RtmpSessionDestroy(quiet), 0);
        EXPECT_EQ(server.destroy(), 0);
    }
    std::cout << visits << " visits\n";
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; })) << OpenDescriptors();
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() == threads; })) << RunningThreads();
}
