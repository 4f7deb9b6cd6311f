// What live_host says of itself every second: on the console, and as JSON.
#pragma once

#include "common/console.h"
#include "common/host.h"
#include "common/session_watch.h"
#include "common/trace_tail.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

class StatusLine {
  public:
    // Everything given must outlive it. `stats` null: no file.
    StatusLine(const Options &options, const Counters &counters, const SessionWatch &watch, LineFile *stats,
               Console &console);

    void show();

  private:
    Second sinceShown(const Look &look);
    void writeStats(const Second &second, const Look &look);
    std::optional<TraceLine> fullest(uint64_t &dropped) const;
    std::string rates(const Second &second) const;
    std::string queue(const TraceLine &line) const;
    std::string sent() const;
    std::string losses() const;
    std::string lag(const Look &look) const;

    const Options &options_;
    const Counters &counters_;
    const SessionWatch &watch_;
    LineFile *const stats_;
    Console &console_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::vector<TraceTail> traces_; // none without --trace-dir
    uint64_t bytesShown_ = 0;       // from the source
    uint64_t sentShown_ = 0;        // to viewers
    std::chrono::steady_clock::time_point shown_ = start_;
};
