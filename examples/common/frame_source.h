// Where encoded frames come from: a file here; an encoder implements the same.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

enum class MediaType { Video, Audio };

// One encoded frame as RtmpSendData takes it.
struct Frame {
    MediaType type = MediaType::Video;
    std::span<const uint8_t> data; // valid until the next call of next()
    int64_t time = 0;              // microseconds since the source began; never steps back within a type
};

// What RtmpAddMediaInfo takes.
struct MediaDescription {
    std::vector<uint8_t> videoConfig; // Annex B: SPS and PPS; empty: no video
    std::vector<uint8_t> audioConfig; // AudioSpecificConfig; empty: no audio
    uint32_t videoBitrate = 0;        // bit/s; 0: unknown
    std::string summary;              // for people
    std::vector<std::string> warnings;
};

// A source that cannot be opened, or ends when it should not.
class SourceError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class FrameSource {
  public:
    virtual ~FrameSource() = default;

    virtual const MediaDescription &description() const = 0;

    // The next frame in the order of time, however far in the future. Throws SourceError.
    virtual Frame next() = 0;

    // The library asks for another video bitrate, bit/s. A file cannot follow.
    virtual void setBitrate(int32_t bitrate)
    {
        (void)bitrate;
    }

    // The next picture is to be one that players can begin with. A file has those that it has.
    virtual void makeKeyFrame() {}
};
