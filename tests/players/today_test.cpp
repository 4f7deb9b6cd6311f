// Players of today, as they are and without a word on the command line, in front of the reference host.
#include "stage.h"

TEST(Today, FfmpegPlays)
{
    Directory work;
    LiveHost host;
    const std::string file = work.path("recording.flv");
    const Finished player =
        RunToEnd({"ffmpeg", "-nostdin", "-i", host.url(), "-map", "0", "-c", "copy", "-t", "3", file});
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << host.output();
    EXPECT_TRUE(Plays(file, work)) << player.output << host.output();
}

TEST(Today, FfmpegPlaysWhatIsSentWithoutCopying)
{
    Directory work;
    LiveHost host({"--zero-copy", "--sender", "threaded", "--chunk-size", "1000"});
    const std::string file = work.path("recording.flv");
    const Finished player =
        RunToEnd({"ffmpeg", "-nostdin", "-i", host.url(), "-map", "0", "-c", "copy", "-t", "3", file});
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << host.output();
    EXPECT_TRUE(Plays(file, work)) << player.output << host.output();
}

TEST(Today, RtmpdumpPlays)
{
    Directory work;
    LiveHost host;
    const std::string file = work.path("recording.flv");
    Recorder recorder(host.url(), file, {});
    EXPECT_TRUE(recorder.waitForSeconds(2.5)) << recorder.output() << host.output();
    recorder.stop();
    EXPECT_TRUE(Plays(file, work)) << recorder.output() << host.output();
}
