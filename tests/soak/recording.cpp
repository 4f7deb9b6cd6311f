#include "soak/recording.h"

#include <algorithm>

namespace soak {

void Recording::begin()
{
    const std::lock_guard<std::mutex> held(mutex_);
    lines_[0] = lines_[1] = {};
    lastPicture_ = MicrosNow();
}

void Recording::end()
{
    progress_.pictures[which_] = kNotRecording;
    const std::lock_guard<std::mutex> held(mutex_);
    lines_[0].begun = false;
}

void Recording::take(uint8_t type, uint32_t timestamp, const uint8_t *body, size_t length)
{
    const std::lock_guard<std::mutex> held(mutex_);
    const bool isHeader = length > 1 && body[1] == 0;
    const std::optional<FrameMark> mark = MarkIn(body, length);
    if ((type != 8 && type != 9) || (!mark && isHeader)) {
        return;
    }
    if (mark) {
        check(*mark, timestamp);
    } else if (fault_.empty()) {
        fault_ = "a frame that the host has not made";
    }
}

void Recording::check(const FrameMark &mark, uint32_t timestamp)
{
    const bool isPicture = mark.kind == Kind::Picture;
    Line &line = lines_[isPicture ? 0 : 1];
    const std::string where = std::string(isPicture ? "picture " : "sound ") + std::to_string(mark.number);
    if (line.begun && mark.number != line.number + 1 && fault_.empty()) {
        fault_ = where + " behind " + std::to_string(line.number) + ", " + std::to_string(timestamp) + " ms";
    }
    if (line.begun && timestamp <= line.timestamp && fault_.empty()) {
        fault_ = where + " at " + std::to_string(timestamp) + " ms, the one before at " +
                 std::to_string(line.timestamp);
    }
    line = {true, mark.number, timestamp};
    ++frames_;
    if (isPicture) {
        lastPicture_ = MicrosNow();
        lag_ = std::max(lag_, lastPicture_ - mark.micros);
        progress_.pictures[which_] = mark.number;
    }
}

bool Recording::hasPictures() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return lines_[0].begun;
}

std::string Recording::fault() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return fault_;
}

uint64_t Recording::frames() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return frames_;
}

int64_t Recording::takeLag()
{
    const std::lock_guard<std::mutex> held(mutex_);
    const int64_t lag = lag_;
    lag_ = 0;
    return lag;
}

int64_t Recording::silence() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return MicrosNow() - lastPicture_;
}

} // namespace soak
