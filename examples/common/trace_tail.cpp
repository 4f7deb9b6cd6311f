#include "trace_tail.h"

#include <cstdio>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr std::streamoff kTail = 512; // bytes; several lines

} // namespace

std::optional<TraceLine> parseTraceLine(const std::string &line)
{
    TraceLine read;
    long long milliseconds = 0;
    int reserved = 0;
    int end = 0;
    const int fields = sscanf(line.c_str(), "%lld,%d,%d,%d,%d,%d,%d%n", &milliseconds, &read.measuredKbps,
                              &read.targetKbps, &reserved, &read.queued, &read.dropped, &read.fanOutMs, &end);
    if (fields != 7 || static_cast<size_t>(end) != line.size()) {
        return std::nullopt;
    }
    read.milliseconds = milliseconds;
    return read;
}

// A second's grace: file times are coarse.
TraceTail::TraceTail(fs::path directory)
    : directory_(std::move(directory)), since_(fs::file_time_type::clock::now() - std::chrono::seconds(1))
{
}

fs::path TraceTail::newestFile() const
{
    fs::path newest;
    fs::file_time_type time = since_;
    std::error_code ignored; // a directory that is not there yet, a file that has just gone
    for (const fs::directory_entry &entry : fs::directory_iterator(directory_, ignored)) {
        const std::string name = entry.path().filename().string();
        const fs::file_time_type written = entry.last_write_time(ignored);
        if (name.starts_with("debug-") && name.ends_with(".csv") && !ignored && written >= time) {
            newest = entry.path();
            time = written;
        }
    }
    return newest;
}

std::optional<TraceLine> TraceTail::newest() const
{
    std::ifstream file(newestFile(), std::ios::binary | std::ios::ate);
    if (!file) {
        return std::nullopt;
    }
    const std::streamoff size = file.tellg();
    file.seekg(std::max<std::streamoff>(size - kTail, 0));
    std::string text(static_cast<size_t>(std::min(size, kTail)), '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    const size_t end = text.rfind('\n'); // what follows is being written
    if (end == std::string::npos || end == 0) {
        return std::nullopt;
    }
    const size_t before = text.rfind('\n', end - 1);
    const size_t begin = before == std::string::npos ? 0 : before + 1;
    return parseTraceLine(text.substr(begin, end - begin));
}
