#include "instruments/debug_trace.h"

#include "support/produced.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace {

struct DebugDeleter {
    void operator()(RtmpQueueDebug *debug) const
    {
        RtmpQueueDebugDestroy(debug);
    }
};
using Debug = std::unique_ptr<RtmpQueueDebug, DebugDeleter>;

// A directory of its own for every test; the traces go into one below it that does not exist yet.
class DebugTrace : public testing::Test {
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/rtmpcast-trace-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        root_ = name;
        directory_ = root_ + "/t";
    }
    void TearDown() override
    {
        std::filesystem::remove_all(root_);
    }

    std::vector<std::filesystem::path> files() const
    {
        std::vector<std::filesystem::path> found;
        if (std::filesystem::exists(directory_)) {
            for (const auto &entry : std::filesystem::directory_iterator(directory_)) {
                found.push_back(entry.path());
            }
        }
        return found;
    }
    std::string text() const
    {
        const std::vector<std::filesystem::path> all = files();
        if (all.size() != 1) {
            return "(" + std::to_string(all.size()) + " files)";
        }
        std::ifstream in(all[0]);
        std::stringstream out;
        out << in.rdbuf();
        produced::Note("file", all[0].string());
        for (std::string line; std::getline(out, line);) {
            produced::Note("file", line + "\n");
        }
        return out.str();
    }

    std::string root_;
    std::string directory_;
};

} // namespace

TEST_F(DebugTrace, TheFileIsNamedAfterTheSecondInADirectoryMadeForIt)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 25));
    const long before = time(nullptr);
    EXPECT_EQ(RtmpQueueDebugInit(debug.get(), 4000), 0);
    const long after = time(nullptr);
    EXPECT_EQ(debug->StartTs, 4000U);
    ASSERT_EQ(files().size(), 1U);
    const std::string name = files()[0].filename();
    EXPECT_TRUE(name == "debug-" + std::to_string(before) + ".csv" ||
                name == "debug-" + std::to_string(after) + ".csv")
        << name;
    EXPECT_EQ(std::filesystem::status(directory_).permissions() & std::filesystem::perms::owner_all,
              std::filesystem::perms::owner_all);
}

TEST_F(DebugTrace, ALineHoldsTheSevenColumns)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 0));
    RtmpQueueBWM monitor = {};
    monitor.Kbps = 3210;
    RtmpQueueAdaptiveBitrate abr = {};
    abr.CurrentBitrate = 2500999;
    RtmpThreadedQueue queue = {};
    queue.Debug = debug.get();
    queue.Bwm = &monitor;
    queue.Abr = &abr;
    RtmpQueueDebugInit(debug.get(), 1000);
    debug->Dropped = 17;
    EXPECT_EQ(RtmpQueueDebugLog(&queue, 1033, 5, {10, 999000}, {11, 11000}), 0);
    EXPECT_EQ(text(), "33,3210,2500,0,5,17,12\n");
}

TEST_F(DebugTrace, MissingCompanionsReadZeroAndAnEarlierFrameIsNegative)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 0));
    RtmpThreadedQueue queue = {};
    queue.Debug = debug.get();
    RtmpQueueDebugInit(debug.get(), 1000);
    RtmpQueueDebugLog(&queue, 990, 0, {10, 0}, {10, 0});
    RtmpQueueDebugLog(&queue, 1000 + 5000000000ULL, 1, {10, 0}, {12, 0});
    EXPECT_EQ(text(), "-10,0,0,0,0,0,0\n5000000000,0,0,0,1,0,2000\n");
}

TEST_F(DebugTrace, AControllerThatHasNotStartedShowsItsMinusOne)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 0));
    RtmpQueueAdaptiveBitrate abr = {};
    abr.CurrentBitrate = -1;
    RtmpThreadedQueue queue = {};
    queue.Debug = debug.get();
    queue.Abr = &abr;
    RtmpQueueDebugInit(debug.get(), 1000);
    RtmpQueueDebugLog(&queue, 1000, 0, {10, 0}, {10, 0});
    EXPECT_EQ(text(), "0,0,0,0,0,0,0\n"); // -1 / 1000
}

