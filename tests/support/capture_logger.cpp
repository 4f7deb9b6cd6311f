#include "support/capture_logger.h"

#include <cstdio>

CaptureLogger::CaptureLogger() : logger_{&CaptureLogger::Log, this} {}

void CaptureLogger::Log(void *context, uint8_t level, const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(length) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, arguments);
    text.resize(static_cast<size_t>(length));
    CaptureLogger *self = static_cast<CaptureLogger *>(context);
    const std::lock_guard<std::mutex> held(self->mutex_);
    self->lines_.push_back({level, text});
}

std::vector<std::string> CaptureLogger::lines() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    std::vector<std::string> out;
    for (const LogLine &line : lines_) {
        std::string text = line.text;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        } else {
            text += '\\';
        }
        out.push_back(std::to_string(line.level) + " " + text);
    }
    return out;
}

size_t CaptureLogger::count(const std::string &part) const
{
    size_t found = 0;
    for (const std::string &line : lines()) {
        found += line.find(part) != std::string::npos;
    }
    return found;
}

bool CaptureLogger::contains(const std::string &part) const
{
    return count(part) > 0;
}

bool CaptureLogger::waitFor(const std::string &part, int milliseconds) const
{
    return WaitUntil([&] { return contains(part); }, milliseconds);
}

void CaptureLogger::clear()
{
    const std::lock_guard<std::mutex> held(mutex_);
    lines_.clear();
}
