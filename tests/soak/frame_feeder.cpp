#include "soak/frame_feeder.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace soak {
namespace {

constexpr uint64_t kFirstTimestamp = 1000;
// More than the host runs ahead of who records. A slot keeps the room of the largest frame that it ever held,
// and has had a key frame after a minute: what memory the ring takes, it has then.
constexpr uint32_t kRing = kAhead + 15;

} // namespace

FrameFeeder::FrameFeeder(BusyServer &server, const SessionPlan &plan, int lasting, Feed &feed)
    : server_(server), plan_(plan), lasting_(lasting), feed_(feed), mendedFailures_(server.failedSenders)
{
    int error = 0;
    session = RtmpSessionCreate(server.server, plan.name, &error);
    if (session == nullptr) {
        fprintf(stderr, "soak_host: no session %s: %d\n", plan.name, error);
        exit(1);
    }
    ++feed_.sessions;
    RtmpSenderSettings(session, plan.mode, 0, 0, 1, 255, 5, kRing, kRing);
    describe();
    thread_ = std::thread([this] { run(); });
}

FrameFeeder::~FrameFeeder()
{
    {
        const std::lock_guard<std::mutex> held(mutex_);
        stop_ = true;
    }
    stopped_.notify_all();
    thread_.join();
    feed_.dropped += droppedFrames();
    const int result = RtmpSessionDestroy(session);
    if (result != 0) {
        fprintf(stderr, "soak_host: RtmpSessionDestroy: %d\n", result);
        exit(1);
    }
}

uint64_t FrameFeeder::droppedFrames() const
{
    RtmpSessionFigures figures = {};
    return RtmpSessionStatistics(session, &figures) == 0 ? figures.DroppedFrames : 0;
}

void FrameFeeder::describe() const
{
    const std::vector<uint8_t> sets = ParameterSetsOfTheClip();
    const std::vector<uint8_t> config = SoundConfig();
    const VideoMediaInfo video = {7, 300000, {0, 0, 0}, static_cast<int32_t>(sets.size()), sets.data()};
    const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(config.size()), config.data()};
    const int32_t result = RtmpAddMediaInfo(session, &video, plan_.hasSound ? &audio : nullptr);
    if (result != 0) {
        fprintf(stderr, "soak_host: no media: %d\n", result);
        exit(1);
    }
}

bool FrameFeeder::isAheadOfRecorders() const
{
    bool ahead = false;
    for (int each = 0; each < kRecorders && lasting_ >= 0; ++each) {
        const uint64_t received = feed_.progress->pictures[each];
        ahead |= kSessionOf[each] == lasting_ && received != kNotRecording && picture_ > received + kAhead;
    }
    return ahead && feed_.waitsForRecorders;
}

// False: the thread has to end. A machine that is behind does not catch up in a burst.
bool FrameFeeder::waitForTurn(int64_t &due)
{
    std::unique_lock<std::mutex> held(mutex_);
    do {
        const int64_t wait = due - MicrosNow();
        stopped_.wait_for(held, std::chrono::microseconds(wait > 0 ? wait : 0), [this] { return stop_; });
        due = MicrosNow() > due ? MicrosNow() : due;
        due += isAheadOfRecorders() ? 10000 : 0;
    } while (!stop_ && due > MicrosNow());
    due += static_cast<int64_t>(kPictureMs) * 1000;
    return !stop_;
}

void FrameFeeder::run()
{
    int64_t due = MicrosNow();
    while (waitForTurn(due)) {
        sendTurn();
    }
}

// The sound that has come up, and the picture behind it.
void FrameFeeder::sendTurn()
{
    const uint64_t now = picture_ * kPictureMs;
    for (; plan_.hasSound && sound_ * kSoundMs <= now; ++sound_) {
        offer({Kind::Sound, sound_, MicrosNow()}, sound_ * kSoundMs);
    }
    if (static_cast<int64_t>(picture_) != feed_.lostPicture || lasting_ != 4) {
        offer({Kind::Picture, picture_, MicrosNow() - feed_.heldMs * 1000}, now);
    }
    ++picture_;
}

void FrameFeeder::offer(const FrameMark &mark, uint64_t timestamp)
{
    const std::vector<uint8_t> frame = MakeFrame(mark);
    const int32_t result = RtmpSendData(session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0,
                                        kFirstTimestamp + timestamp,
                                        mark.kind == Kind::Picture ? RTMP_FRAME_VIDEO : RTMP_FRAME_AUDIO);
    feed_.frames += result == 0;
    mendSender(result);
}

// The threaded sender of the exact road: what the manual has a host do where a failed send has ended it, and
// where nobody is left.
void FrameFeeder::mendSender(int32_t result)
{
    if (plan_.mode != RTMP_SENDER_THREADED || server_.index == kSteady) {
        return;
    }
    const uint32_t failures = server_.failedSenders;
    const bool hasFailed = plan_.isMended && failures != mendedFailures_;
    const bool isAlone = result == RTMP_ERR_NO_CLIENT && !isFresh_;
    if (hasFailed || isAlone) {
        RtmpThreadedQueueReset(session);
    }
    mendedFailures_ = failures;
    isFresh_ = hasFailed || result == RTMP_ERR_NO_CLIENT;
}

} // namespace soak
