// The stream of the benchmarks, 4 Mbit/s: a key frame and 29 inter frames a second, 43 audio frames between
// them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

constexpr int kChunkSize = 4096;
constexpr int kFramesPerSecond = 30;

struct Frame {
    int type; // RTMP_FRAME_...
    uint64_t timestamp;
    std::vector<uint8_t> bytes;
    size_t place; // in a file that holds the clip's frames one behind the other
};

// What is due together: the sound that has come up, and the picture behind it.
using Turn = std::vector<Frame>;

const std::vector<Turn> &OneSecond(); // made once

Frame VideoFrame(size_t length, bool isKeyFrame, uint64_t timestamp);

// A frame as it goes on the wire to a player that has had one before: 8 bytes of header, FLV tag header,
// frame, a byte between two chunks.
std::vector<uint8_t> OnTheWire(const Frame &frame, size_t chunkSize = kChunkSize);
size_t SizeOnTheWire(const Turn &turn);
size_t SizeOnTheWire(const std::vector<Turn> &clip);
