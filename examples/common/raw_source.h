// Pictures and sound before they are encoded.
#pragma once

#include <cstdint>
#include <string>

struct AVFrame;

struct RawFormat {
    int width = 0; // even, as the height
    int height = 0;
    int rateNumerator = 30; // pictures per second
    int rateDenominator = 1;
    int sampleRate = 0; // of stereo sound; 0: there is none
    std::string name;   // for people
};

class RawSource {
  public:
    virtual ~RawSource() = default;

    virtual const RawFormat &format() const = 0;

    // Draws the next picture, one for each tick of the frame rate, into a writable 4:2:0 frame of the
    // format's size. Throws SourceError.
    virtual void picture(AVFrame &frame) = 0;

    // Fills the two channels of a writable planar float frame with the next samples. Throws SourceError.
    virtual void sound(AVFrame &frame) = 0;

    // What the encoder was told last, for sources that show it.
    virtual void bitrateIs(int32_t bitrate)
    {
        (void)bitrate;
    }
};
