#include "pop_on.h"

#include <algorithm>

namespace {

constexpr int64_t kPairMs = 33;     // 30000/1001 pairs a second, in times of whole milliseconds
constexpr int64_t kEarlyMs = 500;   // a caption is loaded so much earlier than it must be
constexpr int64_t kLongestMs = 200; // between two pictures; more is a gap

} // namespace

std::optional<CaptionPair> PopOn::next(int64_t time)
{
    if (!takeSlot(time)) {
        return std::nullopt;
    }
    prepare(time);
    return choose(time);
}

bool PopOn::takeSlot(int64_t time)
{
    const int64_t step = lastTime_ ? time - *lastTime_ : kPairMs;
    lastTime_ = time;
    if (step > 0 && step <= kLongestMs) {
        pictureMs_ = std::max(kPairMs, step);
    }
    credit_ = std::clamp<int64_t>(credit_ + step, 0, 2 * kPairMs);
    if (credit_ < kPairMs) {
        return false;
    }
    credit_ -= kPairMs;
    return true;
}

CaptionPair PopOn::choose(int64_t time)
{
    if (repeat_) {
        return *std::exchange(repeat_, std::nullopt);
    }
    if (isLoading_ && loaded_ == parts_.front().pairs.size() && time >= parts_.front().start) {
        shownUntil_ = parts_.front().end;
        parts_.pop_front();
        isLoading_ = false;
        return twice(CaptionControl::Flip);
    }
    if (shownUntil_ && time >= *shownUntil_) {
        shownUntil_.reset();
        return twice(CaptionControl::EraseShown);
    }
    if (isLoading_ && loaded_ < parts_.front().pairs.size()) {
        const CaptionPair pair = parts_.front().pairs[loaded_++];
        if (pair.isControl()) {
            ++loaded_; // it stands there twice
            repeat_ = pair;
        }
        return pair;
    }
    return {};
}

CaptionPair PopOn::twice(CaptionControl control)
{
    repeat_ = controlPair(control);
    return *repeat_;
}

void PopOn::prepare(int64_t time)
{
    if (isLoading_ && parts_.front().end > time) {
        return;
    }
    isLoading_ = false;
    readCues(time);
    if (!parts_.empty() && time >= parts_.front().start - loadingTime() - kEarlyMs) {
        isLoading_ = true;
        loaded_ = 0;
    }
}

// What is over before it could be loaded is passed over.
void PopOn::readCues(int64_t time)
{
    while (parts_.empty() || parts_.front().end <= time + loadingTime()) {
        if (!parts_.empty()) {
            parts_.pop_front();
            continue;
        }
        const std::optional<Cue> cue = cues_.at(nextCue_);
        if (!cue) {
            return;
        }
        ++nextCue_;
        split(*cue);
    }
}

// A cue of more rows than can be shown at once takes turns in its time.
void PopOn::split(const Cue &cue)
{
    const std::vector<CaptionRows> captions = layOutCaptions(cue.text);
    const int64_t count = static_cast<int64_t>(captions.size());
    const int64_t length = cue.end - cue.start;
    for (int64_t i = 0; i < count; ++i) {
        parts_.push_back({.start = cue.start + length * i / count,
                          .end = cue.start + length * (i + 1) / count,
                          .pairs = loadingPairs(captions[static_cast<size_t>(i)])});
    }
}

int64_t PopOn::loadingTime() const
{
    return static_cast<int64_t>(parts_.front().pairs.size()) * pictureMs_;
}
