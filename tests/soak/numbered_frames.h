// Frames that say which one they are and when they were made, so that a hole shows wherever they are
// recorded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace soak {

constexpr uint64_t kPictureMs = 40; // 25 a second
constexpr uint64_t kSoundMs = 64;   // 1024 samples at 16 kHz
constexpr uint64_t kPicturesToAKeyFrame = 25;

enum class Kind { Picture, Sound };

struct FrameMark {
    Kind kind;
    uint64_t number;
    int64_t micros; // monotonic clock, when it was made
};

// As RtmpSendData takes them: some 300 kbit/s together.
std::vector<uint8_t> MakeFrame(const FrameMark &mark);
std::vector<uint8_t> ParameterSetsOfTheClip(); // Annex B
std::vector<uint8_t> SoundConfig();            // AudioSpecificConfig

// What stands in an FLV tag's body; none: no frame of ours.
std::optional<FrameMark> MarkIn(const uint8_t *body, size_t length);

int64_t MicrosNow(); // monotonic clock, the same in all processes

} // namespace soak
