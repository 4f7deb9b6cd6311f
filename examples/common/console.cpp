#include "console.h"

#include <cstdio>
#include <utility>

#include <unistd.h>

Console::Console(std::string program, int maxLevel)
    : program_(std::move(program)), maxLevel_(maxLevel), terminal_(isatty(STDOUT_FILENO) != 0)
{
}

void Console::say(const std::string &text)
{
    print(stdout, text + "\n");
}

void Console::note(const std::string &text)
{
    if (maxLevel_ >= 0) {
        say(text);
    }
}

void Console::warn(const std::string &text)
{
    print(stderr, program_ + ": warning: " + text + "\n");
}

void Console::fail(const std::string &text)
{
    print(stderr, program_ + ": " + text + "\n");
}

void Console::lineOfTheLibrary(int level, const char *format, va_list arguments)
{
    if (level > maxLevel_) {
        return;
    }
    char line[1024];
    vsnprintf(line, sizeof line, format, arguments);
    print(stderr, line);
}

void Console::status(const std::string &text)
{
    if (!terminal_) {
        say(text);
        return;
    }
    const std::lock_guard<std::mutex> held(mutex_);
    status_ = text;
    printf("\r\033[K%s", text.c_str());
    fflush(stdout);
}

void Console::endStatus()
{
    const std::lock_guard<std::mutex> held(mutex_);
    if (terminal_ && !status_.empty()) {
        printf("\n");
    }
    status_.clear();
}

// On a terminal the status moves down below every line that is printed.
void Console::print(FILE *to, const std::string &text)
{
    const std::lock_guard<std::mutex> held(mutex_);
    if (terminal_) {
        printf("\r\033[K");
        fflush(stdout);
    }
    fputs(text.c_str(), to);
    fflush(to);
    if (terminal_ && !status_.empty()) {
        printf("%s", status_.c_str());
        fflush(stdout);
    }
}
