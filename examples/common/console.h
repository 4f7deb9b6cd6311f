// What people see: messages, the library's log lines, and the status line. Any thread may write.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

class Console {
  public:
    // Messages begin with the program's name. `maxLevel`: the least urgent syslog priority that
    // lineOfTheLibrary shows; -1: none
    Console(std::string program, int maxLevel);

    void say(const std::string &text);  // standard output
    void note(const std::string &text); // the same, unless nothing of the library's is shown
    void warn(const std::string &text); // standard error, as the next two
    void fail(const std::string &text);
    void lineOfTheLibrary(int level, const char *format, va_list arguments);

    // Replaces the last status on a terminal; elsewhere a line of its own.
    void status(const std::string &text);

    // Leaves the status standing above whatever follows.
    void endStatus();

  private:
    void print(FILE *to, const std::string &text);

    std::mutex mutex_;
    const std::string program_;
    int maxLevel_;
    bool terminal_;
    std::string status_; // what stands on the terminal's last line
};
