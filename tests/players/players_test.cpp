// What people do with the reference host when it is as strict as the library by default: players that record,
// come and go, or are turned away.
#include "stage.h"

#include <algorithm>
#include <csignal>
#include <filesystem>

namespace {

const Exit kCleanEnd = {0, 0};

// A picture every 33 or 34 ms; sound every 23 or 24, and at the seam of the clip a little more or less.
testing::AssertionResult PicturesFollow(const std::string &file, const std::string &clip)
{
    return Follows(PacketsOf(file, 'v'), PacketsOf(clip, 'v'), 33, 34);
}

testing::AssertionResult SoundFollows(const std::string &file, const std::string &clip)
{
    return Follows(PacketsOf(file, 'a'), PacketsOf(clip, 'a'), 11, 47);
}

std::vector<std::string> Exact(std::vector<std::string> options = {})
{
    options.push_back("--exact");
    return options;
}

// Records what a host with these options serves, for so many seconds.
void Record(const std::vector<std::string> &options, const std::string &file, double seconds)
{
    LiveHost host(Exact(options));
    Recorder recorder(host.url(), file);
    ASSERT_TRUE(recorder.waitForSeconds(seconds)) << recorder.output() << host.output();
    recorder.stop();
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
}

// By how the host sends.
class Sender : public testing::TestWithParam<const char *> {};

INSTANTIATE_TEST_SUITE_P(By, Sender, testing::Values("monitor", "threaded"),
                         [](const testing::TestParamInfo<const char *> &row) { return row.param; });

} // namespace

TEST(Programs, AreInstalled)
{
    EXPECT_EQ(RunToEnd({"rtmpdump", "--help"}).exit.code, 0);
    EXPECT_EQ(RunToEnd({"ffmpeg", "-version"}).exit.code, 0);
    EXPECT_EQ(RunToEnd({"ffprobe", "-version"}).exit.code, 0);
}

TEST(Player, RecordsWhatTheClipHolds)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    ASSERT_NO_FATAL_FAILURE(Record({}, file, 4));
    EXPECT_EQ(Describe(file, "v:0", "codec_name,width,height"), "h264,1280,720");
    EXPECT_EQ(Describe(file, "a:0", "codec_name,sample_rate,channels"), "aac,44100,2");
    EXPECT_GE(PacketsOf(file, 'v').size(), 90U);
    EXPECT_GE(PacketsOf(file, 'a').size(), 120U);
    EXPECT_TRUE(PicturesFollow(file, CLIP_PATH));
    EXPECT_TRUE(SoundFollows(file, CLIP_PATH));
    EXPECT_TRUE(Decodes(file, work));
}

// Two seconds, over and over: the seams cannot be told from the rest.
TEST(Player, SeesNoSeamBetweenTheRounds)
{
    Directory work;
    const std::string clip = MakeClip(work, "short.mp4", {"-t", "2", "-c", "copy"});
    const std::string file = work.path("recording.flv");
    ASSERT_NO_FATAL_FAILURE(Record({"--input", clip}, file, 5));
    EXPECT_GE(RoundsOf(PacketsOf(file, 'v'), PacketsOf(clip, 'v')), 2U);
    EXPECT_TRUE(PicturesFollow(file, clip));
    EXPECT_TRUE(SoundFollows(file, clip));
    EXPECT_TRUE(Decodes(file, work));
}

TEST_P(Sender, IsNotDisturbedByAPlayersDeath)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    LiveHost host(Exact({"--sender", GetParam()}));
    Recorder victim(host.url(), work.path("victim.flv"));
    Recorder survivor(host.url(), file);
    ASSERT_TRUE(victim.waitForSeconds(1)) << victim.output() << host.output();
    ASSERT_TRUE(survivor.waitForSeconds(1)) << survivor.output() << host.output();
    victim.kill();
    EXPECT_TRUE(host.waitForLog("Removed client; No. of connected clients : 1"));
    ASSERT_TRUE(survivor.waitForSeconds(3)) << survivor.output() << host.output();
    survivor.stop();
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
    EXPECT_TRUE(PicturesFollow(file, CLIP_PATH));
    EXPECT_TRUE(SoundFollows(file, CLIP_PATH));
    std::vector<Packet> seen = PacketsOf(work.path("victim.flv"), 'v');
    ASSERT_GE(seen.size(), 20U);
    seen.pop_back(); // it died while it wrote
    EXPECT_TRUE(Follows(seen, PacketsOf(CLIP_PATH, 'v'), 33, 34));
}

