// Cues out of SubRip and plain text.
#include "captions/cue_reader.h"

#include <gtest/gtest.h>

#include <vector>

bool operator==(const Cue &one, const Cue &other)
{
    return one.start == other.start && one.end == other.end && one.text == other.text;
}

void PrintTo(const Cue &cue, std::ostream *out)
{
    *out << cue.start << " to " << cue.end << ": '" << cue.text << "'";
}

namespace {

std::vector<Cue> read(const std::vector<std::string> &lines, int64_t now = 0)
{
    CueReader reader;
    std::vector<Cue> cues;
    for (const std::string &line : lines) {
        if (const std::optional<Cue> cue = reader.line(line, now)) {
            cues.push_back(*cue);
        }
    }
    if (const std::optional<Cue> cue = reader.end(now)) {
        cues.push_back(*cue);
    }
    return cues;
}

} // namespace

TEST(CueReader, ReadsSubRip)
{
    EXPECT_EQ(read({"1", "00:00:01,500 --> 00:00:04,000", "Hello", "there", "", "2",
                    "01:02:03,004 --> 01:02:05,006", "Bye", ""}),
              (std::vector<Cue>{{1500, 4000, "Hello\nthere"}, {3723004, 3725006, "Bye"}}));
}

TEST(CueReader, ReadsSubRipAsItIsFound)
{
    // a byte order mark, ends of lines of DOS, points, coordinates, tags, no empty line between, none at the
    // end
    EXPECT_EQ(read({"\xEF\xBB\xBF"
                    "1\r",
                    "00:00:01.500 --> 00:00:04.000 X1:1\r", "<i>Hello</i>{\\an8} 1 < 2\r", "2\r",
                    "00:00:05,000 --> 00:00:06,000\r", "Bye\r"}),
              (std::vector<Cue>{{1500, 4000, "Hello 1 < 2\n2"}, {5000, 6000, "Bye"}}));
}

TEST(CueReader, ShowsPlainLinesOneBehindTheOther)
{
    EXPECT_EQ(read({"Thirty letters are read in 2 s", "", "Short"}),
              (std::vector<Cue>{{1000, 3000, "Thirty letters are read in 2 s"}, {3000, 4500, "Short"}}));
}

TEST(CueReader, ShowsALineThatComesLateASecondLater)
{
    EXPECT_EQ(read({"Short"}, 60000), (std::vector<Cue>{{61000, 62500, "Short"}}));
}

TEST(CueReader, TakesANumberThatNoTimeFollowsForText)
{
    EXPECT_EQ(read({"42", "is the answer"}), (std::vector<Cue>{{1000, 2500, "42\nis the answer"}}));
    EXPECT_EQ(read({"42"}), (std::vector<Cue>{{1000, 2500, "42"}}));
    EXPECT_TRUE(read({"", " "}).empty());
}
