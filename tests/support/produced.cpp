#include "support/produced.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <sstream>
#include <unistd.h>

namespace produced {
namespace {

constexpr size_t kLongestText = 255;

bool IsPrintable(char character)
{
    return character >= ' ' && character <= '~';
}

std::string OnOneLine(std::string_view text)
{
    std::string out(text);
    std::replace_if(
        out.begin(), out.end(), [](char character) { return !IsPrintable(character); }, '?');
    return out;
}

// "wire.WirePlay.AnUnknownName", as ctest calls it: the executable is test_wire.
std::string TestName()
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string folder = std::string(program_invocation_short_name).substr(sizeof "test_" - 1);
    return folder + (test == nullptr ? "" : std::string(".") + test->test_suite_name() + "." + test->name());
}

class Record {
  public:
    explicit Record(const std::string &folder)
        : file_(fopen((folder + "/" + std::to_string(getpid())).c_str(), "a"))
    {
        if (file_ == nullptr) {
            perror(folder.c_str());
            abort(); // a run that is to be recorded, and is not, proves nothing
        }
    }
    // Lines that differ in their numbers alone are one; "S1" and "S2" are no numbers.
    void add(const char *kind, std::string_view text)
    {
        const std::string line = std::string(kind) + "\t" + TestName() + "\t" + OnOneLine(text) + "\n";
        std::string numberless = line;
        for (size_t i = 1; i < line.size(); ++i) {
            if (isdigit(line[i]) && !isalpha(line[i - 1])) {
                numberless[i] = '0';
            }
        }
        const std::lock_guard<std::mutex> held(mutex_);
        if (seen_.insert(std::move(numberless)).second) {
            fputs(line.c_str(), file_);
            fflush(file_);
        }
    }

  private:
    FILE *file_;
    std::mutex mutex_;
    std::set<std::string> seen_;
};

// Null: nothing is recorded. It outlives threads that end with the process.
Record *ThisRun()
{
    static const char *const folder = getenv("RTMPCAST_TEXTS");
    static Record *const record = folder == nullptr ? nullptr : new Record(folder);
    return record;
}

// Opened before any test: some of them make fopen fail.
[[maybe_unused]] const Record *const kOpened = ThisRun();

// The length of the text that begins at `at` behind its length, or 0; -1: the bytes end before that is known.
int TextAt(const std::string &bytes, size_t at)
{
    if (at + 2 > bytes.size()) {
        return -1;
    }
    const size_t length = static_cast<uint8_t>(bytes[at]) * 256U + static_cast<uint8_t>(bytes[at + 1]);
    if (length == 0 || length > kLongestText) {
        return 0;
    }
    const size_t there = std::min(bytes.size(), at + 2 + length);
    const bool printable = std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(at + 2),
                                       bytes.begin() + static_cast<std::ptrdiff_t>(there), IsPrintable);
    if (!printable) {
        return 0;
    }
    return there < at + 2 + length ? -1 : static_cast<int>(length);
}

} // namespace

void Note(const char *kind, std::string_view text)
{
    if (ThisRun() != nullptr) {
        ThisRun()->add(kind, text);
    }
}

std::string CapturedStdout()
{
    std::string captured = testing::internal::GetCapturedStdout();
    std::istringstream lines(captured);
    for (std::string line; std::getline(lines, line);) {
        Note("stdout", line + "\n");
    }
    return captured;
}

void Texts::note(const void *bytes, size_t count)
{
    if (ThisRun() == nullptr) {
        return;
    }
    rest_.append(static_cast<const char *>(bytes), count);
    size_t at = 0;
    for (; at < rest_.size(); ++at) {
        const int length = TextAt(rest_, at);
        if (length < 0) {
            break;
        }
        if (length > 0) {
            ThisRun()->add(kind_, std::string_view(rest_).substr(at + 2, static_cast<size_t>(length)));
        }
    }
    rest_.erase(0, at);
}

} // namespace produced