TEST_F(DebugTrace, WithTwentyFiveTheFirstLineComesAtTheTwentySixthFrameThenEveryTwentyFive)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 25));
    RtmpThreadedQueue queue = {};
    queue.Debug = debug.get();
    RtmpQueueDebugInit(debug.get(), 1);
    std::string expected;
    for (uint64_t frame = 1; frame <= 80; frame++) {
        RtmpQueueDebugLog(&queue, 1 + frame, 0, {10, 0}, {10, 0});
        if (frame == 26 || frame == 51 || frame == 76) {
            expected += std::to_string(frame) + ",0,0,0,0,0,0\n";
        }
        ASSERT_EQ(text(), expected) << frame; // flushed after every line
    }
}

TEST_F(DebugTrace, WithZeroEveryFrameGetsALine)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 0));
    RtmpThreadedQueue queue = {};
    queue.Debug = debug.get();
    RtmpQueueDebugInit(debug.get(), 1);
    for (uint64_t frame = 0; frame < 3; frame++) {
        RtmpQueueDebugLog(&queue, 1 + frame, 0, {10, 0}, {10, 0});
    }
    EXPECT_EQ(text(), "0,0,0,0,0,0,0\n1,0,0,0,0,0,0\n2,0,0,0,0,0,0\n");
}

TEST_F(DebugTrace, NothingIsWrittenWithoutLoggingOrAFile)
{
    const Debug off(RtmpQueueDebugCreate(1, 0, directory_.c_str(), 0));
    RtmpThreadedQueue queue = {};
    queue.Debug = off.get();
    RtmpQueueDebugInit(off.get(), 1);
    EXPECT_EQ(RtmpQueueDebugLog(&queue, 1, 0, {10, 0}, {10, 0}), 0);
    EXPECT_EQ(text(), ""); // the file is made all the same

    const Debug noFile(RtmpQueueDebugCreate(0, 1, (root_ + "/no/such/place").c_str(), 0));
    queue.Debug = noFile.get();
    EXPECT_EQ(RtmpQueueDebugInit(noFile.get(), 1), 0);
    EXPECT_EQ(noFile->File, nullptr);
    EXPECT_EQ(RtmpQueueDebugLog(&queue, 1, 0, {10, 0}, {10, 0}), 0);
    EXPECT_EQ(noFile->FramesSinceLine, 0U);

    queue.Debug = nullptr;
    EXPECT_EQ(RtmpQueueDebugLog(&queue, 1, 0, {10, 0}, {10, 0}), 1);
}

TEST_F(DebugTrace, ASecondInitKeepsTheOpenFile)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory_.c_str(), 0));
    RtmpQueueDebugInit(debug.get(), 0); // the host's clock starts at 0: it is called again
    FILE *file = debug->File;
    RtmpQueueDebugInit(debug.get(), 40);
    EXPECT_EQ(debug->File, file);
    EXPECT_EQ(debug->StartTs, 40U);
    EXPECT_EQ(files().size(), 1U);
}

TEST_F(DebugTrace, AResetClosesTheFileAndForgetsTheCounters)
{
    const Debug debug(RtmpQueueDebugCreate(1, 1, directory_.c_str(), 7));
    RtmpQueueDebugInit(debug.get(), 5);
    RtmpQueueDebugUpdate(debug.get(), nullptr, 500);
    debug->Dropped = 3;
    debug->FramesSinceLine = 4;
    EXPECT_EQ(RtmpQueueDebugReset(debug.get()), 0);
    EXPECT_EQ(debug->File, nullptr);
    EXPECT_EQ(debug->StartTs, 0U);
    EXPECT_EQ(debug->Elapsed, 0U);
    EXPECT_EQ(debug->Dropped, 0U);
    EXPECT_EQ(debug->FramesSinceLine, 0U);
    EXPECT_EQ(debug->LogEvery, 7U);
    EXPECT_EQ(debug->LogEnable, 1);
    EXPECT_EQ(debug->BurninEnable, 1);
    EXPECT_EQ(std::string(debug->Directory), directory_);
    std::filesystem::remove_all(directory_);
    RtmpQueueDebugInit(debug.get(), 6);
    EXPECT_EQ(files().size(), 1U);
}

