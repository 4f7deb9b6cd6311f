#include "support/capture_logger.h"

#include "support/produced.h"

#include <algorithm>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

std::string Formatted(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(length) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, arguments);
    text.resize(static_cast<size_t>(length));
    return text;
}

// The line with its level; its newline goes, and one that has none shows it.
std::string Shown(uint8_t level, std::string text)
{
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    } else {
        text += '\\';
    }
    return std::to_string(level) + " " + text;
}

size_t Count(const std::vector<std::string> &lines, size_t from, const std::string &part)
{
    return static_cast<size_t>(
        std::count_if(lines.begin() + static_cast<std::ptrdiff_t>(from), lines.end(),
                      [&](const std::string &line) { return line.find(part) != std::string::npos; }));
}

} // namespace

CaptureLogger::CaptureLogger() : logger_{&CaptureLogger::Log, this} {}

void CaptureLogger::Log(void *context, uint8_t level, const char *format, va_list arguments)
{
    CaptureLogger *self = static_cast<CaptureLogger *>(context);
    std::string line = Formatted(format, arguments);
    produced::Note("log", line);
    line = Shown(level, std::move(line));
    const std::lock_guard<std::mutex> held(self->mutex_);
    self->lines_.push_back(std::move(line));
    self->taken_++;
    self->more_.notify_all(); // under the lock: whoever waited may end the logger's life
}

std::vector<std::string> CaptureLogger::lines() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return lines_;
}

size_t CaptureLogger::count(const std::string &part) const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return Count(lines_, 0, part);
}

bool CaptureLogger::contains(const std::string &part) const
{
    return count(part) > 0;
}

// Each line is looked at once, so that ten thousand of them can be waited for.
size_t CaptureLogger::foundBy(int milliseconds, const std::string &part, size_t count) const
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    std::unique_lock<std::mutex> held(mutex_);
    size_t looked = lines_.size();
    size_t found = Count(lines_, 0, part);
    while (found < count) {
        const size_t seen = taken_;
        if (!more_.wait_until(held, deadline, [&] { return taken_ != seen; })) {
            break;
        }
        found += Count(lines_, std::min(looked, lines_.size()), part);
        looked = lines_.size();
    }
    return found;
}

bool CaptureLogger::waitFor(const std::string &part, int milliseconds) const
{
    return waitForAtLeast(part, 1, milliseconds);
}

bool CaptureLogger::waitForAtLeast(const std::string &part, size_t count, int milliseconds) const
{
    return foundBy(milliseconds, part, count) >= count;
}

bool CaptureLogger::waitForCount(const std::string &part, size_t count, int milliseconds) const
{
    return foundBy(milliseconds, part, count) == count;
}

bool CaptureLogger::waitFor(const std::function<bool()> &holds, int milliseconds) const
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    std::unique_lock<std::mutex> held(mutex_);
    for (;;) {
        const size_t seen = taken_;
        held.unlock();
        if (holds()) {
            return true;
        }
        held.lock();
        if (!more_.wait_until(held, deadline, [&] { return taken_ != seen; })) {
            return false;
        }
    }
}

void CaptureLogger::clear()
{
    const std::lock_guard<std::mutex> held(mutex_);
    lines_.clear();
}
