#include "support/storm.h"

#include "support/frame_calls.h"
#include "support/unread.h"
#include "support/wait.h"
#include "support/wire_replies.h"

#include <algorithm>
#include <cstdlib>
#include <random>
#include <unistd.h>

using namespace wire;

namespace storm {
namespace {

constexpr const char *kStormNames[] = {"one", "two"};
constexpr uint8_t kKeyPicture = 0x65, kInterPicture = 0x41;

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

void DropLine(void *, uint8_t, const char *, va_list) {}

// Frames of one session from a thread of their own, until they are told to end, which may be in the middle of
// one.
class FrameSource {
  public:
    FrameSource(RtmpSession *session, uint32_t seed)
        : session_(session), thread_([this, seed] { sendFrames(seed); })
    {
    }
    ~FrameSource()
    {
        thread_.join();
    }
    FrameSource(const FrameSource &) = delete;
    FrameSource &operator=(const FrameSource &) = delete;

    void tellToEnd()
    {
        EXPECT_TRUE(calls_.end(session_));
    }

  private:
    void sendFrames(uint32_t seed)
    {
        Chances chances(seed);
        const Bytes sound = Counting(200);
        bool goesOn = true;
        for (uint64_t i = 0; goesOn; i++, Pace()) {
            const size_t length = static_cast<size_t>(10 + chances.below(20000));
            const Bytes picture = VideoFrame(length, i % 12 == 0 ? kKeyPicture : kInterPicture);
            const uint64_t time = 1000 + 40 * i;
            // What they answer depends on who has just left.
            goesOn = calls_.make([&] { (void)SendVideo(session_, picture, time); }) &&
                     calls_.make([&] { (void)SendAudio(session_, sound, time + 10); });
            if (goesOn && i % 16 == 15) { // a failed send has ended the threaded sender by then, as a rule
                goesOn = calls_.make([&] { EXPECT_EQ(RtmpThreadedQueueReset(session_), 0); });
            }
        }
    }

    RtmpSession *const session_;
    FrameCalls calls_;
    std::thread thread_; // the last: it uses the others
};

// Commands that make no sense where the player is.
void AskForNonsense(ScriptedPeer &peer, Chances &chances)
{
    using namespace amf0;
    const Bytes nonsense[] = {
        Values({String("seek"), Number(9), Null(), Number(1)}).bytes,
        Values({String("publish"), Number(9), Null()}).bytes,
        ConnectCommand(),
        Values({String("closeStream"), Number(0), Null()}).bytes,
    };
    peer.command(CreateStreamCommand());
    peer.command(nonsense[chances.below(std::size(nonsense))]);
}

void ReadSome(ScriptedPeer &peer, int most)
{
    for (int i = 0; i < most; i++) {
        (void)peer.read();
    }
}

// Takes nothing until its own buffer is full, so that whoever writes to it waits.
void TakeNothing(const ScriptedPeer &peer, int patienceMs)
{
    constexpr int kFull = 100000;
    (void)WaitUntil([&] { return UnreadBytes(peer.socket.descriptor()) > kFull; },
                    patienceMs / 10); // else nobody sent that much
}

enum Manner : int {
    kHalfAHandshake,
    kUnknownStream,
    kNonsense,
    kReset,
    kPauses,
    kHalfAMessage,
    kDeletesStream,
    kPings,
    kPlaysAgain,
    kTakesNothing,
    kStays,
    kManners,
};

// What follows when the player is in a session.
void MisbehaveInSession(ScriptedPeer &peer, int manner, const std::string &name, int patienceMs)
{
    switch (manner) {
    case kReset:
        return peer.socket.reset();
    case kPauses:
        peer.command(PauseCommand(true));
        peer.command(PauseCommand(false));
        peer.command(PauseCommand(true));
        peer.command(PauseCommand(false));
        return ReadSome(peer, 40);
    case kHalfAMessage:
        peer.socket.send(Slice(Chunks({.payload = PauseCommand(true)}), 0, 5));
        return peer.socket.reset();
    case kDeletesStream:
        peer.command(DeleteStreamCommand());
        return ReadSome(peer, 1000);
    case kPings: // and no ear for the answers
        for (uint32_t i = 0; i < 100; i++) {
            peer.pingRequest(i);
        }
        return peer.socket.reset();
    case kPlaysAgain:
        peer.command(PlayCommand(name));
        ReadSome(peer, 30);
        return peer.socket.leave();
    case kTakesNothing:
        TakeNothing(peer, patienceMs);
        return peer.socket.reset();
    default: // stays until the session ends
        return ReadSome(peer, 100000);
    }
}

// What one player does with one connection. PeerError: the server, or the end of a session, cut it short.
void Misbehave(uint16_t port, Chances &chances, Weather &weather)
{
    ScriptedPeer peer(port, weather.patienceMs);
    peer.chunks.standard = true;
    peer.socket.keepRecord(false);
    const std::string name = kStormNames[chances.below(2)];
    int manner = chances.below(kManners);
    if ((manner == kUnknownStream || manner == kNonsense) && weather.refusals-- <= 0) {
        manner = kReset;
    }
    if (manner == kHalfAHandshake) {
        peer.handshake({.stopAfter = static_cast<size_t>(chances.below(3073))});
        return peer.socket.reset();
    }
    peer.created();
    if (manner == kUnknownStream) { // and more behind it
        peer.command(PlayCommand("nothing"));
        peer.command(PlayCommand(name));
        return ReadSome(peer, 100);
    }
    peer.command(PlayCommand(name));
    ReadSome(peer, 10 + chances.below(40));
    if (manner == kNonsense) {
        AskForNonsense(peer, chances);
        return ReadSome(peer, 20);
    }
    MisbehaveInSession(peer, manner, name, weather.patienceMs);
}

void KeepMisbehaving(uint16_t port, uint32_t seed, const std::atomic<bool> &stop, Weather &weather)
{
    Chances chances(seed);
    while (!stop) {
        try {
            Misbehave(port, chances, weather);
            weather.counts.undisturbed++;
        } catch (const PeerError &) {
            // cut short
        }
        weather.counts.visits++;
    }
}

} // namespace

// One of the two sessions that come and go.
class Storm::Host {
  public:
    Host(TestServer &server, int which, uint32_t seed, const std::atomic<bool> &stop, Counts &counts)
        : thread_([&, which, seed] { keepRemaking(server, which, seed, stop, counts); })
    {
    }
    void end()
    {
        thread_.join();
        if (frames_ != nullptr) {
            frames_->tellToEnd();
        }
    }

