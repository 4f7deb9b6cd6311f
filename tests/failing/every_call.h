// Every call of the system that an exported function makes fails once: the first, the second, ... of each
// kind, until there are no more. A scenario is one way of one function; a trial is one failing call on that
// way.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/calls.h"

#include <climits>
#include <functional>
#include <string>
#include <vector>

namespace every_call {

class Trial;

struct Scenario {
    std::string function; // the exported name
    std::string way;      // which one of its ways is gone
    std::vector<int>
        codes; // what may come of a failing call, as the function's comment has it; kNull for null
    std::function<void(Trial &)> go;
    std::vector<Call> cannotFail = {}; // kinds that are left out, with the reason beside them
    bool isComposed = false; // of many messages, each with a way of its own: the last line alone is compared
    bool isLogged = true;    // false: the comment says that these codes come without a line
    bool isCompared = true;  // false: what comes of it hangs on another thread's turn
    int mostJoins = INT_MAX; // that fail: those behind are of threads that are joined once, and always
};

constexpr int kNull = -1000; // a null pointer without a code

class Trial {
  public:
    Trial(Call call, int number);

    // `make` makes the exported call once and returns its code; `good` is what it is when nothing fails. It
    // is made with the failing call in its way, and, where it has failed, once more without: then it must be
    // good. `again` stands in for that second time where the record is another one by then.
    void run(const std::function<int()> &make, const std::function<int()> &again = {}, int good = 0);

    // Lines that the thread of the trial writes during the first of both calls are kept, all others dropped.
    RtmpLogger *logger()
    {
        return &logger_;
    }

    const Call call;
    const int number;
    bool prints = false; // what the call prints counts among its lines
    bool cameToIt = false;
    bool failed = false; // the call was not good
    int code = 0;
    std::vector<std::string> lines;

  private:
    void makeIt(const std::function<int()> &make);
    static void Log(void *context, uint8_t level, const char *format, va_list arguments);
    RtmpLogger logger_;
};

// Goes a scenario with each failing call in turn, checks codes, lines, descriptors, threads and the second
// call, and holds the transcript of all against that in transcripts.txt.
void GoThrough(const Scenario &scenario);

// The scenarios of each file.
std::vector<Scenario> ValueScenarios();
std::vector<Scenario> ListScenarios();
std::vector<Scenario> MessageScenarios();
std::vector<Scenario> SessionScenarios();
std::vector<Scenario> FrameScenarios();
std::vector<Scenario> PublisherScenarios();

} // namespace every_call
