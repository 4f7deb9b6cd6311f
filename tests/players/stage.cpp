#include "stage.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>

namespace {

// The number in front of " sec" at `end`, in rtmpdump's progress "622.453 kB / 2.94 sec".
double SecondsAt(const std::string &output, size_t end)
{
    const size_t from = end != std::string::npos ? output.rfind("/ ", end) : std::string::npos;
    return from != std::string::npos ? atof(output.c_str() + from + 2) : 0;
}

// What has been played: times begin when the player connected, which may have been a while before it played.
double SecondsIn(const std::string &output)
{
    return SecondsAt(output, output.rfind(" sec")) - SecondsAt(output, output.find(" sec"));
}

std::map<std::string, size_t> IndexOf(const std::vector<Packet> &clip)
{
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < clip.size(); i++) {
        if (!index.emplace(clip[i].hash, i).second) {
            throw std::runtime_error("the clip has the same packet twice: they cannot be told apart");
        }
    }
    return index;
}

// Sound that overlaps the seam is left out, so a few packets at either end of the clip may be missing.
bool IsSeam(size_t before, size_t after, size_t count)
{
    constexpr size_t kLeftOut = 3;
    return before + kLeftOut >= count && after < kLeftOut;
}

} // namespace

const std::vector<std::string> kSigned = {"-w", std::string(64, '0'), "-x", "1"};

uint16_t SomePort()
{
    static std::mt19937 generator{std::random_device{}()};
    return static_cast<uint16_t>(std::uniform_int_distribution<int>(10000, 32000)(generator));
}

Directory::Directory()
{
    std::string name = testing::TempDir() + "/rtmpcast_players_XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = name;
}

Directory::~Directory()
{
    std::filesystem::remove_all(path_);
}

LiveHost::LiveHost(const std::vector<std::string> &options)
{
    do {
        port_ = SomePort();
        std::vector<std::string> words = {
            LIVE_HOST, "--interface", "lo", "--rtmp-port", std::to_string(port_), "--log-level", "info"};
        words.insert(words.end(), options.begin(), options.end());
        process_ = std::make_unique<Process>(words);
        if (process_->waitForText("\nserving rtmp://")) {
            return;
        }
    } while (process_->output().find("is taken") != std::string::npos);
    throw std::runtime_error("live_host did not start: " + process_->output());
}

std::string LiveHost::url(const std::string &session) const
{
    return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live/" + session;
}

bool LiveHost::waitForMore(const std::string &text, size_t times)
{
    const auto count = [&text](const std::string &output) {
        size_t found = 0;
        for (size_t at = 0; (at = output.find(text, at)) != std::string::npos; at += text.size()) {
            found++;
        }
        return found;
    };
    const size_t before = count(output());
    return process_->waitForOutput(
        [&](const std::string &output) { return count(output) >= before + times; });
}

std::optional<Exit> LiveHost::stop(int signal)
{
    process_->signal(signal);
    return process_->wait();
}

bool TookForEncryption(const std::string &output)
{
    const auto said = [&output](const char *text) { return output.find(text) != std::string::npos; };
    return (said("server answered 8\n") || said("server answered 9\n")) &&
           said("HandShake: Server not genuine Adobe!");
}

std::unique_ptr<Process> StartRtmpdump(const std::vector<std::string> &words)
{
    while (true) {
        auto process = std::make_unique<Process>(words);
        if (process->waitForText("INFO: Connected...") || !TookForEncryption(process->output())) {
            return process;
        }
    }
}

Recorder::Recorder(const std::string &url, const std::string &file, std::vector<std::string> options)
{
    options.insert(options.begin(), "rtmpdump");
    options.insert(options.end(), {"-r", url, "-o", file});
    process_ = StartRtmpdump(options);
}

double Recorder::seconds() const
{
    const std::string output = process_->output();
    return SecondsAt(output, output.rfind(" sec"));
}

bool Recorder::waitForSeconds(double seconds)
{
    return process_->waitForOutput(
        [seconds](const std::string &output) { return SecondsIn(output) >= seconds; });
}

void Recorder::stop()
{
    process_->signal(SIGINT);
    EXPECT_TRUE(process_->wait().has_value()) << "rtmpdump does not end";
}

void Recorder::kill()
{
    process_->signal(SIGKILL);
    EXPECT_EQ(process_->wait(), (Exit{-1, SIGKILL}));
}

std::vector<Packet> PacketsOf(const std::string &file, char stream)
{
    const Finished probe = RunToEnd({"ffprobe", "-v", "error", "-select_streams", std::string(1, stream),
                                     "-show_data_hash", "md5", "-show_entries",
                                     "packet=pts_time,size,flags,data_hash", "-of", "compact=p=0", file});
    EXPECT_EQ(probe.exit, (Exit{0, 0})) << probe.output;
    std::vector<Packet> packets;
    std::istringstream lines(probe.output);
    for (std::string line; std::getline(lines, line);) {
        std::map<std::string, std::string> fields;
        std::istringstream words(line);
        for (std::string word; std::getline(words, word, '|');) {
            const size_t equals = word.find('=');
            fields[word.substr(0, equals)] = word.substr(std::min(word.size(), equals + 1));
        }
        if (fields.contains("pts_time")) {
            packets.push_back({std::llround(atof(fields["pts_time"].c_str()) * 1000),
                               atoll(fields["size"].c_str()), fields["flags"].starts_with("K"),
                               fields["data_hash"]});
        }
    }
    return packets;
}

