#include "caption_sei.h"

#include <algorithm>

namespace {

constexpr size_t kLengthSize = 4;
constexpr uint8_t kSlice = 1;
constexpr uint8_t kIdr = 5;
constexpr uint8_t kSei = 6;
constexpr uint8_t kBufferingPeriod = 0;    // SEI payload type
constexpr uint8_t kRegisteredUserData = 4; // the same
constexpr uint8_t kTrailingBits = 0x80;    // rbsp_trailing_bits

// Whether captions may stand in front of this NAL unit. A buffering period has to be the first SEI.
bool isBehindCaption(std::span<const uint8_t> nal)
{
    const uint8_t type = nal[0] & 0x1F;
    const bool isSlice = type >= kSlice && type <= kIdr;
    return isSlice || (type == kSei && nal.size() > 1 && nal[1] != kBufferingPeriod);
}

} // namespace

std::vector<uint8_t> captionMessage(CaptionPair pair)
{
    std::vector<uint8_t> message = {
        kRegisteredUserData,
        0,    // its length, below
        0xB5, // United States
        0x00,
        0x31, // ATSC
        'G',
        'A',
        '9',
        '4',
        0x03, // cc_data
        0xC1, // process_cc_data_flag, one triplet
        0xFF, // em_data
        0xFC, // markers, cc_valid, field 1
        pair.first,
        pair.second,
        0xFF, // marker_bits
    };
    message[1] = static_cast<uint8_t>(message.size() - 2);
    return message;
}

std::vector<uint8_t> seiUnit(std::span<const uint8_t> message)
{
    std::vector<uint8_t> raw = {kSei};
    raw.insert(raw.end(), message.begin(), message.end());
    raw.push_back(kTrailingBits);
    const std::vector<uint8_t> nal = withEmulationPrevention(raw);
    std::vector<uint8_t> unit(kLengthSize + nal.size());
    for (size_t i = 0; i < kLengthSize; i++) {
        unit[i] = static_cast<uint8_t>(nal.size() >> 8 * (kLengthSize - 1 - i));
    }
    std::copy(nal.begin(), nal.end(), unit.begin() + kLengthSize);
    return unit;
}

std::vector<uint8_t> withEmulationPrevention(std::span<const uint8_t> bytes)
{
    std::vector<uint8_t> out;
    int zeros = 0;
    for (const uint8_t byte : bytes) {
        if (zeros >= 2 && byte <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return out;
}

int32_t placeOfCaption(std::span<const uint8_t> accessUnit)
{
    size_t at = 0;
    while (at + kLengthSize < accessUnit.size()) {
        size_t length = 0;
        for (const uint8_t byte : accessUnit.subspan(at, kLengthSize)) {
            length = length << 8 | byte;
        }
        const std::span<const uint8_t> rest = accessUnit.subspan(at + kLengthSize);
        if (length > 0 && isBehindCaption(rest.first(std::min(length, rest.size())))) {
            return static_cast<int32_t>(at);
        }
        if (length > rest.size()) {
            return -1;
        }
        at += kLengthSize + length;
    }
    return -1;
}
