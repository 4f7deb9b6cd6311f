#include "failing/every_call.h"

#include "failing/failure_counts.h"
#include "failing/transcripts.h"
#include "support/produced.h"
#include "support/test_server.h"
#include "support/wait.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <sstream>

namespace every_call {
namespace {

thread_local bool isInCall = false;

bool IsLock(Call call)
{
    return call == Call::MutexLock || call == Call::MutexUnlock;
}

// What stays behind a trial, for all of its records are gone again.
struct Left {
    Left() : descriptors(wire::OpenDescriptors()), threads(wire::RunningThreads()) {}
    size_t descriptors;
    size_t threads;
};

void ExpectNothingLeft(const Left &before)
{
    EXPECT_EQ(wire::OpenDescriptors(), before.descriptors);
    EXPECT_TRUE(WaitUntil([&] { return wire::RunningThreads() <= before.threads; }));
}

void AddLines(const std::string &text, std::vector<std::string> *lines)
{
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines->push_back(line);
    }
}

bool TellsOfError(const std::string &line)
{
    return line.find("ERROR: ") != line.npos;
}

void CheckOutcome(const Scenario &scenario, const Trial &trial)
{
    if (!trial.failed || !trial.cameToIt) {
        return;
    }
    EXPECT_NE(std::find(scenario.codes.begin(), scenario.codes.end(), trial.code), scenario.codes.end())
        << trial.code << " is not among the codes of the function's comment";
    EXPECT_EQ(std::any_of(trial.lines.begin(), trial.lines.end(), TellsOfError), scenario.isLogged)
        << "code " << trial.code;
}

} // namespace

Trial::Trial(Call failing, int nth) : call(failing), number(nth), logger_{&Trial::Log, this}
{
    calls::forgetMutexes();
}

void Trial::Log(void *context, uint8_t level, const char *format, va_list arguments)
{
    if (!isInCall) {
        return;
    }
    char text[2048];
    vsnprintf(text, sizeof text, format, arguments);
    produced::Note("log", text);
    std::string line = std::to_string(level) + " " + text;
    line.erase(line.find_last_not_of('\n') + 1);
    static_cast<Trial *>(context)->lines.push_back(line);
}

void Trial::makeIt(const std::function<int()> &make)
{
    const FailingCall failing(call, number, IsLock(call) ? kMadeMutexes : nullptr);
    isInCall = true;
    code = make();
    isInCall = false;
    cameToIt = failing.cameToIt();
}

void Trial::run(const std::function<int()> &make, const std::function<int()> &again, int good)
{
    if (prints) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    makeIt(make);
    if (prints) {
        AddLines(testing::internal::GetCapturedStdout(), &lines);
        AddLines(testing::internal::GetCapturedStderr(), &lines);
    }
    failed = code != good;
    if (failed && cameToIt) {
        EXPECT_EQ(again ? again() : make(), good) << "once more, and nothing fails";
    } else {
        EXPECT_EQ(code, good);
    }
}

namespace {

bool CannotFail(const Scenario &scenario, Call call, int number)
{
    if (call == Call::ThreadJoin && number > scenario.mostJoins) {
        return true;
    }
    return std::find(scenario.cannotFail.begin(), scenario.cannotFail.end(), call) !=
           scenario.cannotFail.end();
}

void KeepLast(std::vector<std::string> *lines)
{
    if (lines->size() > 1) {
        lines->erase(lines->begin(), lines->end() - 1);
    }
}

// One trial; false when there was no call of this number.
bool Try(const Scenario &scenario, const NamedCall &kind, int number, Outcome *outcome)
{
    SCOPED_TRACE(scenario.function + ", " + scenario.way + ", " + kind.name + " " + std::to_string(number));
    const Left before;
    Trial trial(kind.call, number);
    scenario.go(trial);
    calls::joinTheUnjoined();
    ExpectNothingLeft(before);
    CheckOutcome(scenario, trial);
    *outcome = {kind.name, number, trial.code, trial.lines};
    if (scenario.isComposed) {
        KeepLast(&outcome->lines);
    }
    return trial.cameToIt;
}

} // namespace

void GoThrough(const Scenario &scenario)
{
    std::vector<Outcome> outcomes;
    Outcome outcome;
    for (const NamedCall &kind : kKinds) {
        for (int number = 1;
             !CannotFail(scenario, kind.call, number) && Try(scenario, kind, number, &outcome); number++) {
            outcomes.push_back(outcome);
            CountFailure(scenario.function, kind.name);
            ASSERT_LT(number, 500) << "there is no end to it";
        }
    }
    if (scenario.isCompared) {
        ExpectTranscript(scenario.function + ", " + scenario.way, outcomes, outcome);
    }
    CountWay(scenario.function);
}

} // namespace every_call
