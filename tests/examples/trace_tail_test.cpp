#include "common/trace_tail.h"

#include "common/bitrate_wishes.h"

#include <gtest/gtest.h>

#include <fstream>

namespace fs = std::filesystem;

namespace {

class Directory {
  public:
    Directory() : path_(fs::path(testing::TempDir()) / ("trace_tail_" + std::to_string(getpid())))
    {
        fs::create_directory(path_);
    }
    ~Directory()
    {
        fs::remove_all(path_);
    }
    void write(const std::string &name, const std::string &text) const
    {
        std::ofstream(path_ / name, std::ios::binary) << text;
    }
    const fs::path &path() const
    {
        return path_;
    }

  private:
    fs::path path_;
};

} // namespace

TEST(TraceTail, ALineIsSevenNumbersAndNothingElse)
{
    const std::optional<TraceLine> line = parseTraceLine("4000,3950,4100,0,12,61,7");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->milliseconds, 4000);
    EXPECT_EQ(line->measuredKbps, 3950);
    EXPECT_EQ(line->targetKbps, 4100);
    EXPECT_EQ(line->queued, 12);
    EXPECT_EQ(line->dropped, 61);
    EXPECT_EQ(line->fanOutMs, 7);
    EXPECT_FALSE(parseTraceLine("4000,3950,4100,0,12,61"));
    EXPECT_FALSE(parseTraceLine("4000,3950,4100,0,12,61,7,8"));
    EXPECT_FALSE(parseTraceLine(""));
}

TEST(TraceTail, TheLastLineThatIsCompleteCounts)
{
    const Directory directory;
    const TraceTail tail(directory.path());
    EXPECT_FALSE(tail.newest());
    directory.write("debug-1.csv", "");
    EXPECT_FALSE(tail.newest());
    directory.write("debug-1.csv", "0,1,2,0,3,4");
    EXPECT_FALSE(tail.newest());
    directory.write("debug-1.csv", "0,1,2,0,3,4,5\n");
    EXPECT_EQ(tail.newest()->queued, 3);
    std::string many;
    for (int i = 0; i < 200; ++i) {
        many += "1000,1,2,0," + std::to_string(i) + ",4,5\n";
    }
    directory.write("debug-1.csv", many + "9999,1,2,0,7");
    EXPECT_EQ(tail.newest()->queued, 199);
}

TEST(TraceTail, TheNewestFileCountsAndOldOnesNever)
{
    const Directory directory;
    directory.write("debug-1.csv", "0,1,2,0,3,4,5\n");
    fs::last_write_time(directory.path() / "debug-1.csv",
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
    const TraceTail tail(directory.path());
    EXPECT_FALSE(tail.newest());
    directory.write("debug-2.csv", "0,1,2,0,33,4,5\n");
    directory.write("other.csv", "0,1,2,0,44,4,5\n");
    EXPECT_EQ(tail.newest()->queued, 33);
    EXPECT_FALSE(TraceTail(directory.path() / "none").newest());
}

TEST(BitrateWishes, TheLowestOfTheSessionsIsTakenOnce)
{
    BitrateWishes wishes;
    const int one = 0;
    const int other = 0;
    EXPECT_EQ(wishes.take(), 0);
    wishes.wish(&one, 4000);
    wishes.wish(&other, 3000);
    EXPECT_EQ(wishes.take(), 3000);
    EXPECT_EQ(wishes.take(), 0);
    wishes.wish(&other, 5000);
    EXPECT_EQ(wishes.take(), 4000);
}