TEST_P(Sender, SendsTheSamePacketsWithoutCopying)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    ASSERT_NO_FATAL_FAILURE(Record({"--zero-copy", "--sender", GetParam(), "--chunk-size", "1000"}, file, 3));
    EXPECT_GE(PacketsOf(file, 'v').size(), 60U);
    EXPECT_TRUE(PicturesFollow(file, CLIP_PATH));
    EXPECT_TRUE(SoundFollows(file, CLIP_PATH));
}

TEST(Player, RecordsTheThreadedSender)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    ASSERT_NO_FATAL_FAILURE(Record({"--sender", "threaded"}, file, 3));
    EXPECT_GE(PacketsOf(file, 'v').size(), 60U);
    EXPECT_TRUE(PicturesFollow(file, CLIP_PATH));
    EXPECT_TRUE(SoundFollows(file, CLIP_PATH));
    EXPECT_TRUE(Decodes(file, work));
}

TEST(Player, RecordsAVideoWithoutSound)
{
    Directory work;
    const std::string clip = MakeClip(work, "silent.mp4", {"-an", "-c", "copy"});
    const std::string file = work.path("recording.flv");
    ASSERT_NO_FATAL_FAILURE(Record({"--input", clip}, file, 3));
    EXPECT_EQ(Describe(file, "v:0", "codec_name,width,height"), "h264,1280,720");
    EXPECT_EQ(Describe(file, "a:0", "codec_name"), "");
    EXPECT_TRUE(PicturesFollow(file, clip));
    EXPECT_TRUE(Decodes(file, work));
}

// Sound leaves in front of pictures only: without any, the player gets the description and nothing else, and
// what waits is given up from time to time.
TEST(Player, OfSoundAloneGetsItsDescription)
{
    Directory work;
    const std::string clip = MakeClip(work, "sound.mp4", {"-vn", "-c", "copy"});
    const std::string file = work.path("recording.flv");
    LiveHost host(Exact({"--input", clip}));
    Recorder recorder(host.url(), file);
    EXPECT_TRUE(host.waitForLog("ERROR: addRtmpPacketToBuffer: Audio Packet Overflow : 240 Total (h:0,t:0)"))
        << recorder.output() << host.output();
    recorder.stop();
    EXPECT_TRUE(host.waitForLog("Removed client; No. of connected clients : 0"));
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
    // FLV header and size:13  tag header:11  AF 00 and AudioSpecificConfig:4  size:4
    EXPECT_EQ(std::filesystem::file_size(file), 13U + 11 + 4 + 4);
}

TEST(Player, ChoosesAmongSessions)
{
    Directory work;
    LiveHost host(Exact({"--session", "one", "--session", "two"}));
    Recorder one(host.url("one"), work.path("one.flv"));
    Recorder two(host.url("two"), work.path("two.flv"));
    ASSERT_TRUE(one.waitForSeconds(2)) << one.output() << host.output();
    ASSERT_TRUE(two.waitForSeconds(2)) << two.output() << host.output();
    one.stop();
    two.stop();
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
    EXPECT_TRUE(PicturesFollow(work.path("one.flv"), CLIP_PATH));
    EXPECT_TRUE(PicturesFollow(work.path("two.flv"), CLIP_PATH));
}

// ----------------------------------------------------------------------------------------------- endings

TEST_P(Sender, EndsCleanlyUnderItsPlayers)
{
    Directory work;
    LiveHost host(Exact({"--sender", GetParam()}));
    Recorder one(host.url(), work.path("one.flv"));
    Recorder two(host.url(), work.path("two.flv"));
    ASSERT_TRUE(one.waitForSeconds(1)) << one.output() << host.output();
    ASSERT_TRUE(two.waitForSeconds(1)) << two.output() << host.output();
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
    EXPECT_NE(host.output().find("\nstopping: "), std::string::npos);
    EXPECT_TRUE(one.wait().has_value()) << "a player notices";
    EXPECT_TRUE(two.wait().has_value());
    EXPECT_TRUE(PicturesFollow(work.path("one.flv"), CLIP_PATH));
    EXPECT_TRUE(PicturesFollow(work.path("two.flv"), CLIP_PATH));
}

