// A soak fails when anything grows, or when a recording has a hole; and not for less.
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
        ebbs.push_back({each * 10.0, 10000, inUse(each), 20, 28});
    }
    return ebbs;
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
    EXPECT_EQ(found[0], "memory in use has grown by 360 KiB at ebb (up to 256 are nothing)");
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
