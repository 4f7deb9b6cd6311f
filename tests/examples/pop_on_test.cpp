// Which pair goes with which picture.
#include "captions/pop_on.h"

#include <gtest/gtest.h>

namespace {

struct Sent {
    int64_t time;
    CaptionPair pair;
    bool operator==(const Sent &) const = default;
};

constexpr CaptionPair kFlip = {0x94, 0x2F};
constexpr CaptionPair kErase = {0x94, 0x2C};
constexpr CaptionPair kHi = {0xC8, 0xE9};

struct Stream {
    explicit Stream(const std::vector<Cue> &cues)
    {
        for (const Cue &cue : cues) {
            list.add(cue);
        }
    }

    // Pictures `from` to `until` milliseconds at a rate; what they carry that says something.
    std::vector<Sent> run(int64_t from, int64_t until, int64_t rate, int64_t per = 1)
    {
        std::vector<Sent> sent;
        carried = 0;
        for (int64_t i = 0; from + i * 1000 * per / rate < until; ++i) {
            const int64_t time = from + i * 1000 * per / rate;
            const std::optional<CaptionPair> pair = popOn.next(time);
            carried += pair ? 1 : 0;
            if (pair && *pair != CaptionPair{}) {
                sent.push_back({time, *pair});
            }
        }
        return sent;
    }

    CueList list;
    PopOn popOn{list};
    int carried = 0; // pictures with a pair, empty ones included
};

// When a pair is sent for the first time at or behind `from`; -1: never.
int64_t timeOf(const std::vector<Sent> &sent, CaptionPair pair, int64_t from = 0)
{
    for (const Sent &each : sent) {
        if (each.pair == pair && each.time >= from) {
            return each.time;
        }
    }
    return -1;
}

} // namespace

TEST(PopOn, ACaptionIsLoadedInFrontOfItsTimeShownAtItAndErasedAtItsEnd)
{
    Stream stream({{.start = 2000, .end = 3000, .text = "Hi"}});
    const std::vector<Sent> sent = stream.run(0, 4000, 25);
    std::vector<CaptionPair> pairs;
    for (const Sent &each : sent) {
        pairs.push_back(each.pair);
    }
    EXPECT_EQ(pairs, (std::vector<CaptionPair>{{0x94, 0x20},
                                               {0x94, 0x20},
                                               {0x94, 0xAE},
                                               {0x94, 0xAE},
                                               {0x94, 0x70},
                                               {0x94, 0x70},
                                               kHi,
                                               kFlip,
                                               kFlip,
                                               kErase,
                                               kErase}));
    EXPECT_EQ(sent.front().time, 1240); // 7 pairs of 40 ms and half a second early: 1220
    EXPECT_EQ(sent[1].time, 1280);      // one pair a picture
    EXPECT_EQ(timeOf(sent, kFlip), 2000);
    EXPECT_EQ(timeOf(sent, kErase), 3000);
}

TEST(PopOn, TimesHoldAtEveryFrameRate)
{
    const std::vector<std::pair<int64_t, int64_t>> rates = {{10, 1},       {24, 1}, {30, 1},
                                                            {30000, 1001}, {50, 1}, {60, 1}};
    for (const auto &[rate, per] : rates) {
        Stream stream({{.start = 4000, .end = 6000, .text = "Hi, a line of thirty letters."}});
        const std::vector<Sent> sent = stream.run(0, 8000, rate, per);
        const int64_t tick = 1000 * per / rate + 34;
        EXPECT_GE(timeOf(sent, kFlip), 4000) << rate;
        EXPECT_LE(timeOf(sent, kFlip), 4000 + tick) << rate;
        EXPECT_GE(timeOf(sent, kErase), 6000) << rate;
        EXPECT_LE(timeOf(sent, kErase), 6000 + tick) << rate;
    }
}

TEST(PopOn, LineTwentyOneHasThirtyPairsASecondHoweverManyPictures)
{
    Stream stream({});
    stream.run(0, 10000, 30);
    EXPECT_EQ(stream.carried, 300) << "each picture has one";
    Stream fast({});
    fast.run(0, 10000, 60);
    EXPECT_NEAR(fast.carried, 302, 2);
    Stream slow({});
    slow.run(0, 10000, 24);
    EXPECT_EQ(slow.carried, 240);
}

// What follows at once is loaded behind what is shown, and takes its place in one step.
TEST(PopOn, ACaptionThatFollowsAtOnceTakesThePlaceOfTheOneBefore)
{
    Stream stream({{.start = 2000, .end = 3000, .text = "Hi"}, {.start = 3000, .end = 4000, .text = "Hi"}});
    const std::vector<Sent> sent = stream.run(0, 5000, 25);
    EXPECT_EQ(timeOf(sent, kFlip), 2000);
    EXPECT_EQ(timeOf(sent, kFlip, 2100), 3000);
    EXPECT_EQ(timeOf(sent, kErase), 4000);
}

TEST(PopOn, EveryControlCodeStandsInTwoPicturesOneBehindTheOther)
{
    Stream stream(
        {{.start = 2000, .end = 2200, .text = "Hi"}, {.start = 2300, .end = 4000, .text = "♪ one\ntwo"}});
    const std::vector<Sent> sent = stream.run(0, 5000, 25);
    size_t codes = 0;
    for (size_t i = 0; i < sent.size(); ++i) {
        if (sent[i].pair.isControl()) {
            ASSERT_LT(i + 1, sent.size());
            EXPECT_EQ(sent[i + 1], (Sent{sent[i].time + 40, sent[i].pair}));
            ++codes;
            ++i;
        }
    }
    // RCL, ENM, row, EOC, EDM; RCL, ENM, row, note, row, EOC, EDM
    EXPECT_EQ(codes, 12u);
}

TEST(PopOn, WhatIsOverIsPassedOver)
{
    std::vector<Cue> cues;
    for (int64_t i = 0; i < 1000; ++i) {
        cues.push_back({.start = i * 10, .end = i * 10 + 10, .text = "A"});
    }
    cues.push_back({.start = 12000, .end = 13000, .text = "Hi"});
    Stream stream(cues);
    const std::vector<Sent> sent = stream.run(11000, 14000, 25);
    EXPECT_EQ(sent.size(), 11u);
    EXPECT_EQ(timeOf(sent, kFlip), 12000);
}

TEST(PopOn, ACueOfManyRowsTakesTurns)
{
    Stream stream({{.start = 4000, .end = 8000, .text = "1\n2\n3\n4\nHi"}});
    const std::vector<Sent> sent = stream.run(0, 9000, 25);
    EXPECT_EQ(timeOf(sent, kFlip), 4000);
    EXPECT_EQ(timeOf(sent, kFlip, 4100), 6000);
    EXPECT_EQ(timeOf(sent, kErase), 8000);
}

TEST(PopOn, CuesMayComeWhilePicturesGo)
{
    Stream stream({});
    EXPECT_TRUE(stream.run(0, 1000, 25).empty());
    stream.list.add({.start = 2000, .end = 3000, .text = "Hi"});
    EXPECT_EQ(timeOf(stream.run(1000, 4000, 25), kFlip), 2000);
}
