#include "encoded_source.h"

#include "aac.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
}

#include <cstdio>

namespace {

constexpr int64_t kSecond = 1'000'000; // microseconds

} // namespace

EncodedSource::EncodedSource(std::unique_ptr<RawSource> raw, const EncoderSettings &settings)
    : raw_(std::move(raw)), video_(raw_->format(), settings.videoBitrate, settings.preset)
{
    if (raw_->format().sampleRate > 0) {
        audio_.emplace(raw_->format().sampleRate, settings.audioBitrate);
    }
    raw_->bitrateIs(settings.videoBitrate);
    describe(settings);
}

void EncodedSource::describe(const EncoderSettings &settings)
{
    sets_ = parseExtradata(video_.config(), framing_);
    if (!sets_.complete()) {
        throw SourceError("x264 gave no parameter sets");
    }
    description_.videoConfig = annexBConfig(sets_);
    description_.videoBitrate = static_cast<uint32_t>(settings.videoBitrate);
    const RawFormat &format = raw_->format();
    char text[120];
    snprintf(text, sizeof text, ": encoding H.264 %dx%d, %.4g frames/s, %d kbit/s", format.width,
             format.height, static_cast<double>(format.rateNumerator) / format.rateDenominator,
             settings.videoBitrate / 1000);
    description_.summary = format.name + text;
    if (audio_) {
        description_.audioConfig = twoByteConfig(audio_->config());
        snprintf(text, sizeof text, ", AAC %d Hz, 2 channels", format.sampleRate);
        description_.summary += text;
    }
}

Frame EncodedSource::next()
{
    for (;;) {
        const Frame frame = soundIsDue() ? nextSound() : nextPicture();
        if (!frame.data.empty()) {
            return frame;
        }
    }
}

void EncodedSource::setBitrate(int32_t bitrate)
{
    video_.setBitrate(bitrate);
    raw_->bitrateIs(bitrate);
}

void EncodedSource::makeKeyFrame()
{
    video_.makeKeyFrame();
}

bool EncodedSource::soundIsDue() const
{
    return audio_ && soundTime() <= pictureTime();
}

int64_t EncodedSource::pictureTime() const
{
    return av_rescale(pictures_, kSecond * raw_->format().rateDenominator, raw_->format().rateNumerator);
}

int64_t EncodedSource::soundTime() const
{
    return av_rescale(samples_, kSecond, raw_->format().sampleRate);
}

Frame EncodedSource::nextPicture()
{
    const int64_t time = pictureTime();
    raw_->picture(video_.picture());
    toAccessUnit(video_.encode(), framing_, sets_, accessUnit_);
    ++pictures_;
    return {.type = MediaType::Video, .data = accessUnit_, .time = time};
}

// The encoder holds one frame back at first: what comes out counts.
Frame EncodedSource::nextSound()
{
    AVFrame &samples = audio_->samples();
    raw_->sound(samples);
    const Frame frame = {.type = MediaType::Audio, .data = audio_->encode(), .time = soundTime()};
    if (!frame.data.empty()) {
        samples_ += samples.nb_samples;
    }
    return frame;
}
