#include "aac.h"

namespace {

enum ObjectType { kSbr = 5, kPs = 29, kEscape = 31 };
constexpr uint32_t kExplicitRate = 15;

// objectType:5  samplingFrequencyIndex:4  channelConfiguration:4  frameLengthFlag:1 and two flags more
std::vector<uint8_t> packConfig(uint32_t objectType, uint32_t rateIndex, uint32_t channels, uint32_t flags)
{
    const uint32_t bits = objectType << 11 | rateIndex << 7 | channels << 3 | flags;
    return {static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
}

} // namespace

// syncword:12 id:1 layer:2 protectionAbsent:1  profile:2 rateIndex:4 private:1 channels:3 ... frameLength:13
// ...
// ... rawDataBlocks:2, less one  [crc:16]
std::optional<AdtsFrame> parseAdts(std::span<const uint8_t> packet)
{
    if (packet.size() < 7 || packet[0] != 0xFF || (packet[1] & 0xF6) != 0xF0) {
        return std::nullopt;
    }
    const size_t header = (packet[1] & 1) != 0 ? 7 : 9;
    const size_t length = static_cast<size_t>((packet[3] & 3) << 11 | packet[4] << 3 | packet[5] >> 5);
    const bool oneBlock = (packet[6] & 3) == 0;
    if (!oneBlock || length <= header || length > packet.size()) {
        return std::nullopt;
    }
    const uint32_t objectType = (packet[2] >> 6) + 1u;
    const uint32_t rateIndex = packet[2] >> 2 & 0x0F;
    const uint32_t channels = (packet[2] & 1u) << 2 | packet[3] >> 6;
    return AdtsFrame{packConfig(objectType, rateIndex, channels, 0), packet.subspan(header, length - header)};
}

std::vector<uint8_t> twoByteConfig(std::span<const uint8_t> config)
{
    if (config.size() < 2) {
        return {};
    }
    const uint32_t objectType = config[0] >> 3;
    const uint32_t rateIndex = (config[0] & 7u) << 1 | config[1] >> 7;
    const uint32_t channels = config[1] >> 3 & 0x0F;
    if (objectType == kEscape || rateIndex == kExplicitRate || channels == 0) {
        return {};
    }
    if (objectType != kSbr && objectType != kPs) {
        return {config[0], config[1]};
    }
    // extensionSamplingFrequencyIndex:4  core's objectType:5  core's flags:3
    if (config.size() < 4) {
        return {};
    }
    const uint32_t rest = (config[1] & 7u) << 16 | config[2] << 8u | config[3];
    const uint32_t extensionRate = rest >> 15 & 0x0F;
    const uint32_t coreType = rest >> 10 & 0x1F;
    if (extensionRate == kExplicitRate || coreType == kEscape) {
        return {};
    }
    return packConfig(coreType, rateIndex, channels, rest >> 7 & 7);
}
