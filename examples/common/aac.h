// AAC: AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) and ADTS (1.A.2).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

// One raw frame and the configuration that its ADTS header spells out.
struct AdtsFrame {
    std::vector<uint8_t> config;
    std::span<const uint8_t> raw;
};

// Empty when the packet does not begin with an ADTS header.
std::optional<AdtsFrame> parseAdts(std::span<const uint8_t> packet);

/*
 * The library announces the first two bytes of the AudioSpecificConfig, so everything must be said there.
 * Explicit signalling of SBR and PS (object types 5 and 29) takes more, and becomes the plain
 * configuration of its core: decoders find SBR and PS in the frames. Empty: it cannot be said in two bytes.
 */
std::vector<uint8_t> twoByteConfig(std::span<const uint8_t> config);
