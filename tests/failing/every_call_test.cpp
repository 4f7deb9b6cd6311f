// Each exported function with each call on its way failing in turn: the status is one that its comment names,
// what is logged is in transcripts.txt, nothing stays behind, and the next call works.
#include "failing/every_call.h"
#include "failing/failure_counts.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>

using namespace every_call;

namespace {

void GoThroughAll(const std::vector<Scenario> &scenarios)
{
    for (const Scenario &scenario : scenarios) {
        GoThrough(scenario);
    }
}

} // namespace

TEST(EveryFailingCall, OfTheValues)
{
    GoThroughAll(ValueScenarios());
}

TEST(EveryFailingCall, OfClientsAndTheirLists)
{
    GoThroughAll(ListScenarios());
}

TEST(EveryFailingCall, OfMessages)
{
    GoThroughAll(MessageScenarios());
}

TEST(EveryFailingCall, OfServersAndSessions)
{
    GoThroughAll(SessionScenarios());
}

TEST(EveryFailingCall, OfFrames)
{
    GoThroughAll(FrameScenarios());
}

TEST(EveryFailingCall, OfPublishers)
{
    GoThroughAll(PublisherScenarios());
}

TEST(EveryFailingCall, IsThatOfEveryExportedFunction)
{
    std::set<std::string> gone, exported;
    for (const auto &scenarios : {ValueScenarios(), ListScenarios(), MessageScenarios(), SessionScenarios(),
                                  FrameScenarios(), PublisherScenarios()}) {
        for (const Scenario &scenario : scenarios) {
            gone.insert(scenario.function);
        }
    }
    std::ifstream file(RTMPCAST_EXPORTED_NAMES);
    for (std::string name; std::getline(file, name);) {
        exported.insert(name);
    }
    EXPECT_GT(exported.size(), 60U);
    EXPECT_EQ(gone, exported);
}
