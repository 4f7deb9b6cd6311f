// Every player that can be had, in front of the reference host.
#include "clients.h"
#include "http_file.h"
#include "support/wait.h"

namespace {

struct Row {
    const char *name;
    std::vector<std::string> words;
};

std::string NameOf(const testing::TestParamInfo<Row> &row)
{
    return row.param.name;
}

void PrintTo(const Row &row, std::ostream *out)
{
    *out << row.name;
}

} // namespace

TEST(EveryProgram, IsInstalled)
{
    EXPECT_EQ(RunToEnd({"ffplay", "-version"}).exit.code, 0);
    EXPECT_EQ(RunToEnd({"mpv", "--version"}).exit.code, 0);
    EXPECT_EQ(RunToEnd({"nginx", "-v"}).exit.code, 0);
    const Finished found = RunToEnd({"sh", "-c", "command -v vlc && command -v setpriv"});
    EXPECT_EQ(found.exit.code, 0) << found.output;
    for (const char *element : {"rtmpsrc", "rtmp2src", "flvdemux", "h264parse", "aacparse", "matroskamux"}) {
        EXPECT_EQ(RunToEnd({"gst-inspect-1.0", "--exists", element}).exit.code, 0) << element;
    }
}

// ------------------------------------------------------------------------------ players that record and end

namespace {

const Row kRecording[] = {
    {"FfmpegOfAnything", Ffmpeg({"-rtmp_live", "any"})},
    {"FfmpegOfTheRecorded", Ffmpeg({"-rtmp_live", "recorded"})},
    {"FfmpegOfTheLive", Ffmpeg({"-rtmp_live", "live"})},
    {"FfmpegWithAToken", Ffmpeg({}, "URL?token=x")},
    {"GstreamerRtmpsrc", Gstreamer("rtmpsrc", "URL", 170)},
    {"GstreamerRtmp2src", Gstreamer("rtmp2src", "URL", 240)},
};

class EveryPlayer : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(Of, EveryPlayer, testing::ValuesIn(kRecording), NameOf);

} // namespace

TEST_P(EveryPlayer, HasPicturesAndSound)
{
    Directory work;
    LiveHost host;
    const Finished player = RunToEnd(Words(GetParam().words, host, work), kPatienceMs);
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << host.output();
    EXPECT_TRUE(Plays(work.path("recording.mkv"), work)) << player.output << host.output();
}

TEST(Gstreamer, HasPicturesAndSoundWhenItSigns)
{
    Directory work;
    LiveHost host;
    HttpFile program("FWS, any bytes: they are hashed");
    const std::vector<std::string> words =
        Words(Gstreamer("rtmpsrc", "URL swfUrl=" + program.url() + " swfVfy=1", 170), host, work);
    const Finished player = RunToEnd(Join({"env", "HOME=" + work.path("")}, words), kPatienceMs);
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << host.output();
    EXPECT_TRUE(Plays(work.path("recording.mkv"), work)) << player.output << host.output();
}

// ------------------------------------------------------------------------------------------------- rtmpdump

namespace {

// Makes "connect" to "live" at a port of five digits 256 bytes long: two whole chunks.
const std::string kFlashVersion(72, 'A');

const Row kRtmpdump[] = {
    {"Plain", {}},
    {"ThatSubscribes", {"-v"}},
    {"ThatSigns", kSigned},
    {"ThatSignsAndSubscribes", Join({"-v"}, kSigned)},
    {"WithAToken", {"-y", "stream?token=x"}},
    {"OfAnMp4", {"-y", "mp4:stream"}},
    {"OfAnMp4WithAToken", {"-y", "mp4:stream?token=x"}},
    {"OfAnotherApplication", {"-a", "anything"}},
    {"ThatConnectsInTwoWholeChunks", {"-f", kFlashVersion}},
};

class EveryRtmpdump : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(Of, EveryRtmpdump, testing::ValuesIn(kRtmpdump), NameOf);

} // namespace

TEST_P(EveryRtmpdump, HasPicturesAndSound)
{
    Directory work;
    LiveHost host;
    const std::string file = work.path("recording.flv");
    Recorder recorder(host.url(), file, GetParam().words);
    EXPECT_TRUE(recorder.waitForSeconds(2.2)) << recorder.output() << host.output();
    recorder.stop();
    EXPECT_EQ(recorder.output().find("ERROR: HandleMetadata"), std::string::npos) << recorder.output();
    EXPECT_TRUE(Plays(file, work)) << recorder.output() << host.output();
}

// ------------------------------------------------------------------------------- players that only show

TEST(Ffplay, HasPicturesAndSound)
{
    LiveHost host;
    FfplayInFront ffplay(host);
    EXPECT_TRUE(ffplay.goesOnFor(2)) << ffplay.output() << host.output();
}

TEST(Mpv, HasPicturesAndSound)
{
    Directory work;
    LiveHost host;
    MpvInFront mpv(host, work);
    EXPECT_TRUE(mpv.plays()) << mpv.output() << host.output();
    EXPECT_TRUE(mpv.goesOnFor(2)) << mpv.output() << host.output();
}

TEST(Mpv, GoesOnWhenItIsAskedToSeek)
{
    Directory work;
    LiveHost host;
    MpvInFront mpv(host, work);
    ASSERT_TRUE(mpv.plays()) << mpv.output() << host.output();
    mpv.command(R"("seek",10,"relative")"); // beyond what it has: it asks the server
    EXPECT_TRUE(host.waitForLog("SEEK")) << host.output();
    EXPECT_TRUE(mpv.plays()) << mpv.output() << host.output();
    EXPECT_TRUE(mpv.goesOnFor(2)) << mpv.output() << host.output();
}

// It says nothing of that to the server, whose pictures are kept for later.
TEST(Mpv, GoesOnAfterAPause)
{
    Directory work;
    LiveHost host;
    MpvInFront mpv(host, work);
    ASSERT_TRUE(mpv.plays()) << mpv.output() << host.output();
    mpv.command(R"("set_property","pause",true)");
    const double paused = mpv.number("time-pos");
    const double kept = mpv.number("demuxer-cache-time");
    EXPECT_TRUE(WaitUntil([&] { return mpv.number("demuxer-cache-time") >= kept + 2; }, kPatienceMs));
    EXPECT_EQ(mpv.number("time-pos"), paused);
    mpv.command(R"("set_property","pause",false)");
    EXPECT_TRUE(mpv.goesOnFor(2)) << mpv.output() << host.output();
}

TEST(Vlc, HasPicturesAndSound)
{
    Directory work;
    LiveHost host;
    VlcInFront vlc(host, work);
    EXPECT_TRUE(vlc.goesOnFor(2)) << vlc.output() << host.output();
}

TEST(Vlc, GoesOnAfterAPause)
{
    Directory work;
    LiveHost host;
    VlcInFront vlc(host, work);
    ASSERT_TRUE(vlc.goesOnFor(1)) << vlc.output() << host.output();
    vlc.tell("pause");
    EXPECT_TRUE(host.waitForLog("Received Command message: PAUSE")) << host.output();
    ASSERT_TRUE(host.waitForMore("viewers 1", 1));
    const long paused = vlc.pictures();
    ASSERT_TRUE(host.waitForMore("viewers 1", 2)); // a second goes by between two of them
    EXPECT_EQ(vlc.pictures(), paused);
    vlc.tell("pause"); // as its key does: goes on
    EXPECT_TRUE(vlc.goesOnFor(2)) << vlc.output() << host.output();
}
