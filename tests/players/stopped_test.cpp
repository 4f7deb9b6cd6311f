// A player that is stopped, as on a laptop that is closed for a moment, and one beside it that is not.
#include "stage.h"

#include "support/wait.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kStopped(10);
constexpr double kPictureMs = 1000.0 / 30;
constexpr double kSoundMs = 1024 * 1000.0 / 44100;

// Four seconds of the clip in the ring and half a second in the kernel's buffers: ten are more. Time on a
// slow machine is no reason to drop a player.
std::vector<std::string> ShortRing(const std::string &stats)
{
    return {"--ring-ms", "4000", "--send-buffer", "16", "--stall-ms", "60000", "--stats-json", stats};
}

std::string Content(const std::string &file)
{
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What is behind `text` where it stands last, as a number; -1: it is not there.
double NumberBehindTheLast(const std::string &output, const std::string &text)
{
    const size_t found = output.rfind(text);
    return found != std::string::npos ? atof(output.c_str() + found + text.size()) : -1;
}

// ffmpeg, which takes the packets as they are.
class FfmpegRecorder {
  public:
    FfmpegRecorder(const std::string &url, const std::string &file)
        : process_({"ffmpeg", "-nostdin", "-i", url, "-map", "0", "-c", "copy", "-progress", "pipe:1", file})
    {
    }
    bool waitForSeconds(double seconds)
    {
        return process_.waitForOutput([seconds](const std::string &output) {
            return NumberBehindTheLast(output, "out_time_us=") >= seconds * 1e6;
        });
    }
    void signal(int number)
    {
        process_.signal(number);
    }
    void stop()
    {
        process_.signal(SIGINT);
        EXPECT_TRUE(process_.wait().has_value()) << "ffmpeg does not end";
    }
    std::string output() const
    {
        return process_.output();
    }

  private:
    Process process_;
};

// What a recording has of pictures, or of sound, in front of the one place where some are missing and behind.
struct Halves {
    std::vector<Packet> before;
    std::vector<Packet> after;
    int64_t gap() const // milliseconds
    {
        return after.front().time - before.back().time;
    }
    // How many frames of this length are missing.
    long missing(double milliseconds) const
    {
        return std::lround(static_cast<double>(gap()) / milliseconds) - 1;
    }
};

Halves CutAtTheGap(const std::vector<Packet> &packets)
{
    constexpr int64_t kGapMs = 1000;
    const auto found = std::ranges::adjacent_find(
        packets, [](const Packet &before, const Packet &after) { return after.time - before.time > kGapMs; });
    const auto cut = found != packets.end() ? found + 1 : found;
    return {{packets.begin(), cut}, {cut, packets.end()}};
}

testing::AssertionResult PicturesFollow(const std::vector<Packet> &pictures)
{
    return Follows(pictures, PacketsOf(CLIP_PATH, 'v'), 32, 35);
}

testing::AssertionResult SoundFollows(const std::vector<Packet> &sound)
{
    return Follows(sound, PacketsOf(CLIP_PATH, 'a'), 11, 47);
}

// Every packet is the clip's next, from the beginning to an end far behind the stop.
void ExpectEveryFrame(const std::string &file, const Directory &work)
{
    const std::vector<Packet> pictures = PacketsOf(file, 'v');
    const std::vector<Packet> sound = PacketsOf(file, 'a');
    ASSERT_FALSE(pictures.empty() || sound.empty());
    EXPECT_TRUE(PicturesFollow(pictures));
    EXPECT_TRUE(SoundFollows(sound));
    const int64_t length = pictures.back().time - pictures.front().time;
    EXPECT_GE(length, 12000);
    EXPECT_EQ(std::lround(static_cast<double>(length) / kPictureMs) + 1, static_cast<long>(pictures.size()));
    EXPECT_TRUE(Decodes(file, work));
}

// One gap, behind which it goes on at a key frame, on the same timeline; `dropped` frames are missing there.
void ExpectOneGap(const std::string &file, const Directory &work, long dropped)
{
    constexpr int64_t kTogetherMs = 500;
    constexpr long kAtSeams = 6; // sound that the seams of the clip leave out, three packets for each
    const std::vector<Packet> clip = PacketsOf(CLIP_PATH, 'v');
    const Halves pictures = CutAtTheGap(PacketsOf(file, 'v'));
    const Halves sound = CutAtTheGap(PacketsOf(file, 'a'));
    ASSERT_FALSE(pictures.before.empty() || pictures.after.empty() || sound.after.empty());
    EXPECT_TRUE(pictures.before.front().key);
    EXPECT_TRUE(pictures.after.front().key);
    EXPECT_TRUE(PicturesFollow(pictures.before) && PicturesFollow(pictures.after));
    EXPECT_TRUE(SoundFollows(sound.before) && SoundFollows(sound.after));
    EXPECT_GE(pictures.after.size(), 30U);
    EXPECT_LE(std::abs(pictures.after.front().time - sound.after.front().time), kTogetherMs);
    const auto placeOf = [&clip](const Packet &packet) {
        return std::ranges::find(clip, packet.hash, &Packet::hash) - clip.begin();
    };
    const long missing = pictures.missing(kPictureMs);
    EXPECT_EQ((placeOf(pictures.before.back()) + 1 + missing) % static_cast<long>(clip.size()),
              placeOf(pictures.after.front()));
    EXPECT_NEAR(static_cast<double>(dropped), static_cast<double>(missing + sound.missing(kSoundMs)),
                kAtSeams);
    EXPECT_TRUE(Decodes(file, work));
}

// Until so much time has passed, of which the recorder has had its part.
void RecordFor(Recorder &recorder, std::chrono::seconds time)
{
    const steady_clock::time_point end = steady_clock::now() + time;
    const double from = recorder.seconds();
    ASSERT_TRUE(recorder.waitForSeconds(from + static_cast<double>(time.count()))) << recorder.output();
    while (steady_clock::now() < end) {
        ASSERT_TRUE(recorder.waitForSeconds(recorder.seconds() + 0.1)) << recorder.output();
    }
}

// What the host says of the first viewer that left.
long DroppedForTheFirst(LiveHost &host)
{
    EXPECT_TRUE(host.waitForLog(" leaves live/stream after ")) << host.output();
    const std::string output = host.output();
    std::smatch found;
    const std::regex leaves(" leaves live/stream after .* frames, ([0-9]+) dropped\n");
    return std::regex_search(output, found, leaves) ? atol(found[1].str().c_str()) : -1;
}

// Whether the line of figures says that a player has gone on at a key frame, once.
bool HasRestarted(const std::string &stats)
{
    return std::regex_search(Content(stats), std::regex(R"("dropped_frames":[1-9][0-9]*,"restarts":1,)"));
}

template <typename Player> void StopOneBesideAnother(const std::vector<std::string> &options)
{
    Directory work;
    const std::string stats = work.path("stats.json");
    std::vector<std::string> words = ShortRing(stats);
    words.insert(words.end(), options.begin(), options.end());
    LiveHost host(words);
    Recorder watching(host.url(), work.path("watching.flv"), {});
    ASSERT_TRUE(watching.waitForSeconds(1)) << watching.output() << host.output();
    Player stopped(host.url(), work.path("stopped.flv"));
    ASSERT_TRUE(stopped.waitForSeconds(1)) << stopped.output() << host.output();

    stopped.signal(SIGSTOP);
    ASSERT_NO_FATAL_FAILURE(RecordFor(watching, kStopped));
    EXPECT_EQ(Content(stats).find("\"restarts\":1"), std::string::npos) << "it takes nothing";
    stopped.signal(SIGCONT);
    EXPECT_TRUE(WaitUntil([&stats] { return HasRestarted(stats); })) << host.output();
    ASSERT_NO_FATAL_FAILURE(RecordFor(watching, std::chrono::seconds(2)));
    stopped.stop();
    const long dropped = DroppedForTheFirst(host);
    EXPECT_GT(dropped, 100);
    watching.stop();
    EXPECT_TRUE(host.waitForLog(" frames, 0 dropped\n")) << host.output();
    EXPECT_EQ(host.stop(SIGTERM), (Exit{0, 0})) << host.output();
    ExpectEveryFrame(work.path("watching.flv"), work);
    ExpectOneGap(work.path("stopped.flv"), work, dropped);
}

// rtmpdump without options.
struct PlainRecorder : Recorder {
    PlainRecorder(const std::string &url, const std::string &file) : Recorder(url, file, {}) {}
};

} // namespace

TEST(StoppedPlayer, RtmpdumpGoesOnAtAKeyFrameAndTheOtherMissesNothing)
{
    StopOneBesideAnother<PlainRecorder>({});
}

TEST(StoppedPlayer, FfmpegGoesOnAtAKeyFrameAndTheOtherMissesNothing)
{
    StopOneBesideAnother<FfmpegRecorder>({"--sender", "threaded"});
}
