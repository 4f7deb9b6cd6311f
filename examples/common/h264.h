// H.264 byte streams (ITU-T H.264, Annex B) and length-prefixed access units (ISO/IEC 14496-15).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

using Bytes = std::span<const uint8_t>;

// How the NAL units of a packet are told apart.
struct NalFraming {
    int lengthSize = 0; // bytes of the length in front of each NAL unit; 0: start codes
};

// The first SPS and PPS of a stream.
struct ParameterSets {
    std::vector<uint8_t> sps;
    std::vector<uint8_t> pps;

    bool complete() const
    {
        return !sps.empty() && !pps.empty();
    }
};

// Reads an AVCDecoderConfigurationRecord or Annex B data. Sets stay empty where there are none.
ParameterSets parseExtradata(Bytes extradata, NalFraming &framing);

// Fills whichever set is still missing from a packet.
void collectParameterSets(Bytes packet, NalFraming framing, ParameterSets &sets);

// SPS and PPS, each behind 00 00 00 01, and a start code that ends the PPS.
std::vector<uint8_t> annexBConfig(const ParameterSets &sets);

/*
 * One packet as an access unit with 4-byte lengths; empty when it holds no slice.
 *
 * Players are told of a key frame when the first NAL unit is an IDR slice or a parameter set. So access
 * unit delimiters are left out, and a key frame that begins with something else (an SEI, say) gets the
 * stream's parameter sets in front.
 */
void toAccessUnit(Bytes packet, NalFraming framing, const ParameterSets &sets, std::vector<uint8_t> &out);
