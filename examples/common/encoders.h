// H.264 through x264 and AAC, as libavcodec has them.
#pragma once

#include "libav.h"
#include "raw_source.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// No B-frames, no delay, a key frame every second, parameter sets beside the stream and not in it.
class VideoEncoder {
  public:
    // `preset` is one of x264's. Throws SourceError.
    VideoEncoder(const RawFormat &format, int32_t bitrate, const std::string &preset);

    // SPS and PPS as Annex B.
    std::span<const uint8_t> config() const;

    // Where the next picture goes.
    AVFrame &picture();

    // One picture as Annex B, valid until the next call; empty: the encoder gave nothing. Throws SourceError.
    std::span<const uint8_t> encode();

    // From the next picture on. Cheap: nothing is encoded or waited for.
    void setBitrate(int32_t bitrate);

    // The next picture is a key frame, wherever the last one was.
    void makeKeyFrame();

  private:
    CodecPtr codec_;
    FramePtr frame_;
    PacketPtr packet_;
    bool keyFrameWanted_ = false;
};

class AudioEncoder {
  public:
    // Throws SourceError.
    AudioEncoder(int sampleRate, int32_t bitrate);

    // AudioSpecificConfig.
    std::span<const uint8_t> config() const;

    // Where the next samples go.
    AVFrame &samples();

    // One raw AAC frame, valid until the next call; empty: the encoder gave nothing yet. Throws SourceError.
    std::span<const uint8_t> encode();

  private:
    CodecPtr codec_;
    FramePtr frame_;
    PacketPtr packet_;
};
