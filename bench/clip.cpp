#include "clip.h"

#include "rtmpcast/rtmpcast.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace {

constexpr int kAudioFramesPerSecond = 43;
constexpr size_t kMessageHeader = 8; // type 1: what most frames get

size_t TagHeader(const Frame &frame)
{
    return frame.type == RTMP_FRAME_VIDEO ? 5 : 2;
}

std::vector<Turn> MakeSecond()
{
    std::vector<Turn> clip;
    int audio = 0;
    size_t place = 0;
    for (int i = 0; i < kFramesPerSecond; i++) {
        Turn turn;
        const int now = i * 1000 / kFramesPerSecond;
        for (; audio * 1000 / kAudioFramesPerSecond <= now; audio++) {
            turn.push_back({RTMP_FRAME_AUDIO, static_cast<uint64_t>(audio * 1000 / kAudioFramesPerSecond),
                            std::vector<uint8_t>(370, 0x21), 0});
        }
        turn.push_back(VideoFrame(i == 0 ? 80000 : 14300, i == 0, static_cast<uint64_t>(now)));
        for (Frame &frame : turn) {
            frame.place = place;
            place += frame.bytes.size();
        }
        clip.push_back(turn);
    }
    return clip;
}

} // namespace

Frame VideoFrame(size_t length, bool isKeyFrame, uint64_t timestamp)
{
    std::vector<uint8_t> bytes(length, 0x5A);
    const uint32_t nal = htonl(static_cast<uint32_t>(length - 4));
    memcpy(bytes.data(), &nal, 4);
    bytes[4] = isKeyFrame ? 0x65 : 0x41;
    return {RTMP_FRAME_VIDEO, timestamp, bytes, 0};
}

const std::vector<Turn> &OneSecond()
{
    static const std::vector<Turn> clip = MakeSecond();
    return clip;
}

std::vector<uint8_t> OnTheWire(const Frame &frame, size_t chunkSize)
{
    std::vector<uint8_t> bytes(kMessageHeader + TagHeader(frame), 0x45);
    size_t room = chunkSize - TagHeader(frame);
    for (size_t at = 0; at < frame.bytes.size();) {
        const size_t length = std::min(room, frame.bytes.size() - at);
        const uint8_t *piece = frame.bytes.data() + at;
        bytes.insert(bytes.end(), at > 0 ? 1 : 0, 0xC5);
        bytes.insert(bytes.end(), piece, piece + length);
        at += length;
        room = chunkSize;
    }
    return bytes;
}

size_t SizeOnTheWire(const Turn &turn)
{
    size_t bytes = 0;
    for (const Frame &frame : turn) {
        bytes += OnTheWire(frame).size();
    }
    return bytes;
}

size_t SizeOnTheWire(const std::vector<Turn> &clip)
{
    size_t bytes = 0;
    for (const Turn &turn : clip) {
        bytes += SizeOnTheWire(turn);
    }
    return bytes;
}
