// A moving test pattern with a running clock and a tone, for an encoder that has no camera.
#pragma once

#include "raw_source.h"

#include <vector>

struct Rectangle {
    int x, y, width, height;
};

struct Colour {
    uint8_t y, u, v;
};

class TestPattern : public RawSource {
  public:
    explicit TestPattern(const RawFormat &format);

    const RawFormat &format() const override
    {
        return format_;
    }

    void picture(AVFrame &frame) override;
    void sound(AVFrame &frame) override;
    void bitrateIs(int32_t bitrate) override;

  private:
    void drawBars(AVFrame &frame) const;
    void drawBricks(AVFrame &frame, const Rectangle &where) const;
    void drawGrain(AVFrame &frame, const Rectangle &where);
    void drawBox(AVFrame &frame) const;
    void drawClock(AVFrame &frame) const;

    RawFormat format_;
    std::vector<uint8_t> bricks_; // one row of the band that moves past, wider than the picture
    int64_t pictures_ = 0;
    int64_t samples_ = 0;
    int32_t bitrate_ = 0;
    uint32_t grain_ = 0x2545F491; // state of the generator, never 0
};
