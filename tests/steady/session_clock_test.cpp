// One clock for sound and pictures, whatever the host's does.
#include "delivery/steady/session_clock.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

struct Step {
    SteadyKind kind;
    uint64_t host;
    int64_t expected; // ms behind the first frame
};

constexpr SteadyKind V = STEADY_VIDEO;
constexpr SteadyKind A = STEADY_AUDIO;

void Check(const std::vector<Step> &steps)
{
    SessionClock clock = {};
    uint64_t first = 0;
    for (size_t i = 0; i < steps.size(); i++) {
        const uint64_t time = SessionTimeOf(&clock, steps[i].kind, steps[i].host);
        first = i == 0 ? time : first;
        EXPECT_EQ(static_cast<int64_t>(time - first), steps[i].expected) << "step " << i;
    }
}

} // namespace

TEST(SessionClock, BeginsFarAboveZeroWhateverTheHostBeginsAt)
{
    for (const uint64_t start : {uint64_t{0}, uint64_t{5000}, uint64_t{1} << 63, UINT64_MAX}) {
        SessionClock clock = {};
        const uint64_t first = SessionTimeOf(&clock, V, start);
        EXPECT_GT(first, uint64_t{1} << 39);
        EXPECT_EQ(SessionTimeOf(&clock, V, start + 40), first + 40); // past the largest number, too
    }
}

TEST(SessionClock, SoundAndPicturesShareOneOffset)
{
    Check({{V, 1000, 0}, {A, 1010, 10}, {A, 1031, 31}, {V, 1033, 33}, {A, 1052, 52}});
}

TEST(SessionClock, SoundThatBeginsInFrontOfTheFirstPictureStaysInFrontOfIt)
{
    Check({{V, 1000, 0}, {A, 980, -20}, {A, 1001, 1}});
}

TEST(SessionClock, EqualTimestampsAreEqualTimes)
{
    Check({{V, 1000, 0}, {V, 1000, 0}, {A, 1000, 0}, {A, 1000, 0}, {V, 1040, 40}});
}

TEST(SessionClock, AStepBackMovesTheTimelineOnByTheLastDifference)
{
    Check({{V, 5000, 0}, {V, 5040, 40}, {V, 100, 80}, {V, 140, 120}});
}

TEST(SessionClock, AStepBackWithoutALastDifferenceIsOneUsualFrame)
{
    Check({{V, 5000, 0}, {V, 100, 33}});
    Check({{A, 5000, 0}, {A, 100, 21}});
}

TEST(SessionClock, AStepForwardBeyondTheBoundIsOneFrame)
{
    Check({{V, 0, 0}, {V, 40, 40}, {V, 10040, 10040}, {V, 20041, 10080}, {V, 20081, 10120}});
}

TEST(SessionClock, BothKindsFollowAClockThatWasSet)
{
    // The sound is told by the picture's new offset, and the other way round.
    Check({{V, 5000, 0}, {A, 5010, 10}, {V, 5040, 40}, {V, 100, 80}, {A, 110, 90}, {A, 131, 111}});
    Check({{V, 5000, 0}, {A, 5010, 10}, {A, 5031, 31}, {A, 900000, 52}, {V, 900010, 62}});
}

TEST(SessionClock, OldClockSoundBehindNewClockPicturesMovesEachKindByItsFrames)
{
    Check({{V, 3600000, 0},
           {A, 3600005, 5},
           {V, 3600040, 40},
           {A, 3600026, 26},
           {V, 0, 80},
           {A, 3600047, 47},
           {V, 40, 120},
           {A, 3600068, 68},
           {V, 80, 160},
           {A, 65, 145},
           {V, 120, 200},
           {A, 86, 166}});
}

TEST(SessionClock, APauseOfOneKindIsNoJump)
{
    std::vector<Step> steps = {{V, 0, 0}, {A, 0, 0}};
    for (uint64_t time = 5000; time <= 3600000; time += 5000) {
        steps.push_back({V, time, static_cast<int64_t>(time)});
    }
    steps.push_back({A, 3600010, 3600010}); // the sound is back after an hour
    steps.push_back({V, 3600033, 3600033});
    Check(steps);
}

TEST(SessionClock, AKindThatJumpsBehindAPauseGoesOnWhereTheOtherIs)
{
    std::vector<Step> steps = {{V, 0, 0}, {A, 0, 0}};
    for (uint64_t time = 5000; time <= 100000; time += 5000) {
        steps.push_back({V, time, static_cast<int64_t>(time)});
    }
    steps.push_back({A, 9000000, 100021});
    steps.push_back({V, 9000012, 100033});
    Check(steps);
}

TEST(SessionClock, AKindThatComesOnAnotherClockIsTakenToThisOne)
{
    Check({{V, 3600000, 0}, {V, 3600040, 40}, {A, 5, 61}, {V, 24, 80}, {A, 26, 82}});
    Check({{V, 1000, 0}, {V, 1040, 40}, {A, 3600005, 61}});
}

TEST(SessionClock, ForgottenTimingGoesOnOneFrameLater)
{
    SessionClock clock = {};
    SessionTimeOf(&clock, A, 1000);
    const uint64_t last = SessionTimeOf(&clock, V, 1040);
    ForgetTiming(&clock);
    EXPECT_EQ(SessionTimeOf(&clock, V, 900000), last + 33);
    EXPECT_EQ(SessionTimeOf(&clock, A, 900010), last + 43);
}

// Whatever the host's clocks do, each kind goes on, and no frame moves the timeline by more than the bound.
TEST(SessionClock, NoHostsClockMakesItRunBackOrAway)
{
    std::mt19937_64 random(7);
    SessionClock clock = {};
    uint64_t host[STEADY_KINDS] = {1000, 2000};
    uint64_t last[STEADY_KINDS] = {};
    uint64_t newest = SessionTimeOf(&clock, V, host[V]);
    for (int i = 0; i < 100000; i++) {
        const SteadyKind kind = random() % 2 == 0 ? V : A;
        const uint64_t what = random() % 50;
        host[kind] = what == 0 ? random() : what == 1 ? host[1 - kind] : host[kind] + random() % 50;
        const uint64_t time = SessionTimeOf(&clock, kind, host[kind]);
        ASSERT_GE(time, last[kind]) << i;
        ASSERT_LE(time, newest + 10000) << i;
        last[kind] = time;
        newest = std::max(newest, time);
    }
}

// Two clocks that never agree: each kind goes on by its own frames.
TEST(SessionClock, ClocksThatNeverAgreeKeepTheirPace)
{
    SessionClock clock = {};
    const uint64_t first = SessionTimeOf(&clock, V, 0);
    uint64_t sound = 0;
    uint64_t picture = 0;
    for (uint64_t i = 1; i <= 1000; i++) {
        sound = SessionTimeOf(&clock, A, 50000000 + 40 * i);
        picture = SessionTimeOf(&clock, V, 40 * i);
    }
    EXPECT_NEAR(static_cast<double>(picture - first), 40000, 100);
    EXPECT_NEAR(static_cast<double>(sound - first), 40000, 100);
}
