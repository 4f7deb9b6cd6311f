// A logger that keeps every line, for whole transcripts.
#pragma once

#include "rtmpcast/types.h"
#include "support/wait.h"

#include <mutex>
#include <string>
#include <vector>

struct LogLine {
    int level;
    std::string text; // with its newline
};

class CaptureLogger {
  public:
    CaptureLogger();
    RtmpLogger *get()
    {
        return &logger_;
    }
    // "3 ERROR: Function: text" or "6 INFO: ...", newlines cut off; "\\" marks a line that had none.
    std::vector<std::string> lines() const;
    bool contains(const std::string &part) const;
    size_t count(const std::string &part) const;
    bool waitFor(const std::string &part, int milliseconds = 20000) const;
    void clear();

  private:
    static void Log(void *context, uint8_t level, const char *format, va_list arguments);
    RtmpLogger logger_;
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};