TEST(Host, GoesOnWithoutPlayers)
{
    Directory work;
    LiveHost host(Exact());
    for (const char *name : {"first.flv", "second.flv"}) {
        Recorder recorder(host.url(), work.path(name));
        ASSERT_TRUE(recorder.waitForSeconds(1)) << recorder.output() << host.output();
        recorder.stop();
        EXPECT_TRUE(PicturesFollow(work.path(name), CLIP_PATH)) << name;
    }
    EXPECT_EQ(host.stop(SIGINT), kCleanEnd) << host.output();
}

// ---------------------------------------------------------------------------------------------- refusals

namespace {

// The socket of a refused handshake stays open, so that rtmpdump waits for as long as -m says.
struct Refused {
    const char *name;
    std::vector<std::string> words; // "URL" stands for the session's
    const char *session;
    const char *line;
};

const std::string kHash(64, '0');

const Refused kRefused[] = {
    {"RtmpdumpThatDoesNotSign",
     {"rtmpdump", "-m", "2", "-o", "/dev/null", "-r", "URL"},
     "stream",
     "ERROR: PerformHandshake: Cannot varify the client digest"},
    {"RtmpdumpThatSubscribes",
     {"rtmpdump", "-v", "-w", kHash, "-x", "1", "-o", "/dev/null", "-r", "URL"},
     "stream",
     "INFO: ParseCmdMsgReq: Unsupported command message: FCSubscribe"},
    {"RtmpdumpWithAnUnknownName",
     {"rtmpdump", "-w", kHash, "-x", "1", "-o", "/dev/null", "-r", "URL"},
     "nosuch",
     "ERROR: ParseCmdMsgReq: Stream name not found"},
    {"FfmpegThatAsksForTheLength",
     {"ffmpeg", "-nostdin", "-i", "URL", "-f", "null", "-"},
     "stream",
     "INFO: ParseCmdMsgReq: Unsupported command message: getStreamLength"},
    {"FfmpegThatSubscribes",
     {"ffmpeg", "-nostdin", "-rtmp_live", "live", "-i", "URL", "-f", "null", "-"},
     "stream",
     "INFO: ParseCmdMsgReq: Unsupported command message: FCSubscribe"},
};

class Refusal : public testing::TestWithParam<Refused> {};

} // namespace

// Such a player gets nothing, the log says why, and others do not notice.
TEST_P(Refusal, IsLoggedAndCostsNobodyElseAnything)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    LiveHost host(Exact());
    Recorder recorder(host.url(), file);
    ASSERT_TRUE(recorder.waitForSeconds(1)) << recorder.output() << host.output();

    std::vector<std::string> words = GetParam().words;
    std::ranges::replace(words, "URL", host.url(GetParam().session));
    const std::unique_ptr<Process> player =
        words[0] == "rtmpdump" ? StartRtmpdump(words) : std::make_unique<Process>(words);
    Process &refused = *player;
    EXPECT_TRUE(host.waitForLog(GetParam().line)) << refused.output() << host.output();
    EXPECT_TRUE(host.waitForLog("ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"));
    const std::optional<Exit> exit = refused.wait();
    ASSERT_TRUE(exit.has_value());
    EXPECT_NE(exit, (Exit{0, 0}));
    EXPECT_NE(exit, (Exit{127, 0})) << "not installed";

    ASSERT_TRUE(recorder.waitForSeconds(2)) << recorder.output() << host.output();
    recorder.stop();
    EXPECT_EQ(host.stop(SIGTERM), kCleanEnd) << host.output();
    EXPECT_TRUE(PicturesFollow(file, CLIP_PATH));
}

INSTANTIATE_TEST_SUITE_P(Of, Refusal, testing::ValuesIn(kRefused),
                         [](const testing::TestParamInfo<Refused> &row) {
                             return std::string(row.param.name);
                         });