testing::AssertionResult Follows(const std::vector<Packet> &recorded, const std::vector<Packet> &clip,
                                 int64_t least, int64_t most)
{
    const std::map<std::string, size_t> index = IndexOf(clip);
    size_t before = 0;
    for (size_t i = 0; i < recorded.size(); i++) {
        const auto found = index.find(recorded[i].hash);
        if (found == index.end()) {
            return testing::AssertionFailure() << "packet " << i << " is none of the clip's";
        }
        const size_t now = found->second;
        if (i > 0 && now != before + 1 && !IsSeam(before, now, clip.size())) {
            return testing::AssertionFailure()
                   << "packet " << i << " is the clip's " << now << " behind its " << before;
        }
        const int64_t step = i > 0 ? recorded[i].time - recorded[i - 1].time : least;
        if (step < least || step > most) {
            return testing::AssertionFailure() << "packet " << i << " (the clip's " << now << ") comes "
                                               << step << " ms behind the one before";
        }
        before = now;
    }
    return testing::AssertionSuccess();
}

size_t RoundsOf(const std::vector<Packet> &recorded, const std::vector<Packet> &clip)
{
    const std::map<std::string, size_t> index = IndexOf(clip);
    size_t rounds = 0;
    for (size_t i = 1; i < recorded.size(); i++) {
        rounds += index.at(recorded[i].hash) < index.at(recorded[i - 1].hash);
    }
    return rounds;
}

testing::AssertionResult Decodes(const std::string &file, const Directory &work)
{
    const std::string whole = work.path("from_key_frame.mkv");
    const Finished copied =
        RunToEnd({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", file, "-c", "copy", whole});
    if (copied.exit != Exit{0, 0}) {
        return testing::AssertionFailure() << "ffmpeg cannot read it: " << copied.output;
    }
    const Finished decoded =
        RunToEnd({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", whole, "-f", "null", "-"});
    if (decoded.exit != Exit{0, 0} || !decoded.output.empty()) {
        return testing::AssertionFailure() << "ffmpeg complains: " << decoded.output;
    }
    return testing::AssertionSuccess();
}

namespace {

int64_t LengthOf(const std::vector<Packet> &packets)
{
    return packets.empty() ? 0 : packets.back().time - packets.front().time;
}

} // namespace

testing::AssertionResult Plays(const std::string &file, const Directory &work, bool asTheyWere)
{
    constexpr int64_t kEnough = 2000;
    constexpr int64_t kTogether = 500;
    const std::vector<Packet> pictures = PacketsOf(file, 'v');
    const std::vector<Packet> sound = PacketsOf(file, 'a');
    if (LengthOf(pictures) < kEnough || LengthOf(sound) < kEnough) {
        return testing::AssertionFailure()
               << LengthOf(pictures) << " ms of pictures, " << LengthOf(sound) << " ms of sound";
    }
    if (pictures.size() < 50 || sound.size() < 70) {
        return testing::AssertionFailure() << pictures.size() << " pictures, " << sound.size() << " of sound";
    }
    if (!pictures.front().key) {
        return testing::AssertionFailure() << "it does not begin with a key frame";
    }
    if (std::abs(pictures.front().time - sound.front().time) > kTogether) {
        return testing::AssertionFailure()
               << "pictures from " << pictures.front().time << ", sound from " << sound.front().time;
    }
    if (!PacketsOf(file, 's').empty() || !PacketsOf(file, 'd').empty()) {
        return testing::AssertionFailure() << "there is a stream that nobody sent";
    }
    testing::AssertionResult follows = testing::AssertionSuccess();
    if (asTheyWere) {
        follows = Follows(pictures, PacketsOf(CLIP_PATH, 'v'), 32, 35);
    }
    if (asTheyWere && follows) {
        follows = Follows(sound, PacketsOf(CLIP_PATH, 'a'), 11, 47);
    }
    return follows ? Decodes(file, work) : follows;
}

std::string Describe(const std::string &file, const std::string &stream, const std::string &entries)
{
    const Finished probe = RunToEnd({"ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                                     "stream=" + entries, "-of", "csv=p=0", file});
    EXPECT_EQ(probe.exit, (Exit{0, 0})) << probe.output;
    return probe.output.substr(0, probe.output.find('\n'));
}

std::string MakeClip(const Directory &work, const std::string &name, const std::vector<std::string> &options)
{
    const std::string file = work.path(name);
    std::vector<std::string> words = {"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", CLIP_PATH};
    words.insert(words.end(), options.begin(), options.end());
    words.push_back(file);
    const Finished made = RunToEnd(words);
    EXPECT_EQ(made.exit, (Exit{0, 0})) << made.output;
    return file;
}
