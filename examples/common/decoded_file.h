// Any media file that libavcodec decodes, as pictures and sound for the encoder: over and over, at a fixed
// frame rate.
#pragma once

#include "libav.h"
#include "raw_source.h"

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <vector>

struct AVStream;
struct SwrContext;
struct SwsContext;

struct ScalerFreer {
    void operator()(SwsContext *scaler) const;
};
struct ResamplerFreer {
    void operator()(SwrContext *resampler) const;
};

class DecodedFile : public RawSource {
  public:
    // Zero fields of `wanted` take what the file has. Throws SourceError.
    DecodedFile(std::string path, const RawFormat &wanted);

    const RawFormat &format() const override
    {
        return format_;
    }

    void picture(AVFrame &frame) override;
    void sound(AVFrame &frame) override;

  private:
    // A stream of the file and its decoder; no stream: the file has none.
    struct Track {
        AVStream *stream = nullptr;
        CodecPtr decoder;
    };
    struct Picture {
        FramePtr frame;
        int64_t time; // microseconds from the beginning of the file
    };

    void open();
    void openTrack(Track &track, int mediaType);
    void chooseFormat(const RawFormat &wanted);
    bool readMore(); // false at the end of the file
    void decode(Track &track, AVPacket *packet);
    void keepPicture(FramePtr frame);
    void keepSound(const AVFrame &frame);
    bool alignSound(const AVFrame &frame);
    void openResampler(const AVFrame &frame);
    void addSilence(int64_t samples);
    void scale(const AVFrame &from, AVFrame &to);
    void startAgain();
    int64_t samplesAt(int64_t time) const;
    int64_t timeInFile(const Track &track, const AVFrame &frame) const;

    std::string path_;
    RawFormat format_;
    FormatPtr file_;
    Track video_;
    Track audio_;
    PacketPtr packet_;
    bool ended_ = false;     // the file has no more packets
    int64_t roundStart_ = 0; // microseconds from the beginning of the source to that of this round
    int64_t videoEnd_ = 0;   // of the pictures decoded in this round

    std::unique_ptr<SwsContext, ScalerFreer> scaler_;
    std::deque<Picture> upcoming_;
    FramePtr shown_;
    int64_t pictures_ = 0; // given out

    std::unique_ptr<SwrContext, ResamplerFreer> resampler_;
    std::array<std::deque<float>, 2> samples_; // of the two channels
    int64_t samplesEver_ = 0;                  // put into them since the source began
};
