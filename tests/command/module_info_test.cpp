#include "command_fixture.h"

#include <cmath>
#include <limits>

using namespace amf0;
using namespace received;

namespace {

using Lines = std::vector<std::string>;

class ModuleInfoCommand : public CommandFixture {};

const std::string kReceived = "Received Command message: moduleInfo";
const std::string kNotSure = "\tNot really sure what to do with it";
const std::string kGetList = "Get object list from AMF object list";

Lines Statistics(std::initializer_list<std::string> texts)
{
    Lines lines = {"6 INFO: ParseCmdMsgReq: Received Command message: moduleInfo",
                   "6 INFO: ParseCmdMsgReq: " + kGetList,
                   "6 INFO: ParseCmdMsgReq: Number of Objects: " + std::to_string(texts.size())};
    for (const std::string &text : texts) {
        lines.push_back("6 INFO: ParseCmdMsgReq: \t" + text);
    }
    lines.push_back("6 INFO: ParseCmdMsgReq: " + kNotSure);
    return lines;
}

TEST_F(ModuleInfoCommand, LogsEveryPropertyByItsType)
{
    const Value statistics = Object({{"name", String("channel one")},
                                     {"empty", String("")},
                                     {"on", Boolean(true)},
                                     {"off", Boolean(false)},
                                     {"inner", Object({{"viewers", Number(1)}})},
                                     {"list", StrictArray({Number(1)})},
                                     {"count", Number(12.6)},
                                     {"negative", Number(-1)},
                                     {"nothing", Null()},
                                     {"", Number(0)}});
    const Lines expected =
        Statistics({"name -> channel one", "empty -> ", "on -> false", "off -> true", "inner -> {OBJECT}",
                    "list -> {OBJECT}", "count -> 13", "negative -> ", "nothing -> ", " -> 0"});
    for (const bool publishing : {false, true}) {
        if (publishing) {
            withContext();
        }
        log.clear();
        const Parsed parsed = parse({String("moduleInfo"), Number(0), Null(), statistics});
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 53U);
        EXPECT_EQ(log.lines(), expected);
    }
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
    EXPECT_TRUE(IsZero(*context));
}

TEST_F(ModuleInfoCommand, AStringIsNoted)
{
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), String("x")}).kind, 53U);
    EXPECT_EQ(log.lines(), (Lines{info(kReceived), info("Got a string object"), info(kNotSure)}));
}

TEST_F(ModuleInfoCommand, AnythingElseIsPassedOver)
{
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), Number(1), String("x")}).kind, 53U);
    EXPECT_EQ(log.lines(), (Lines{info(kReceived), info(kNotSure)}));
}

TEST_F(ModuleInfoCommand, TheFirstViewerCountReachesTheHostEvenWhenItIsZero)
{
    withContext();
    const Value statistics = Object({{"viewers", Number(0)}, {"allViewers", Number(0)}});
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), statistics}).result, 0);
    const std::vector<StatusReport> once = {
        {context->StatusHostContext, "rtmpCurrentViewerCount", "0", "Current viewer count"},
        {context->StatusHostContext, "rtmpTotalViewerCount", "0", "Total viewer count"}};
    EXPECT_EQ(HostFakes::get().statusReports(), once);
    EXPECT_EQ(log.lines(), Statistics({"viewers -> 0", "allViewers -> 0"}));
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), statistics}).result, 0);
    EXPECT_EQ(HostFakes::get().statusReports(), once);
}

TEST_F(ModuleInfoCommand, AViewerCountReachesTheHostWhenItChanges)
{
    withContext();
    for (const double count : {5.0, 5.0, 5.9, 6.0, 5.0}) {
        EXPECT_EQ(
            parse({String("moduleInfo"), Number(0), Null(), Object({{"viewers", Number(count)}})}).result, 0);
    }
    void *to = context->StatusHostContext;
    EXPECT_EQ(HostFakes::get().statusReports(),
              (std::vector<StatusReport>{{to, "rtmpCurrentViewerCount", "5", "Current viewer count"},
                                         {to, "rtmpCurrentViewerCount", "6", "Current viewer count"},
                                         {to, "rtmpCurrentViewerCount", "5", "Current viewer count"}}));
}

TEST_F(ModuleInfoCommand, AFirstViewerCountOfMinusOneIsNoNews)
{
    withContext();
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(),
                     Object({{"viewers", Number(-1)}, {"allViewers", Number(-1.5)}})})
                  .result,
              0);
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
    EXPECT_EQ(log.lines(), Statistics({"viewers -> ", "allViewers -> "}));
}

TEST_F(ModuleInfoCommand, ViewerCountsThatAreNoCountsAreReportedAsTheyAreWritten)
{
    withContext();
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double count : {-7.0, std::nan(""), infinity, 1e300}) {
        EXPECT_EQ(
            parse({String("moduleInfo"), Number(0), Null(), Object({{"allViewers", Number(count)}})}).result,
            0);
    }
    void *to = context->StatusHostContext;
    // Infinity and 1e300 are both the largest integer, so the second is no news.
    EXPECT_EQ(HostFakes::get().statusReports(),
              (std::vector<StatusReport>{{to, "rtmpTotalViewerCount", "", "Total viewer count"},
                                         {to, "rtmpTotalViewerCount", "", "Total viewer count"},
                                         {to, "rtmpTotalViewerCount", "inf", "Total viewer count"}}));
}

TEST_F(ModuleInfoCommand, OnlyANumberOfExactlyThatNameIsAViewerCount)
{
    withContext();
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(),
                     Object({{"viewer", Number(31)},
                             {"viewersX", Number(32)},
                             {"", Number(33)},
                             {"Viewers", Number(34)},
                             {"all", Number(35)},
                             {"viewers", String("36")}})})
                  .result,
              0);
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
}

TEST_F(ModuleInfoCommand, WithoutAContextNoCountIsTouched)
{
    const Value statistics = Object({{"viewers", Number(41)}, {"allViewers", Number(42)}});
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), statistics}).kind, 53U);
    EXPECT_EQ(log.lines(), Statistics({"viewers -> 41", "allViewers -> 42"}));
    EXPECT_TRUE(HostFakes::get().statusReports().empty());
    withContext();
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), statistics}).result, 0);
    EXPECT_EQ(HostFakes::get().statusReports().size(), 2U);
}

TEST_F(ModuleInfoCommand, LongTextsAndNumbersAreBounded)
{
    const std::string key(5000, 'k');
    const std::string text(65535, 't');
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(),
                     Object({{key, String(text)}, {"huge", Number(std::numeric_limits<double>::max())}})})
                  .result,
              0);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[3], info("\t" + std::string(4095, 'k') + " -> " + std::string(4095, 't')));
    const std::string number = "179769313486231570814527423731704356798070";
    EXPECT_EQ(lines[4].substr(0, info("\thuge -> ").size() + number.size()), info("\thuge -> ") + number);
    EXPECT_EQ(lines[4].size(), info("\thuge -> ").size() + 309);
}

} // namespace
