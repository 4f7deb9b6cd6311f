// An encoder as a live source: raw pictures and sound, encoded at a bitrate that may change at any time.
#pragma once

#include "encoders.h"
#include "frame_source.h"
#include "h264.h"
#include "raw_source.h"

#include <memory>
#include <optional>

struct EncoderSettings {
    int32_t videoBitrate; // bit/s, the highest that is ever used
    int32_t audioBitrate; // bit/s
    std::string preset;   // of x264
};

class EncodedSource : public FrameSource {
  public:
    // Throws SourceError.
    EncodedSource(std::unique_ptr<RawSource> raw, const EncoderSettings &settings);

    const MediaDescription &description() const override
    {
        return description_;
    }

    Frame next() override;
    void setBitrate(int32_t bitrate) override;
    void makeKeyFrame() override;

  private:
    void describe(const EncoderSettings &settings);
    bool soundIsDue() const;
    Frame nextPicture();
    Frame nextSound();
    int64_t pictureTime() const;
    int64_t soundTime() const;

    std::unique_ptr<RawSource> raw_;
    VideoEncoder video_;
    std::optional<AudioEncoder> audio_;
    MediaDescription description_;
    ParameterSets sets_;
    NalFraming framing_;
    std::vector<uint8_t> accessUnit_;
    int64_t pictures_ = 0; // encoded so far
    int64_t samples_ = 0;  // in the frames of sound given out so far
};
