#include "cue_reader.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

constexpr int64_t kLeadMs = 1000; // loading a line takes about so long

bool isBlank(const std::string &line)
{
    return line.find_first_not_of(" \t") == std::string::npos;
}

bool isNumber(const std::string &line)
{
    return !line.empty() && line.find_first_not_of("0123456789 \t") == std::string::npos;
}

// A byte order mark in front and a line's end behind are no text.
void clean(std::string &line)
{
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    if (line.starts_with(mark)) {
        line.erase(0, mark.size());
    }
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
        line.pop_back();
    }
}

// "00:00:01,500 --> 00:00:04,000", also with points, and whatever follows.
std::optional<Cue> timesOf(const std::string &line)
{
    unsigned from[4];
    unsigned to[4];
    char comma[2];
    if (sscanf(line.c_str(), "%4u:%2u:%2u%c%3u --> %4u:%2u:%2u%c%3u", &from[0], &from[1], &from[2], &comma[0],
               &from[3], &to[0], &to[1], &to[2], &comma[1], &to[3]) != 10) {
        return std::nullopt;
    }
    const auto milliseconds = [](const unsigned *part) {
        return ((int64_t{part[0]} * 60 + part[1]) * 60 + part[2]) * 1000 + part[3];
    };
    return Cue{.start = milliseconds(from), .end = milliseconds(to), .text = {}};
}

// Without <i>, <font ...> and {\an8}.
std::string withoutTags(const std::string &line)
{
    std::string out;
    for (size_t at = 0; at < line.size(); ++at) {
        const bool isTag = line[at] == '<' || line.compare(at, 2, "{\\") == 0;
        const size_t end = isTag ? line.find(line[at] == '<' ? '>' : '}', at) : std::string::npos;
        if (end != std::string::npos) {
            at = end;
        } else {
            out.push_back(line[at]);
        }
    }
    return out;
}

// 15 letters a second can be read.
int64_t readingTime(const std::string &text)
{
    return std::clamp<int64_t>(static_cast<int64_t>(text.size()) * 1000 / 15, 1500, 6000);
}

} // namespace

std::optional<Cue> CueReader::line(std::string line, int64_t now)
{
    clean(line);
    switch (form_) {
    case Form::SubRip:
        return subRip(line);
    case Form::Plain:
        return plain(line, now);
    default:
        return firstLine(line, now);
    }
}

std::optional<Cue> CueReader::firstLine(const std::string &line, int64_t now)
{
    if (isBlank(line)) {
        return std::nullopt;
    }
    if (timesOf(line)) {
        form_ = Form::SubRip;
        return subRip(line);
    }
    if (number_.empty() && isNumber(line)) {
        number_ = line;
        return std::nullopt;
    }
    form_ = Form::Plain;
    if (number_.empty()) {
        return plain(line, now);
    }
    return plain(number_ + "\n" + line, now);
}

std::optional<Cue> CueReader::plain(const std::string &line, int64_t now)
{
    if (isBlank(line)) {
        return std::nullopt;
    }
    const int64_t start = std::max(now + kLeadMs, lastEnd_);
    lastEnd_ = start + readingTime(line);
    return Cue{.start = start, .end = lastEnd_, .text = line};
}

std::optional<Cue> CueReader::subRip(const std::string &line)
{
    if (const std::optional<Cue> next = timesOf(line)) {
        return std::exchange(open_, next); // the one before it lacked its empty line
    }
    if (!open_) {
        return std::nullopt; // its number
    }
    if (isBlank(line)) {
        return takeCue();
    }
    open_->text += (open_->text.empty() ? "" : "\n") + withoutTags(line);
    return std::nullopt;
}

std::optional<Cue> CueReader::takeCue()
{
    return std::exchange(open_, std::nullopt);
}

std::optional<Cue> CueReader::end(int64_t now)
{
    if (form_ == Form::Unknown && !number_.empty()) {
        return plain(number_, now);
    }
    return takeCue();
}
