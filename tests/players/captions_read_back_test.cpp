// Captions of the reference host, read back from recordings: their words and their times.
#include "stage.h"
#include "support/scripted_peer.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

constexpr int64_t kCueEvery = 2000;  // ms; the next cue is loaded while one is erased
constexpr int64_t kLoneEvery = 3000; // behind the end of the one before
constexpr int64_t kCueLength = 1500;
constexpr int64_t kCaptionUnit = 22; // bytes that a picture grows by

struct ShownCue {
    int64_t start; // ms
    int64_t end;
    std::string text;
};

std::string SubRipTime(int64_t ms)
{
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d,%03d", static_cast<int>(ms / 3600000),
             static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
             static_cast<int>(ms % 1000));
    return text;
}

// A cue every few seconds, for five minutes, each with words of its own.
std::string CueText(int64_t number)
{
    return "Caption " + std::to_string(number) + ", it's said";
}

int64_t CueStart(int64_t number, int64_t every = kCueEvery)
{
    return 1000 + every * number;
}

std::string WriteCues(const Directory &work, int64_t every = kCueEvery, const std::string &text = "")
{
    const std::string file = work.path("cues.srt");
    std::ofstream out(file);
    for (int64_t i = 0; i < 150; i++) {
        out << i + 1 << "\n"
            << SubRipTime(CueStart(i, every)) << " --> " << SubRipTime(CueStart(i, every) + kCueLength)
            << "\n"
            << (text.empty() ? CueText(i) : text) << "\n\n";
    }
    return file;
}

// What ffmpeg's decoder of CEA-608 makes of the pictures, as SubRip. Times count from the first key frame.
std::vector<ShownCue> ReadBack(const std::string &recording, const Directory &work)
{
    const std::string file = work.path("read.srt");
    const Finished reader =
        RunToEnd({"ffmpeg", "-nostdin", "-y", "-v", "error", "-f", "lavfi", "-i",
                  "movie=" + recording + "[out+subcc]", "-map", "0:1", "-f", "srt", file});
    EXPECT_EQ(reader.exit, (Exit{0, 0})) << reader.output;
    std::vector<ShownCue> cues;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        int t[8];
        if (sscanf(line.c_str(), "%d:%d:%d,%d --> %d:%d:%d,%d", &t[0], &t[1], &t[2], &t[3], &t[4], &t[5],
                   &t[6], &t[7]) == 8) {
            cues.push_back({((t[0] * 60 + t[1]) * 60 + t[2]) * 1000 + t[3],
                            ((t[4] * 60 + t[5]) * 60 + t[6]) * 1000 + t[7], ""});
            std::getline(in, line);
            cues.back().text = std::regex_replace(line, std::regex("<[^>]*>|\\{[^}]*\\}"), "");
        }
    }
    return cues;
}

// The host's time, modulo the clip, of the first key frame of a recording whose pictures are the clip's with
// a caption in each; -1: they are not.
int64_t HostTimeOfStart(const std::string &recording)
{
    const std::vector<Packet> clip = PacketsOf(CLIP_PATH, 'v');
    const std::vector<Packet> pictures = PacketsOf(recording, 'v');
    const size_t key = static_cast<size_t>(
        std::ranges::find_if(pictures, [](const Packet &packet) { return packet.key; }) - pictures.begin());
    for (size_t begin = 0; begin < clip.size(); begin++) {
        size_t same = key;
        while (same < pictures.size() &&
               pictures[same].size == clip[(begin + same - key) % clip.size()].size + kCaptionUnit) {
            same++;
        }
        if (key < pictures.size() && same == pictures.size()) {
            return clip[begin].time - clip[0].time;
        }
    }
    return -1;
}

