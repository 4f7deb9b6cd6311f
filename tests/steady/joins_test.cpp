// Nothing that joins or leaves moves sound against pictures.
#include "steady/steady_server.h"
#include "support/scripted_peer.h"

#include <deque>
#include <memory>
#include <optional>

using namespace wire;

namespace {

constexpr uint64_t kStart = 1000000;
constexpr int kJoins = 500;
constexpr size_t kAtATime = 8;

// Frames that carry the host's time, in the order of the host's clock: a picture every 33 ms, sound every 21.
struct Host {
    explicit Host(RtmpSession *session_) : session(session_) {}
    void sendOne()
    {
        const Bytes time = BigEndian(std::min(nextPicture, nextSound), 4);
        if (nextSound < nextPicture) {
            (void)SendAudio(session, time, nextSound); // also while nobody is connected
            nextSound += 21;
            return;
        }
        Bytes frame = VideoFrame(40, nextPicture % 10 == 0 ? kKeyNal : kInterNal);
        std::copy(time.begin(), time.end(), frame.begin() + 5);
        (void)SendVideo(session, frame, nextPicture);
        nextPicture += 33;
    }
    RtmpSession *session;
    uint64_t nextPicture = kStart;
    uint64_t nextSound = kStart + 7;
};

int64_t HostTimeIn(const Message &message)
{
    const size_t at = message.type == 9 ? 10 : 2;
    int64_t time = 0;
    for (size_t i = 0; i < 4; i++) {
        time = time << 8 | message.payload.at(at + i);
    }
    return time;
}

// How far the player's clock is from the host's, for the first picture and the first sound.
struct Clocks {
    std::optional<int64_t> picture;
    std::optional<int64_t> sound;
};

// In front of each read there is another picture, wherever in the ring the player has begun.
Clocks ReadClocks(ScriptedPeer &peer, Host &host)
{
    Clocks clocks;
    while (!clocks.picture || !clocks.sound) {
        for (int sent = 0; sent < 4; sent++) {
            host.sendOne();
        }
        const Message message = peer.read();
        std::optional<int64_t> &clock = message.type == 9 ? clocks.picture : clocks.sound;
        if (message.type >= 8 && message.type <= 9 && !clock) {
            clock = HostTimeIn(message) - static_cast<int64_t>(message.timestamp);
        }
    }
    return clocks;
}

void JoinAndLeave(uint32_t mode)
{
    SteadyTestServer server;
    Host host(server.session("cam", {.mode = mode}));
    std::deque<std::unique_ptr<ScriptedPeer>> players;
    int64_t apart = 0;
    for (int i = 0; i < kJoins; i++) {
        players.push_back(std::make_unique<ScriptedPeer>(server.port));
        ScriptedPeer &peer = *players.back();
        peer.chunks.standard = true;
        peer.created();
        peer.command(PlayCommand("cam"));
        for (int sent = 0; sent < i % 7; sent++) {
            host.sendOne();
        }
        peer.read(7);
        const Clocks clocks = ReadClocks(peer, host);
        apart = std::max(apart, std::abs(*clocks.picture - *clocks.sound));
        if (players.size() == kAtATime) {
            players.erase(players.begin() + i % static_cast<int>(kAtATime)); // from anywhere in the list
        }
    }
    EXPECT_LE(apart, 40);
}

} // namespace

TEST(SteadyJoins, SoundAndPicturesStayTogetherOver500JoinsOnTheHostsThread)
{
    JoinAndLeave(0);
}

TEST(SteadyJoins, SoundAndPicturesStayTogetherOver500JoinsOnASenderThread)
{
    JoinAndLeave(RTMP_SENDER_THREADED);
}
