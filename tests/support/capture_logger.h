// A logger that keeps every line, for whole transcripts, and wakes whoever waits for one.
#pragma once

#include "rtmpcast/types.h"
#include "support/wait.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

class CaptureLogger {
  public:
    static constexpr int kDeadline = 20000; // milliseconds

    CaptureLogger();
    RtmpLogger *get()
    {
        return &logger_;
    }
    // "3 ERROR: Function: text" or "6 INFO: ...", newlines cut off; "\\" marks a line that had none.
    std::vector<std::string> lines() const;
    bool contains(const std::string &part) const;
    size_t count(const std::string &part) const;

    // Until a line contains `part`.
    bool waitFor(const std::string &part, int milliseconds = kDeadline) const;
    // Until as many lines contain it, or more; waitForCount is false when there are more.
    bool waitForAtLeast(const std::string &part, size_t count, int milliseconds = kDeadline) const;
    bool waitForCount(const std::string &part, size_t count, int milliseconds = kDeadline) const;
    // Until `holds`, which is asked again after each line; it may look at this logger and at anything else
    // that has happened by the time the line is logged.
    bool waitFor(const std::function<bool()> &holds, int milliseconds = kDeadline) const;
    void clear();

  private:
    size_t foundBy(int milliseconds, const std::string &part, size_t count) const;
    static void Log(void *context, uint8_t level, const char *format, va_list arguments);
    RtmpLogger logger_;
    mutable std::mutex mutex_;
    mutable std::condition_variable more_;
    std::vector<std::string> lines_; // as lines() shows them
    size_t taken_ = 0;               // lines so far, those that were cleared included
};
