// The newest line of a session's trace, as the library writes it: the status line shows it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

// time, measured rate, target rate, reserved, queued frames, dropped frames, duration of the fan-out
struct TraceLine {
    int64_t milliseconds = 0; // of the frame, since the first one
    int measuredKbps = 0;
    int targetKbps = 0;
    int queued = 0;  // video frames in the ring when this one left
    int dropped = 0; // video frames flushed so far
    int fanOutMs = 0;
};

// Empty: that is no such line.
std::optional<TraceLine> parseTraceLine(const std::string &line);

class TraceTail {
  public:
    // Files older than this object are somebody else's.
    explicit TraceTail(std::filesystem::path directory);

    // Empty: there is no line yet.
    std::optional<TraceLine> newest() const;

  private:
    std::filesystem::path newestFile() const;

    std::filesystem::path directory_;
    std::filesystem::file_time_type since_;
};
