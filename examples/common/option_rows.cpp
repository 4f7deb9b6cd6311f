#include "option_rows.h"

#include "option_setters.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace {

using setters::file;
using setters::number;
using setters::turnOn;

// A field of AdaptiveOptions; naming one switches the controller on.
template <auto Field> void adaptive(Options &options, const Option &self, const std::string &value)
{
    options.adaptive.enabled = true;
    options.adaptive.*Field = readNumber(self, value);
}

// A field of EncodeOptions.
template <auto Field> void encode(Options &options, const Option &self, const std::string &value)
{
    options.encode.*Field = readNumber(self, value);
    options.encode.firstOption = self.name;
}

// "640x360" as two even numbers.
void setSize(Options &options, const Option &self, const std::string &value)
{
    unsigned width = 0;
    unsigned height = 0;
    int end = 0;
    const bool read = !value.empty() && isdigit(static_cast<unsigned char>(value[0])) != 0 &&
                      sscanf(value.c_str(), "%5ux%5u%n", &width, &height, &end) == 2 &&
                      static_cast<size_t>(end) == value.size();
    const auto fits = [](unsigned length) { return length >= 64 && length <= 4096 && length % 2 == 0; };
    if (!read || !fits(width) || !fits(height)) {
        refuseOption(self, value, "WxH with even numbers from 64 to 4096");
    }
    options.encode.width = width;
    options.encode.height = height;
    options.encode.firstOption = self.name;
}

void setPreset(Options &options, const Option &self, const std::string &value)
{
    constexpr const char *kPresets[] = {"ultrafast", "superfast", "veryfast", "faster",   "fast",
                                        "medium",    "slow",      "slower",   "veryslow", "placebo"};
    if (std::ranges::find(kPresets, value) == std::end(kPresets)) {
        refuseOption(self, value, "one of x264's presets");
    }
    options.encode.preset = value;
    options.encode.firstOption = self.name;
}

void chooseLogLevel(Options &options, const Option &self, const std::string &value)
{
    if (value == "quiet") {
        options.logLevel = LogLevel::Quiet;
    } else if (value == "error") {
        options.logLevel = LogLevel::Error;
    } else if (value == "info") {
        options.logLevel = LogLevel::Info;
    } else {
        refuseOption(self, value, "quiet, error or info");
    }
}

using A = AdaptiveOptions;
using E = EncodeOptions;
using S = SenderOptions;

constexpr Option kEncoderRows[] = {
    {nullptr, nullptr, "Encoding here: x264 and AAC, no B-frames, a key frame a second", nullptr},
    {"--encode", nullptr, "a test pattern with a clock and a tone, or --input decoded;",
     turnOn<&Options::encode, &E::enabled>},
    {"", nullptr, "--video-bitrate is what it starts with and never exceeds (4000000)", nullptr},
    {"--size", "WxH", "of the pictures, even (1280x720, or the input's)", setSize},
    {"--frame-rate", "N", "pictures per second (30, or the input's)", encode<&E::frameRate>, 1, 120},
    {"--preset", "NAME", "x264's, from ultrafast to placebo (superfast)", setPreset},
    {"--audio-bitrate", "BITS", "bit/s (96000)", encode<&E::audioBitrate>, 16'000, 512'000},
};

constexpr Option kAdaptiveRows[] = {
    {nullptr, nullptr, "Adaptive bitrate of the threaded sender; 0 is the library's default", nullptr},
    {"--adaptive", nullptr, "switch it on; so does each of these", turnOn<&Options::adaptive, &A::enabled>},
    {"--abr-min-bitrate", "BITS", "never ask for less, bit/s (0)", adaptive<&A::minBitrate>, 0, INT32_MAX},
    {"--abr-start-delay", "MS", "before the first decision (5000)", adaptive<&A::startDelay>},
    {"--abr-increase-fullness", "PERCENT", "raise only below this fullness (200)",
     adaptive<&A::increaseFullness>},
    {"--abr-increase-percent", "PERCENT", "of the headroom per raise (10)", adaptive<&A::increasePercent>},
    {"--abr-increase-min-step", "BITS", "smallest raise (10000)", adaptive<&A::increaseMinStep>},
    {"--abr-increase-interval", "SECONDS", "more than this before a raise (10)",
     adaptive<&A::increaseInterval>},
    {"--abr-decrease-fullness", "PERCENT", "lower only above this fullness (500)",
     adaptive<&A::decreaseFullness>},
    {"--abr-decrease-percent", "PERCENT", "how far towards the measured rate (50)",
     adaptive<&A::decreasePercent>},
    {"--abr-decrease-fullness-high", "PERCENT", "above this the next gain counts (1000)",
     adaptive<&A::decreaseFullnessHigh>},
    {"--abr-decrease-percent-high", "PERCENT", "the gain above it (110)", adaptive<&A::decreasePercentHigh>},
    {"--abr-decrease-interval", "SECONDS", "more than this between lowerings (1)",
     adaptive<&A::decreaseInterval>},
    {"--abr-reserved-1", "N", "ignored by the library (0)", adaptive<&A::reserved1>},
    {"--abr-reserved-2", "N", "ignored by the library (0)", adaptive<&A::reserved2>},
    {"--abr-reserved-3", "N", "stored by the library (10)", adaptive<&A::reserved3>},
};

constexpr Option kCaptionRows[] = {
    {"--captions", "FILE", "SubRip (SRT) or plain text as CEA-608 captions; -: standard input, shown as",
     file<&Options::captions>},
    {"", nullptr, "it comes", nullptr},
    {"--caption-mode", "N", "0: in the video; 1: message to the first player; 2: none (0)",
     number<&Options::sender, &S::captionMode>, 0, 255},
};

constexpr Option kSaidRows[] = {
    {nullptr, nullptr, "What is said", nullptr},
    {"--log-level", "LEVEL", "the library's lines: quiet, error or info (error)", chooseLogLevel},
    {"--help", nullptr, "this text", turnOn<&Options::help>},
};

} // namespace

std::span<const Option> encoderRows()
{
    return kEncoderRows;
}

std::span<const Option> adaptiveRows()
{
    return kAdaptiveRows;
}

std::span<const Option> captionRows()
{
    return kCaptionRows;
}

std::span<const Option> saidRows()
{
    return kSaidRows;
}
