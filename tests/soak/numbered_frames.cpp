#include "soak/numbered_frames.h"

#include <chrono>
#include <cstdio>
#include <cstring>

namespace soak {
namespace {

constexpr size_t kMarkLength =
    4 + 1 + 16 + 16; // "SOAK", kind, number, time: text, which needs no emulation bytes

size_t LengthOf(const FrameMark &mark)
{
    if (mark.kind == Kind::Sound) {
        return kMarkLength + mark.number % 90;
    }
    const bool isKeyFrame = mark.number % kPicturesToAKeyFrame == 0;
    return isKeyFrame ? 6000 : 900 + mark.number * 37 % 700;
}

} // namespace

std::vector<uint8_t> MakeFrame(const FrameMark &mark)
{
    char text[kMarkLength + 1];
    snprintf(text, sizeof text, "SOAK%c%016llx%016llx", mark.kind == Kind::Picture ? 'V' : 'A',
             static_cast<unsigned long long>(mark.number), static_cast<unsigned long long>(mark.micros));
    std::vector<uint8_t> payload(LengthOf(mark), 'x');
    memcpy(payload.data(), text, kMarkLength);
    if (mark.kind == Kind::Sound) {
        return payload;
    }
    // length:32 of the NAL unit, its type, mark and filling
    const uint32_t length = static_cast<uint32_t>(payload.size() + 1);
    const uint8_t type = mark.number % kPicturesToAKeyFrame == 0 ? 0x65 : 0x41;
    std::vector<uint8_t> frame = {static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16),
                                  static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), type};
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

std::vector<uint8_t> ParameterSetsOfTheClip()
{
    return {0,    0, 0, 1, 0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40, 0x16, 0xE8,
            0x40, 0, 0, 0, 1,    0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1};
}

std::vector<uint8_t> SoundConfig()
{
    return {0x14, 0x10}; // AAC-LC, 16 kHz, two channels
}

std::optional<FrameMark> MarkIn(const uint8_t *body, size_t length)
{
    // picture: tag header 5, length 4, type 1; sound: tag header 2
    for (const size_t at : {size_t{10}, size_t{2}}) {
        if (length < at + kMarkLength || memcmp(body + at, "SOAK", 4) != 0) {
            continue;
        }
        char text[33] = {};
        memcpy(text, body + at + 5, 32);
        unsigned long long number = 0, micros = 0;
        if (sscanf(text, "%16llx%16llx", &number, &micros) != 2) {
            return std::nullopt;
        }
        return FrameMark{body[at + 4] == 'V' ? Kind::Picture : Kind::Sound, number,
                         static_cast<int64_t>(micros)};
    }
    return std::nullopt;
}

int64_t MicrosNow()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace soak
