#include "test_pattern.h"

#include "clock_font.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <string>

namespace {

// BT.601, limited range.
constexpr Colour kBars[] = {{180, 128, 128}, {168, 44, 136}, {145, 147, 44}, {134, 63, 52},
                            {63, 193, 204},  {51, 109, 212}, {28, 212, 120}, {16, 128, 128}};
constexpr Colour kWhite = {235, 128, 128};
constexpr Colour kBlack = {16, 128, 128};
constexpr Colour kOrange = {160, 60, 190};

constexpr int kBrick = 24;         // widest brick, pixels
constexpr int kBrickHeight = 8;    // rows that look the same
constexpr int kBrickSpeed = 4;     // pixels a picture
constexpr int kBoxSpeed = 5;       // pixels a picture
constexpr double kTone = 440;      // Hz
constexpr double kTick = 880;      // Hz, at the beginning of every second
constexpr double kTickLasts = 0.1; // seconds
constexpr float kLoudness = 0.15f;

uint32_t nextRandom(uint32_t &state) // xorshift32
{
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

uint8_t *rowOf(AVFrame &frame, int plane, int y)
{
    return frame.data[plane] + static_cast<ptrdiff_t>(y) * frame.linesize[plane];
}

// Even coordinates; what lies outside of the picture is left out.
void fill(AVFrame &frame, Rectangle where, Colour colour)
{
    const int left = std::clamp(where.x, 0, frame.width);
    const int right = std::clamp(where.x + where.width, left, frame.width);
    const int top = std::clamp(where.y, 0, frame.height);
    const int bottom = std::clamp(where.y + where.height, top, frame.height);
    for (int y = top; y < bottom; ++y) {
        memset(rowOf(frame, 0, y) + left, colour.y, static_cast<size_t>(right - left));
    }
    for (int y = top / 2; y < bottom / 2; ++y) {
        memset(rowOf(frame, 1, y) + left / 2, colour.u, static_cast<size_t>((right - left) / 2));
        memset(rowOf(frame, 2, y) + left / 2, colour.v, static_cast<size_t>((right - left) / 2));
    }
}

// `scale` is the size of a glyph's pixel, even.
void write(AVFrame &frame, int x, int y, int scale, const std::string &text)
{
    for (const char letter : text) {
        const Glyph &glyph = glyphOf(letter);
        for (int row = 0; row < kGlyphHeight; ++row) {
            for (int column = 0; column < kGlyphWidth; ++column) {
                if ((glyph[static_cast<size_t>(row)] >> (kGlyphWidth - 1 - column) & 1) != 0) {
                    fill(frame, {x + column * scale, y + row * scale, scale, scale}, kWhite);
                }
            }
        }
        x += (kGlyphWidth + 1) * scale;
    }
}

// 0, 1, ..., range, range - 1, ..., 0, 1, ...
int bounce(int64_t step, int range)
{
    const int64_t at = range > 0 ? step % (2 * int64_t{range}) : 0;
    return static_cast<int>(at <= range ? at : 2 * int64_t{range} - at);
}

} // namespace

TestPattern::TestPattern(const RawFormat &format) : format_(format)
{
    uint32_t state = 0x9E3779B9;
    bricks_.resize(static_cast<size_t>(format.width) * 2);
    for (size_t at = 0; at < bricks_.size();) {
        const size_t width = 2 + nextRandom(state) % kBrick;
        const uint8_t shade = static_cast<uint8_t>(40 + nextRandom(state) % 160);
        for (const size_t end = std::min(at + width, bricks_.size()); at < end; ++at) {
            bricks_[at] = shade;
        }
    }
}

void TestPattern::bitrateIs(int32_t bitrate)
{
    bitrate_ = bitrate;
}

/*
 * +-------------------------+
 * | colour bars   clock     |
 * |      box, moving        |
 * | bricks, moving  | grain |   grain: new in every picture, so that no bitrate is ever enough
 * +-------------------------+
 */
void TestPattern::picture(AVFrame &frame)
{
    const int split = format_.height * 5 / 8 & ~1;
    const int grainWidth = format_.width / 3 & ~1;
    drawBars(frame);
    drawBricks(frame, {0, split, format_.width - grainWidth, format_.height - split});
    drawGrain(frame, {format_.width - grainWidth, split, grainWidth, format_.height - split});
    drawBox(frame);
    drawClock(frame);
    ++pictures_;
}

void TestPattern::drawBars(AVFrame &frame) const
{
    constexpr int kCount = static_cast<int>(std::size(kBars));
    for (int i = 0; i < kCount; ++i) {
        const int left = format_.width * i / kCount & ~1;
        const int right = i + 1 < kCount ? format_.width * (i + 1) / kCount & ~1 : format_.width;
        fill(frame, {left, 0, right - left, format_.height}, kBars[i]);
    }
}

// Every course of bricks moves at a speed of its own.
void TestPattern::drawBricks(AVFrame &frame, const Rectangle &where) const
{
    fill(frame, where, {0, 120, 140});
    const int64_t length = static_cast<int64_t>(bricks_.size()) - where.width;
    for (int y = where.y; y < where.y + where.height; ++y) {
        const int course = (y - where.y) / kBrickHeight;
        const int64_t offset = (pictures_ * (kBrickSpeed + course % 3) + course * 97) % length;
        memcpy(rowOf(frame, 0, y) + where.x, bricks_.data() + offset, static_cast<size_t>(where.width));
    }
}

void TestPattern::drawGrain(AVFrame &frame, const Rectangle &where)
{
    fill(frame, where, {0, 128, 128});
    for (int y = where.y; y < where.y + where.height; ++y) {
        uint8_t *row = rowOf(frame, 0, y) + where.x;
        for (int x = 0; x < where.width; ++x) {
            row[x] = static_cast<uint8_t>(96 + (nextRandom(grain_) >> 26));
        }
    }
}

void TestPattern::drawBox(AVFrame &frame) const
{
    const int size = format_.height / 6 & ~1;
    const int64_t step = pictures_ * kBoxSpeed;
    const int x = bounce(step, format_.width - size) & ~1;
    const int y = bounce(step * 2 / 3, format_.height - size) & ~1;
    fill(frame, {x, y, size, size}, kWhite);
    fill(frame, {x + 4, y + 4, size - 8, size - 8}, kOrange);
}

// Hours, minutes, seconds and the picture within the second; below it the bitrate asked for.
void TestPattern::drawClock(AVFrame &frame) const
{
    const int64_t seconds = pictures_ * format_.rateDenominator / format_.rateNumerator;
    const int64_t first =
        (seconds * format_.rateNumerator + format_.rateDenominator - 1) / format_.rateDenominator;
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d:%02d", static_cast<int>(seconds / 3600 % 100),
             static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60),
             static_cast<int>((pictures_ - first) % 100));
    const int scale = std::max(2, format_.width / 160 & ~1);
    const int x = (format_.width / 2 - 36 * scale) & ~1;
    const int y = format_.height / 12 & ~1;
    fill(frame, {x - 2 * scale, y - 2 * scale, 76 * scale, 20 * scale}, kBlack);
    write(frame, x, y, scale, text);
    if (bitrate_ > 0) {
        snprintf(text, sizeof text, "%4d kbit/s", bitrate_ / 1000);
        write(frame, x, y + (kGlyphHeight + 2) * scale, scale, text);
    }
}

void TestPattern::sound(AVFrame &frame)
{
    float *left = reinterpret_cast<float *>(frame.data[0]);
    float *right = reinterpret_cast<float *>(frame.data[1]);
    for (int i = 0; i < frame.nb_samples; ++i, ++samples_) {
        const double second =
            static_cast<double>(samples_ % format_.sampleRate) / static_cast<double>(format_.sampleRate);
        const double pitch = second < kTickLasts ? kTick : kTone;
        left[i] = kLoudness * static_cast<float>(std::sin(2 * std::numbers::pi * pitch * second));
        right[i] = left[i];
    }
}
