// The figures that live_host writes: a line of JSON, whole or not at all.
#include "common/session_watch.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace {

std::string contentOf(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

Look sampleLook()
{
    SessionLook session = {};
    session.name = "o\"ne\\\n";
    session.figures = {.Viewers = 1,
                       .ViewersInAll = 2,
                       .Bytes = 3,
                       .Frames = 4,
                       .DroppedFrames = 5,
                       .RingMessages = 6,
                       .RingMilliseconds = 7,
                       .RingBytes = 8,
                       .SlowestMilliseconds = 9,
                       .SlowestPictures = 10};
    RtmpClientFigures viewer = {};
    strcpy(viewer.Address, "192.0.2.7");
    viewer.Port = 11;
    viewer.IsTls = 1;
    viewer.State = CLIENT_STATE_PAUSE_DONE;
    viewer.Milliseconds = 12;
    viewer.Bytes = uint64_t{1} << 40;
    viewer.Frames = 14;
    viewer.DroppedFrames = 15;
    viewer.Restarts = 16;
    viewer.LagMilliseconds = 17;
    viewer.LagPictures = 18;
    viewer.WaitingBytes = 19;
    viewer.RoundTripMicros = 20;
    session.viewers.push_back(viewer);
    return {{session}};
}

} // namespace

TEST(SessionWatch, ALineHoldsEveryFigure)
{
    const Second second = {.unixTime = 1700000000, .uptime = 21, .inKbps = 22.9, .outKbps = 23.1};
    EXPECT_EQ(
        jsonLine(second, sampleLook()),
        R"({"time":1700000000,"uptime":21,"viewers":1,"in_kbit_s":22,"out_kbit_s":23,"dropped_frames":5,)"
        R"("slowest_milliseconds":9,"sessions":[{"name":"o\"ne\\\u000a","viewers":1,"viewers_in_all":2,)"
        R"("bytes":3,"frames":4,"dropped_frames":5,"ring_messages":6,"ring_milliseconds":7,"ring_bytes":8,)"
        R"("slowest_milliseconds":9,"slowest_pictures":10,"clients":[{"address":"192.0.2.7","port":11,)"
        R"("tls":true,"state":"paused","milliseconds":12,"bytes":1099511627776,"frames":14,)"
        R"("dropped_frames":15,"restarts":16,"lag_milliseconds":17,"lag_pictures":18,"waiting_bytes":19,)"
        R"("round_trip_micros":20}]}]})"
        "\n");
}

TEST(SessionWatch, NobodyAndNothingIsALineToo)
{
    EXPECT_EQ(jsonLine({}, {}), R"({"time":0,"uptime":0,"viewers":0,"in_kbit_s":0,"out_kbit_s":0,)"
                                R"("dropped_frames":0,"slowest_milliseconds":0,"sessions":[]})"
                                "\n");
    EXPECT_TRUE(SessionWatch().look(true).sessions.empty());
}

TEST(SessionWatch, SumsUpSessions)
{
    Look look = sampleLook();
    look.sessions.push_back(look.sessions[0]);
    look.sessions[1].figures.SlowestMilliseconds = 4;
    EXPECT_EQ(look.viewers(), 2U);
    EXPECT_EQ(look.bytes(), 6U);
    EXPECT_EQ(look.droppedFrames(), 10U);
    EXPECT_EQ(look.slowestMilliseconds(), 9U) << "of the slowest";
}

TEST(LineFile, GrowsByWholeLinesBehindWhatIsThere)
{
    std::string path = testing::TempDir() + "/rtmpcast_lines_XXXXXX";
    close(mkstemp(path.data()));
    {
        LineFile file(path);
        EXPECT_TRUE(file.append("one\n"));
        EXPECT_EQ(contentOf(path), "one\n") << "nothing is held back";
        EXPECT_TRUE(file.append("two\n"));
    }
    EXPECT_TRUE(LineFile(path).append("three\n"));
    EXPECT_EQ(contentOf(path), "one\ntwo\nthree\n");
    std::filesystem::remove(path);
}

TEST(LineFile, SaysWhyItCannotBeWritten)
{
    try {
        LineFile file("/nonexistent/file");
        FAIL();
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "--stats-json: '/nonexistent/file': No such file or directory");
    }
    EXPECT_FALSE(LineFile("/dev/full").append("one\n"));
}
