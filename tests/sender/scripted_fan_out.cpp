#include "sender/scripted_fan_out.h"

#include "delivery/senders/threaded_queue.h"
#include "net/platform.h"
#include "rtmpcast/media.h"
#include "rtmpcast/sender.h"

#include <cerrno>
#include <unistd.h>

namespace {

// Counts a call that is inside, however it ends.
struct Inside {
    explicit Inside(std::atomic<int> &count) : count_(count)
    {
        count_++;
    }
    ~Inside()
    {
        count_--;
    }
    std::atomic<int> &count_;
};

} // namespace

extern "C" {

int __wrap_SendMsgToConnectedClients(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd,
                                     uint64_t mapBase, uint64_t timestampDelta, uint32_t kind)
{
    const std::string text(reinterpret_cast<const char *>(data), static_cast<size_t>(length));
    return FanOut::get().call(session, {kind, text, timestampDelta, fd, mapBase}, data);
}
}

FanOut &FanOut::get()
{
    static FanOut &script = *new FanOut;
    return script;
}

void FanOut::reset()
{
    release();
    const std::lock_guard<std::mutex> held(mutex_);
    sent_.clear();
    failing_.clear();
    for (int &end : gate_) {
        if (end != -1) {
            close(end);
        }
    }
    if (pipe(gate_) != 0) {
        abort();
    }
    inside_ = 0;
}

void FanOut::failOn(const std::string &text)
{
    const std::lock_guard<std::mutex> held(mutex_);
    failing_.insert(text);
}

void FanOut::hold()
{
    holding_ = true;
}

void FanOut::let(int calls)
{
    const std::string bytes(static_cast<size_t>(calls), '.');
    if (write(gate_[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        abort();
    }
}

void FanOut::release()
{
    if (holding_.exchange(false)) {
        let(1); // at most one thread of each session is inside; tests hold one session
    }
}

bool FanOut::waitForCallInside() const
{
    return WaitUntil([&] { return inside_ > 0; });
}

bool FanOut::waitForSent(size_t count) const
{
    return WaitUntil([&] { return this->count() >= count; });
}

std::vector<SentFrame> FanOut::sent() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return sent_;
}

std::vector<std::string> FanOut::texts() const
{
    std::vector<std::string> all;
    for (const SentFrame &frame : sent()) {
        const std::string kind = frame.kind == RTMP_MSG_VIDEO   ? "V "
                                 : frame.kind == RTMP_MSG_AUDIO ? "A "
                                                                : "? ";
        all.push_back(kind + frame.data + " " + std::to_string(frame.delta));
    }
    return all;
}

size_t FanOut::count() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return sent_.size();
}

void FanOut::waitInside()
{
    char byte;
    while (read(gate_[0], &byte, 1) != 1) {
    }
}

int FanOut::call(RtmpSession *session, SentFrame frame, const uint8_t *data)
{
    EXPECT_EQ(pthread_mutex_trylock(&session->Server->LiveSessionListLock), EBUSY);
    {
        const Inside inside(inside_);
        if (holding_) {
            waitInside();
        }
    }
    // The frame stays what it was for as long as it is being sent.
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(data), frame.data.size()), frame.data);
    const std::lock_guard<std::mutex> held(mutex_);
    if (failing_.count(frame.data) != 0) {
        return -1;
    }
    uint64_t *stamp =
        frame.kind == RTMP_MSG_VIDEO ? &session->Queue->LastVideoRtmpTs : &session->Queue->LastAudioRtmpTs;
    StoreShared(stamp, LoadShared(stamp) + frame.delta); // as a client's messages are stamped
    sent_.push_back(std::move(frame));
    return 0;
}

SenderRig::SenderRig(uint32_t audioQueueSize, uint32_t videoQueueSize)
{
    FanOut::get().reset();
    session.SenderMode = RTMP_SENDER_THREADED;
    session.EncoderHandle = 77;
    session.ClientListHead = &first;
    session.ClientListTail = &first;
    first.State = CLIENT_STATE_PLAY_DONE;
    codecInfo.VdCodecInfo = &videoInfo;
    EXPECT_EQ(RtmpThreadedQueueInit(&session, audioQueueSize, videoQueueSize), 0);
}

SenderRig::~SenderRig()
{
    RtmpThreadedQueueDestroy(&session);
}

int SenderRig::send(const std::string &text, uint64_t timestamp, int64_t mediaType)
{
    // The caller's frame is gone as soon as the call has returned.
    const std::vector<uint8_t> frame(text.begin(), text.end());
    return RtmpThreadedQueueSendData(&session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0,
                                     timestamp, mediaType);
}

int SenderRig::video(const std::string &text, uint64_t timestamp)
{
    return send(text, timestamp, RTMP_FRAME_VIDEO);
}

int SenderRig::audio(const std::string &text, uint64_t timestamp)
{
    return send(text, timestamp, RTMP_FRAME_AUDIO);
}

testing::AssertionResult SenderRig::locksAreFree()
{
    for (RtmpMutex *lock : {&queue()->VideoBuffer->Lock, &queue()->AudioBuffer->Lock,
                            &server.LiveSessionListLock, &session.MemberLock}) {
        if (pthread_mutex_trylock(lock) != 0) {
            return testing::AssertionFailure() << "a lock is held";
        }
        pthread_mutex_unlock(lock);
    }
    return testing::AssertionSuccess();
}

bool SenderRig::waitForEnd()
{
    return WaitUntil([&] { return LoadShared(&queue()->ThreadRunning) == 0; });
}
