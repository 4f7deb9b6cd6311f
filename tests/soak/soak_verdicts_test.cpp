// A soak fails when anything grows, or when a recording has a hole; and not for less.
#include "soak/audience.h"
#include "soak/growth.h"
#include "soak/recording.h"

#include <gtest/gtest.h>

using namespace soak;

namespace {

// An ebb every ten seconds; memory as `inUse` has it.
template <typename Value> std::vector<Ebb> Ebbs(int count, Value inUse)
{
    std::vector<Ebb> ebbs;
    for (int each = 0; each < count; ++each) {
        ebbs.push_back({each * 10.0, 10000, inUse(each), 20, 28, 0});
    }
    return ebbs;
}

Audience AudienceOf(int visits, int endedByHost)
{
    Audience audience;
    audience.visits = static_cast<uint64_t>(visits);
    audience.endedByHost = static_cast<uint64_t>(endedByHost);
    return audience;
}

// What a recorder makes of these pictures, numbered and stamped.
std::string FaultOf(const std::vector<std::pair<uint64_t, uint32_t>> &pictures)
{
    Progress progress = {};
    Recording recording(kSteadyPlayer, progress);
    recording.begin();
    for (const auto &[number, timestamp] : pictures) {
        std::vector<uint8_t> body = {0x17, 1, 0, 0, 0};
        const std::vector<uint8_t> frame = MakeFrame({Kind::Picture, number, MicrosNow()});
        body.insert(body.end(), frame.begin(), frame.end());
        recording.take(9, timestamp, body.data(), body.size());
    }
    return recording.fault();
}

} // namespace

TEST(SoakVerdicts, MemoryThatStaysTheSameIsNoGrowth)
{
    EXPECT_TRUE(WhatHasGrown(Ebbs(20, [](int each) { return 2000 + each % 3 * 100; }), true).empty());
}

TEST(SoakVerdicts, MemoryThatGrowsWhileItWarmsUpIsNoGrowth)
{
    EXPECT_TRUE(WhatHasGrown(Ebbs(20, [](int each) { return each < 6 ? each * 500 : 3000; }), true).empty());
}

TEST(SoakVerdicts, MemoryThatGrowsALittleWithEachTideIsFound)
{
    const std::vector<std::string> found =
        WhatHasGrown(Ebbs(20, [](int each) { return 2000 + each * 40; }), true);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0], "memory in use at ebb has grown by 360 KiB (up to 256 are nothing)");
}

TEST(SoakVerdicts, ResidentMemoryIsLeftToSanitizersThemselves)
{
    std::vector<Ebb> ebbs = Ebbs(20, [](int) { return 2000; });
    for (size_t each = 0; each < ebbs.size(); ++each) {
        ebbs[each].residentKiB = 10000 + static_cast<int64_t>(each) * 1000;
    }
    EXPECT_EQ(WhatHasGrown(ebbs, true).size(), 1U);
    EXPECT_TRUE(WhatHasGrown(ebbs, false).empty());
}

TEST(SoakVerdicts, OneDescriptorMoreAtOneEbbIsFound)
{
    std::vector<Ebb> ebbs = Ebbs(20, [](int) { return 2000; });
    ebbs[3].descriptors = 21;
    EXPECT_EQ(WhatHasGrown(ebbs, true).size(), 1U);
}

TEST(SoakVerdicts, OneThreadMoreAtTheLastEbbIsFound)
{
    std::vector<Ebb> ebbs = Ebbs(20, [](int) { return 2000; });
    ebbs.back().threads = 29;
    EXPECT_EQ(WhatHasGrown(ebbs, true).size(), 1U);
}

TEST(SoakVerdicts, FiveEbbsBehindTheWarmUpAreTooFew)
{
    const auto same = [](int) { return 2000; };
    EXPECT_EQ(WhatHasGrown(Ebbs(8, same), true),
              std::vector<std::string>{"only 5 ebbs behind the warm-up: nothing can be compared"});
    EXPECT_TRUE(WhatHasGrown(Ebbs(10, same), true).empty());
    EXPECT_EQ(WhatHasGrown({}, true).size(), 1U);
}

