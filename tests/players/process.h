// Programs that a test starts: what they print, how they end, and that none outlives its test.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

// Deadlines are for machines that are busy with other tests; nothing waits longer than it has to.
constexpr int kDeadlineMs = 120000;

struct Exit {
    int code = -1;  // of a program that ended by itself; 127: there is no such program
    int signal = 0; // of one that was killed
    bool operator==(const Exit &) const = default;
};

class Process {
  public:
    // The first word is a program, looked up as a shell would. Standard input is empty.
    explicit Process(const std::vector<std::string> &words);
    ~Process(); // kills it if it still runs
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    void signal(int number);
    std::string output() const; // standard output and standard error

    // Waits until the output is as the test wants it. False: it ended, or the deadline passed, before.
    bool waitForOutput(const std::function<bool(const std::string &)> &wanted, int deadlineMs = kDeadlineMs);
    bool waitForText(const std::string &text, int deadlineMs = kDeadlineMs);

    // Waits for the end; none: it still ran at the deadline.
    std::optional<Exit> wait(int deadlineMs = kDeadlineMs);

  private:
    void collect();

    pid_t pid_ = -1; // -1 once it has been waited for
    int pipe_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string output_;
    bool closed_ = false; // nobody holds the other end of the pipe
    Exit exit_;
};

struct Finished {
    Exit exit;
    std::string output;
};

// Runs a program to its end, or kills it at the deadline.
Finished RunToEnd(const std::vector<std::string> &words, int deadlineMs = kDeadlineMs);
