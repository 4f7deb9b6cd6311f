// Signals, the status line and the time limit, on a thread of their own: a player that takes nothing may
// block the sending thread for as long as it likes.
#pragma once

#include "console.h"
#include "host.h"
#include "pacer.h"
#include "session_watch.h"
#include "trace_tail.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

/*
 * Call first in main, on the thread that sends. Blocks SIGINT and SIGTERM for this thread and all that it
 * starts, so that they reach the supervisor; installs the SIGUSR1 handler that the library needs; ignores
 * SIGPIPE.
 */
void prepareSignals();

class Supervisor {
  public:
    // Starts the thread. Everything given must outlive the supervisor. `stats` null: no file.
    Supervisor(const Options &options, const Counters &counters, const SessionWatch &watch, LineFile *stats,
               Console &console, StopFlag &stop);

    // Ends the thread.
    ~Supervisor();

    // The sending loop has been left: what follows is the clean stop, and must not take long.
    void sendingIsOver();

  private:
    void run();
    bool waitForSignal(std::chrono::steady_clock::time_point until);
    void finish();
    void showStatus();
    Second sinceShown(const Look &look);
    void writeStats(const Second &second, const Look &look);
    std::optional<TraceLine> fullest(uint64_t &dropped) const;
    std::string rates(const Second &second) const;
    std::string queue(const TraceLine &line) const;
    std::string sent() const;
    std::string losses() const;
    std::string lag(const Look &look) const;
    void leaveAtOnce(const char *why);

    const Options &options_;
    const Counters &counters_;
    const SessionWatch &watch_;
    LineFile *const stats_;
    Console &console_;
    StopFlag &stop_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    const std::chrono::seconds duration_;
    std::vector<TraceTail> traces_; // none without --trace-dir
    const pthread_t sender_ = pthread_self();
    std::atomic<bool> sending_ = true;
    std::atomic<bool> over_ = false;
    uint64_t bytesShown_ = 0; // from the source
    uint64_t sentShown_ = 0;  // to viewers
    std::chrono::steady_clock::time_point shown_ = start_;
    std::optional<std::chrono::steady_clock::time_point> ending_; // since when
    std::thread thread_;                                          // last: it uses all the others
};