TEST_F(DebugTrace, APathLongerThan127BytesIsCut)
{
    // 120 bytes of directory: "/debug-" is all that fits behind it.
    const std::string directory = root_ + "/" + std::string(119 - root_.size(), 'd');
    ASSERT_EQ(directory.size(), 120U);
    const Debug debug(RtmpQueueDebugCreate(0, 1, directory.c_str(), 0));
    RtmpQueueDebugInit(debug.get(), 1);
    EXPECT_NE(debug->File, nullptr);
    EXPECT_TRUE(std::filesystem::exists(directory + "/debug-"));
}

TEST_F(DebugTrace, ADirectoryNameIsCutAt1023Bytes)
{
    const Debug debug(RtmpQueueDebugCreate(0, 1, std::string(2000, 'x').c_str(), 0));
    EXPECT_EQ(std::string(debug->Directory), std::string(1023, 'x'));
    const Debug none(RtmpQueueDebugCreate(0, 1, nullptr, 0));
    EXPECT_EQ(std::string(none->Directory), "");
}

TEST_F(DebugTrace, UpdateMeasuresFromTheStart)
{
    const Debug debug(RtmpQueueDebugCreate(0, 0, directory_.c_str(), 0));
    RtmpQueueDebugInit(debug.get(), 100);
    EXPECT_EQ(RtmpQueueDebugUpdate(debug.get(), nullptr, 100), 0);
    EXPECT_EQ(debug->Elapsed, 0U);
    RtmpQueueDebugUpdate(debug.get(), nullptr, 1599);
    EXPECT_EQ(debug->Elapsed, 1499U);
}

TEST_F(DebugTrace, BurnInTextsRoundTheSecondsAndShowWhatWasAsked)
{
    RtmpQueueDebug debug = {};
    debug.BurninEnable = 1;
    debug.Dropped = 4;
    debug.Elapsed = 1499;
    EXPECT_EQ(RtmpQueueDebugBurnin(&debug, nullptr, -1, 900, 2500000), 0);
    EXPECT_STREQ(debug.RateText, "1:900 2500");
    EXPECT_STREQ(debug.QueueText, "");
    debug.Elapsed = 1500;
    RtmpQueueDebugBurnin(&debug, nullptr, 12, 901, 2500999);
    EXPECT_STREQ(debug.RateText, "2:901 2500");
    EXPECT_STREQ(debug.QueueText, "12 4 0");
    RtmpQueueDebugBurnin(&debug, nullptr, 0, 0, 1);
    EXPECT_STREQ(debug.RateText, "2:901 2500"); // no rate, no text
    EXPECT_STREQ(debug.QueueText, "0 4 0");
    RtmpQueueDebugBurnin(&debug, nullptr, -1, -1, 1);
    EXPECT_STREQ(debug.RateText, "2:901 2500");
}

TEST_F(DebugTrace, BurnInTextsAreCutAtNineteenCharacters)
{
    RtmpQueueDebug debug = {};
    debug.BurninEnable = 1;
    debug.Elapsed = 123456789000ULL;
    RtmpQueueDebugBurnin(&debug, nullptr, 2000000000, 2000000000, 2000000000);
    EXPECT_STREQ(debug.RateText, "123456789:200000000");
    EXPECT_STREQ(debug.QueueText, "2000000000 0 0");
}

TEST_F(DebugTrace, WithoutBurnInNoTextIsMade)
{
    RtmpQueueDebug debug = {};
    EXPECT_EQ(RtmpQueueDebugBurnin(&debug, nullptr, 1, 1, 1), 0);
    EXPECT_STREQ(debug.RateText, "");
    EXPECT_STREQ(debug.QueueText, "");
}

TEST_F(DebugTrace, NoRecordIsAnswered)
{
    EXPECT_EQ(RtmpQueueDebugInit(nullptr, 1), 1);
    EXPECT_EQ(RtmpQueueDebugUpdate(nullptr, nullptr, 1), 1);
    EXPECT_EQ(RtmpQueueDebugReset(nullptr), 1);
    EXPECT_EQ(RtmpQueueDebugBurnin(nullptr, nullptr, 1, 1, 1), 1);
    RtmpQueueDebugDestroy(nullptr);
}
