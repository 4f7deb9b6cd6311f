// Signals, the status line and the time limit, on a thread of their own: a peer that takes nothing may
// block the sending thread for as long as it likes.
#pragma once

#include "console.h"
#include "pacer.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <functional>
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
    // Starts the thread. Everything given must outlive the supervisor. `duration` 0: until a signal.
    Supervisor(std::chrono::seconds duration, std::function<void()> everySecond, Console &console,
               StopFlag &stop);

    // Ends the thread.
    ~Supervisor();

    // The sending loop has been left: what follows is the clean stop, and must not take long.
    void sendingIsOver();

  private:
    void run();
    bool waitForSignal(std::chrono::steady_clock::time_point until);
    void finish();
    void leaveAtOnce(const char *why);

    const std::chrono::seconds duration_;
    const std::function<void()> everySecond_;
    Console &console_;
    StopFlag &stop_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    const pthread_t sender_ = pthread_self();
    std::atomic<bool> sending_ = true;
    std::atomic<bool> over_ = false;
    std::optional<std::chrono::steady_clock::time_point> ending_; // since when
    std::thread thread_;                                          // last: it uses all the others
};