// Every cue that the recording holds whole has its words, its time and its length, a few pictures more or
// less.
void ExpectCues(const std::string &recording, const Directory &work)
{
    constexpr int64_t clipLength = 6000;
    const int64_t begin = HostTimeOfStart(recording);
    ASSERT_GE(begin, 0) << "each picture is the clip's and a caption";
    const std::vector<ShownCue> cues = ReadBack(recording, work);
    ASSERT_GE(cues.size(), 4U);
    for (size_t i = 1; i + 1 < cues.size(); i++) { // the first and the last may be cut
        const int64_t number = atoll(cues[i].text.c_str() + sizeof "Caption");
        EXPECT_EQ(cues[i].text, std::regex_replace(CueText(number), std::regex("'"), "\u2019"));
        EXPECT_EQ(number, atoll(cues[1].text.c_str() + sizeof "Caption") + static_cast<int64_t>(i) - 1);
        int64_t late = (cues[i].start + begin - CueStart(number)) % clipLength;
        late = late > clipLength / 2 ? late - clipLength : late < -clipLength / 2 ? late + clipLength : late;
        EXPECT_NEAR(static_cast<double>(late), 0, 150) << cues[i].text;
        EXPECT_NEAR(static_cast<double>(cues[i].end - cues[i].start), kCueLength, 100) << cues[i].text;
    }
}

// ------------------------------------------------------------------------------ the messages of mode 1

// "onCaptionInfo", {type: "708", data: sixteen letters}: all but the letters.
const std::string kInfoFront("\x02\0\x0DonCaptionInfo\x03\0\x04type\x02\0\x03"
                             "708\0\x04"
                             "data\x02\0\x10",
                             16 + 1 + 6 + 6 + 6 + 3);
const std::string kInfoEnd("\0\0\x09", 3);

std::string DataOf(const wire::Message &info)
{
    const std::string body(info.payload.begin(), info.payload.end());
    if (body.size() != kInfoFront.size() + 16 + kInfoEnd.size() || !body.starts_with(kInfoFront) ||
        !body.ends_with(kInfoEnd)) {
        return "malformed";
    }
    return body.substr(kInfoFront.size(), 16);
}

bool IsExact(const std::vector<std::string> &options)
{
    return std::ranges::find(options, "--exact") != options.end();
}

// The next so many data messages of a player that joins.
std::vector<wire::Message> ReadInfos(uint16_t port, bool isStandard, size_t count)
{
    wire::ScriptedPeer peer(port, kDeadlineMs);
    peer.chunks.standard = isStandard;
    peer.playing("stream");
    std::vector<wire::Message> infos;
    while (infos.size() < count) {
        wire::Message message = peer.read();
        if (message.type == 18 && message.payload.size() == kInfoFront.size() + 16 + kInfoEnd.size()) {
            infos.push_back(std::move(message));
        }
    }
    return infos;
}

// 00 00 00 06 C1 FF FC <pair> FF in base64: the pairs that "Hi" takes, from one end to the other.
const std::vector<std::string> kHi = {
    "AAAABsH//JQg/w==", "AAAABsH//JQg/w==", // RCL: 94 20
    "AAAABsH//JSu/w==", "AAAABsH//JSu/w==", // ENM: 94 AE
    "AAAABsH//JRw/w==", "AAAABsH//JRw/w==", // row 15: 94 70
    "AAAABsH//Mjp/w==",                     // Hi: C8 E9
    "AAAABsH//JQv/w==", "AAAABsH//JQv/w==", // EOC: 94 2F
    "AAAABsH//JQs/w==", "AAAABsH//JQs/w=="  // EDM: 94 2C
};
constexpr size_t kFlip = 7;
constexpr size_t kErase = 9;

// By road and sender. Each road once, and each sender: captions are made in front of both, and know neither.
struct CaptionRoad {
    const char *name;
    std::vector<std::string> options;
};

const CaptionRoad kRoads[] = {
    {"Exact", {"--exact"}},
    {"SteadyThreaded", {"--sender", "threaded"}},
};

