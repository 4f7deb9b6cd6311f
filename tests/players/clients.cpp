#include "clients.h"

#include "support/wait.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace {

void Replace(std::string &word, const std::string &placeholder, const std::string &value)
{
    const size_t at = word.find(placeholder);
    if (at != std::string::npos) {
        word.replace(at, placeholder.size(), value);
    }
}

// VLC refuses to run as root, and has none of its settings here.
std::vector<std::string> AsSomebody(const Directory &work)
{
    std::filesystem::permissions(work.path(""), std::filesystem::perms::all);
    std::vector<std::string> words = {"env", "HOME=" + work.path("")};
    if (geteuid() == 0) {
        words = Join({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}, words);
    }
    return words;
}

} // namespace

std::vector<std::string> Join(std::vector<std::string> words, const std::vector<std::string> &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::vector<std::string> Ffmpeg(const std::vector<std::string> &options, const std::string &url)
{
    return Join(Join({"ffmpeg", "-nostdin"}, options),
                {"-i", url, "-map", "0", "-c", "copy", "-t", "3", "FILE"});
}

std::vector<std::string> Gstreamer(const std::string &source, const std::string &location, int buffers)
{
    return {"gst-launch-1.0",
            "-e",
            "matroskamux",
            "name=m",
            "!",
            "filesink",
            "location=FILE",
            source,
            "location=" + location,
            "num-buffers=" + std::to_string(buffers),
            "!",
            "flvdemux",
            "name=d",
            "d.video",
            "!",
            "queue",
            "!",
            "h264parse",
            "!",
            "m.",
            "d.audio",
            "!",
            "queue",
            "!",
            "aacparse",
            "!",
            "m."};
}

std::vector<std::string> Words(std::vector<std::string> words, const LiveHost &host, const Directory &work)
{
    for (std::string &word : words) {
        Replace(word, "URL", host.url());
        Replace(word, "FILE", work.path("recording.mkv"));
    }
    return words;
}

FfplayInFront::FfplayInFront(const LiveHost &host)
    : Process({"env", "SDL_VIDEODRIVER=dummy", "SDL_AUDIODRIVER=dummy", "ffplay", "-stats", host.url()})
{
}

// The times in its status lines: "  37.84 A-V: -0.016 fd=   0 aq=". With only one of the two it is "M-A" or
// "M-V", and what has not begun is "nan".
bool FfplayInFront::goesOnFor(double seconds)
{
    const auto enough = [seconds](const std::string &output) {
        double first = NAN;
        for (size_t at = 0; (at = output.find_first_of("\r\n", at)) != std::string::npos; at++) {
            double time = NAN;
            double apart = NAN;
            const int read = sscanf(output.substr(at, 40).c_str(), " %lf A-V: %lf fd=", &time, &apart);
            if (read == 2 && std::isfinite(time) && std::isfinite(apart)) {
                first = std::isnan(first) ? time : first;
                if (time >= first + seconds) {
                    return true;
                }
            }
        }
        return false;
    };
    return waitForOutput(enough, kPatienceMs);
}

MpvInFront::MpvInFront(const LiveHost &host, const Directory &work)
    : Process({"mpv", "--no-config", "--vo=null", "--ao=null", "--input-ipc-server=" + work.path("mpv"),
               host.url()}),
      remote_(work.path("mpv"))
{
}

bool MpvInFront::plays()
{
    return WaitUntil(
        [this] {
            return number("video-params/w") == 1280 && number("audio-params/samplerate") == 44100 &&
                   number("time-pos") >= 0 && number("audio-pts") >= 0;
        },
        kPatienceMs);
}

bool MpvInFront::goesOnFor(double seconds)
{
    const double from = number("time-pos");
    return WaitUntil(
        [&] { return number("time-pos") >= from + seconds && number("audio-pts") >= from + seconds; },
        kPatienceMs);
}

VlcInFront::VlcInFront(const LiveHost &host, const Directory &work)
    : Process(Join(AsSomebody(work), {"vlc", "-I", "oldrc", "--rc-fake-tty", "--rc-unix=" + work.path("vlc"),
                                      "--vout", "vdummy", "--aout", "adummy", host.url()})),
      remote_(work.path("vlc"))
{
}

bool VlcInFront::goesOnFor(double seconds)
{
    constexpr double kPicturesPerSecond = 30;
    constexpr double kSoundsPerSecond = 44100.0 / 1024;
    const long shown = pictures();
    const long heard = sounds();
    return WaitUntil(
        [&] {
            return static_cast<double>(pictures() - shown) >= seconds * kPicturesPerSecond &&
                   static_cast<double>(sounds() - heard) >= seconds * kSoundsPerSecond;
        },
        kPatienceMs);
}
