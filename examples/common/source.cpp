#include "source.h"

#include "decoded_file.h"
#include "encoded_source.h"
#include "media_file.h"
#include "test_pattern.h"

#include <rtmpcast/types.h>

namespace {

std::unique_ptr<RawSource> openRawSource(const Options &options)
{
    const EncodeOptions &encode = options.encode;
    RawFormat format = {.width = static_cast<int>(encode.width),
                        .height = static_cast<int>(encode.height),
                        .rateNumerator = static_cast<int>(encode.frameRate),
                        .rateDenominator = 1,
                        .sampleRate = 0,
                        .name = ""};
    if (!options.input.empty()) {
        return std::make_unique<DecodedFile>(options.input, format);
    }
    if (format.width == 0) {
        format.width = 1280;
        format.height = 720;
    }
    if (format.rateNumerator == 0) {
        format.rateNumerator = 30;
    }
    format.sampleRate = 44'100;
    format.name = "test pattern";
    return std::make_unique<TestPattern>(format);
}

} // namespace

std::unique_ptr<FrameSource> openSource(const Options &options, const std::string &clip)
{
    if (options.encode.enabled) {
        const EncoderSettings settings = {.videoBitrate = static_cast<int32_t>(options.videoBitrate),
                                          .audioBitrate = static_cast<int32_t>(options.encode.audioBitrate),
                                          .preset = options.encode.preset};
        return std::make_unique<EncodedSource>(openRawSource(options), settings);
    }
    return std::make_unique<MediaFile>(options.input.empty() ? clip : options.input);
}

std::unique_ptr<CaptionSource> openCaptions(const Options &options)
{
    return options.captions.empty() ? nullptr : std::make_unique<CaptionSource>(options.captions);
}

void sendFrames(FrameSource &source,
                const std::function<void(const Frame &frame, uint64_t timestamp)> &deliver, Console &console,
                const StopFlag &stop)
{
    Pacer pacer;
    while (!stop.raised()) {
        const Frame frame = source.next();
        if (!pacer.waitFor(frame.time, stop)) {
            return;
        }
        if (const std::chrono::milliseconds delay = pacer.takeDelay(); delay.count() > 0) {
            console.warn("sending was held up for " + std::to_string(delay.count()) +
                         " ms; going on from there");
        }
        deliver(frame, pacer.timestamp(frame.time));
    }
}

int logLevelOf(const Options &options)
{
    switch (options.logLevel) {
    case LogLevel::Quiet:
        return -1;
    case LogLevel::Error:
        return RTMP_LOG_ERROR;
    default:
        return RTMP_LOG_INFO;
    }
}