TEST(SoakVerdicts, PicturesThatTakeLongerWithEachTideAreFound)
{
    std::vector<Ebb> ebbs = Ebbs(20, [](int) { return 2000; });
    for (size_t each = 0; each < ebbs.size(); ++each) {
        ebbs[each].lagMs = static_cast<int64_t>(each) * 300;
    }
    EXPECT_EQ(WhatHasGrown(ebbs, true),
              std::vector<std::string>{"the longest way of a picture in a tide has grown by 2700 ms (up to "
                                       "2000 are nothing)"});
}

TEST(SoakVerdicts, AMachineThatIsBusyForTwoTidesIsNoGrowth)
{
    std::vector<Ebb> ebbs = Ebbs(20, [](int) { return 2000; });
    ebbs[17].lagMs = ebbs[18].lagMs = 9000;
    EXPECT_TRUE(WhatHasGrown(ebbs, true).empty());
}

TEST(SoakVerdicts, FewVisitsMayBeEndedByTheHost)
{
    EXPECT_TRUE(WhatTheAudienceMissed(AudienceOf(1000, 110)).empty());
    EXPECT_EQ(WhatTheAudienceMissed(AudienceOf(1000, 111)),
              std::vector<std::string>{"the host ended 111 of 1000 visits"});
}

TEST(SoakVerdicts, OneViewerInTwentyMaySeeNothing)
{
    Audience audience;
    for (int viewer = 0; viewer < 1000; ++viewer) {
        audience.exact.add(viewer % 20 != 0);
    }
    EXPECT_TRUE(WhatTheAudienceMissed(audience).empty());
    for (int viewer = 0; viewer < 4; ++viewer) {
        audience.exact.add(false);
    }
    EXPECT_EQ(WhatTheAudienceMissed(audience),
              std::vector<std::string>{"54 of 1004 viewers of the exact road saw no picture"});
}

TEST(SoakVerdicts, AHostThatTurnsAwayAllViewersOfARoadInItsLastMinuteIsFound)
{
    Audience audience;
    for (int viewer = 0; viewer < 1011; ++viewer) {
        audience.exact.add(true);
        audience.steady.add(viewer < 1000);
    }
    EXPECT_EQ(WhatTheAudienceMissed(audience),
              std::vector<std::string>{"11 viewers of the steady road in a row saw no picture"});
}

TEST(SoakVerdicts, PicturesInTheirOrderAreNoHole)
{
    EXPECT_EQ(FaultOf({{25, 0}, {26, 40}, {27, 80}}), "");
}

TEST(SoakVerdicts, APictureThatIsMissingIsAHole)
{
    EXPECT_EQ(FaultOf({{25, 0}, {27, 80}}), "picture 27 behind 25, 80 ms");
}

TEST(SoakVerdicts, APictureThatComesTwiceIsNoticed)
{
    EXPECT_EQ(FaultOf({{25, 0}, {25, 40}}), "picture 25 behind 25, 40 ms");
}

TEST(SoakVerdicts, TimeThatStandsStillIsNoticed)
{
    EXPECT_EQ(FaultOf({{25, 10}, {26, 10}}), "picture 26 at 10 ms, the one before at 10");
}

TEST(SoakVerdicts, AFrameThatTheHostHasNotMadeIsNoticed)
{
    Progress progress = {};
    Recording recording(kSteadyPlayer, progress);
    recording.begin();
    const uint8_t body[] = {0xAF, 1, 2, 3, 4};
    recording.take(8, 0, body, sizeof body);
    EXPECT_EQ(recording.fault(), "a frame that the host has not made");
}

TEST(SoakVerdicts, ANewConnectionMayBeginAnywhere)
{
    Progress progress = {};
    Recording recording(kSteadyService, progress);
    for (const uint64_t number : {100, 200}) {
        recording.begin();
        std::vector<uint8_t> body = {0xAF, 1};
        const std::vector<uint8_t> frame = MakeFrame({Kind::Sound, number, MicrosNow()});
        body.insert(body.end(), frame.begin(), frame.end());
        recording.take(8, 0, body.data(), body.size());
    }
    EXPECT_EQ(recording.fault(), "");
    EXPECT_EQ(recording.frames(), 2U);
}