  private:
    // The last session stays, with frames on their way.
    void keepRemaking(TestServer &server, int which, uint32_t seed, const std::atomic<bool> &stop,
                      Counts &counts)
    {
        Chances chances(seed);
        SessionSetup setup;
        setup.mode = which == 0 ? 0 : RTMP_SENDER_THREADED;
        RtmpSession *session = nullptr;
        while (!stop) {
            if (session != nullptr) {
                destroy(session);
            }
            session = server.session(kStormNames[which], setup);
            counts.sessions++;
            frames_ = std::make_unique<FrameSource>(session, seed + 1);
            const int rounds = 20 + chances.below(100);
            for (int i = 0; i < rounds && !stop; i++) {
                Pace();
            }
        }
    }
    void destroy(RtmpSession *session)
    {
        const auto begun = std::chrono::steady_clock::now();
        frames_->tellToEnd();
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(30));
        frames_ = nullptr;
    }

    std::unique_ptr<FrameSource> frames_;
    std::thread thread_;
};

int Seconds()
{
    const char *asked = getenv("RTMPCAST_STORM_SECONDS");
    return asked != nullptr ? atoi(asked) : 2;
}

RtmpLogger *Silence()
{
    static RtmpLogger nothing = {DropLine, &nothing};
    return &nothing;
}

void RunFirstThread()
{
    pid_t id = 0;
    std::thread([&id] { id = gettid(); }).join();
    const std::string entry = "/proc/self/task/" + std::to_string(id);
    ASSERT_TRUE(WaitUntil([&] { return access(entry.c_str(), F_OK) != 0; }));
}

Storm::Storm(TestServer &server, Weather &weather, uint32_t seed)
{
    for (uint32_t which = 0; which < hosts_.size(); which++) {
        hosts_[which] =
            std::make_unique<Host>(server, static_cast<int>(which), seed + which, stop_, weather.counts);
    }
    for (uint32_t i = 0; i < kRudePlayers; i++) {
        players_.emplace_back([this, i, seed, port = server.port, &weather] {
            KeepMisbehaving(port, seed + 100 + i, stop_, weather);
        });
    }
}

void Storm::endHosts()
{
    stop_ = true;
    for (std::unique_ptr<Host> &each : hosts_) {
        each->end();
    }
}

Storm::~Storm()
{
    for (std::thread &each : players_) {
        each.join();
    }
}

QuietPlayer::QuietPlayer(const TestServer &server, RtmpSession *session, bool readsByTheBook)
    : watcher_(OnAThread([this, port = server.port, readsByTheBook] { watch(port, readsByTheBook); })),
      encoder_([this, session] { encode(session); })
{
}

QuietPlayer::~QuietPlayer()
{
    finish();
}

void QuietPlayer::finish()
{
    stop_ = true;
    if (encoder_.joinable()) {
        encoder_.join();
        watcher_.join();
    }
}

namespace {

constexpr size_t kLastFrame = 50; // its length; those of all others count up from 100
constexpr uint64_t kFrameTime = 40;

bool IsPicture(const Message &message)
{
    return message.type == 9 && message.payload.size() > 1 && message.payload[1] == 1; // no sequence header
}

} // namespace

// The encoder stays so near to the player that the steady road's ring of 8 s, which is 200 of these frames,
// cannot run out however the machine divides its time: who falls out of the ring goes on at a key frame.
void QuietPlayer::encode(RtmpSession *session)
{
    constexpr uint64_t kFramesAhead = 100;
    EXPECT_TRUE(WaitUntil([&] { return isPlaying_.load(); }));
    uint64_t number = 0;
    for (; !stop_; number++, Pace()) {
        while (number - seen_ > kFramesAhead && !stop_) {
            Pace();
        }
        const uint8_t nal = number % 10 == 0 ? kKeyPicture : kInterPicture;
        EXPECT_EQ(SendVideo(session, VideoFrame(100 + number % 1000, nal), 1000 + kFrameTime * number), 0);
    }
    EXPECT_EQ(SendVideo(session, VideoFrame(kLastFrame, kKeyPicture), 1000 + kFrameTime * number), 0);
}

void QuietPlayer::watch(uint16_t port, bool readsByTheBook)
{
    constexpr size_t kTagHeader = 5;
    ScriptedPeer player(port);
    player.chunks.standard = player.chunks.standard || readsByTheBook;
    player.socket.keepRecord(false);
    player.playing(kQuietName);
    isPlaying_ = true;
    uint32_t first = 0;
    for (size_t length = 0; length != kLastFrame + kTagHeader; seen_++) {
        Message message = player.read();
        while (!IsPicture(message)) {
            message = player.read();
        }
        first = seen_ == 0 ? message.timestamp : first;
        length = message.payload.size();
        EXPECT_EQ(message.timestamp, first + kFrameTime * seen_);
        EXPECT_TRUE(length == 100 + seen_ % 1000 + kTagHeader || length == kLastFrame + kTagHeader) << seen_;
    }
}

} // namespace storm