class Captions : public testing::TestWithParam<CaptionRoad> {
  protected:
    std::vector<std::string> with(const std::vector<std::string> &more) const
    {
        std::vector<std::string> options = GetParam().options;
        options.insert(options.end(), more.begin(), more.end());
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(On, Captions, testing::ValuesIn(kRoads),
                         [](const testing::TestParamInfo<CaptionRoad> &row) {
                             return std::string(row.param.name);
                         });

} // namespace

TEST_P(Captions, InTheVideoAreReadBackWithTheirWordsAndTimes)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    LiveHost host(with({"--captions", WriteCues(work)}));
    Recorder recorder(host.url(), file);
    ASSERT_TRUE(recorder.waitForSeconds(9)) << recorder.output() << host.output();
    recorder.stop();
    EXPECT_EQ(host.stop(SIGTERM), (Exit{0, 0})) << host.output();
    EXPECT_TRUE(Decodes(file, work));
    ExpectCues(file, work);
}

TEST(CaptionsInFfmpeg, AreReadBackFromWhatItRecords)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    LiveHost host({"--captions", WriteCues(work)});
    const Finished player =
        RunToEnd({"ffmpeg", "-nostdin", "-i", host.url(), "-map", "0", "-c", "copy", "-t", "9", file});
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << host.output();
    ExpectCues(file, work);
}

// ffmpeg as the service that publish_host publishes to: it comes first or second, publish_host tries again.
TEST(CaptionsPublished, AreReadBackFromWhatTheServiceRecords)
{
    Directory work;
    const std::string file = work.path("recording.flv");
    const std::string url = "rtmp://127.0.0.1:" + std::to_string(SomePort()) + "/live/key";
    Process service({"ffmpeg", "-nostdin", "-v", "error", "-listen", "1", "-i", url, "-c", "copy", file});
    const Finished host = RunToEnd(
        {PUBLISH_HOST, "--input", CLIP_PATH, "--captions", WriteCues(work), "--to", url, "--duration", "14"});
    EXPECT_EQ(host.exit, (Exit{0, 0})) << host.output;
    EXPECT_TRUE(service.wait().has_value());
    EXPECT_TRUE(Decodes(file, work)) << host.output << service.output();
    ExpectCues(file, work);
}

// On a chunk stream of their own, where they disturb nobody's clock; and their times are the pictures'.
TEST_P(Captions, AsMessagesAreOnCaptionInfoWithTheirPairsAndTimes)
{
    Directory work;
    LiveHost host(with({"--captions", WriteCues(work, kLoneEvery, "Hi"), "--caption-mode", "1"}));
    const std::vector<wire::Message> infos =
        ReadInfos(host.port(), !IsExact(GetParam().options), 4 * kHi.size());
    EXPECT_EQ(host.stop(SIGTERM), (Exit{0, 0})) << host.output();
    EXPECT_EQ(host.output().find("Cannot"), std::string::npos) << host.output();

    size_t at = 0; // of kHi: the player joins anywhere in it
    while (at < kHi.size() &&
           (DataOf(infos[0]) != kHi[at] || DataOf(infos[1]) != kHi[(at + 1) % kHi.size()])) {
        at++;
    }
    size_t flips = 0; // the first may be late: it is loaded from when the player has joined
    int64_t flipped = 0;
    for (const wire::Message &info : infos) {
        const size_t place = at++ % kHi.size();
        EXPECT_EQ(DataOf(info), kHi[place]) << place;
        EXPECT_EQ(info.chunkStream, 30U);
        EXPECT_EQ(info.stream, 1U);
        if (place == kFlip && ++flips > 2) {
            EXPECT_NEAR(static_cast<double>(info.timestamp - flipped), kLoneEvery, 100);
        }
        flipped = place == kFlip ? info.timestamp : flipped;
        if (place == kErase && flips > 1) {
            EXPECT_NEAR(static_cast<double>(info.timestamp - flipped), kCueLength, 100);
        }
    }
    EXPECT_GT(flips, 1U);
}
