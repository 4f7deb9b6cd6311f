#include "h264.h"

#include <algorithm>
#include <array>

namespace {

enum NalType { kSlice = 1, kIdr = 5, kSps = 7, kPps = 8, kDelimiter = 9 };

int typeOf(Bytes nal)
{
    return nal[0] & 0x1F;
}

bool isSlice(Bytes nal)
{
    return typeOf(nal) >= kSlice && typeOf(nal) <= kIdr;
}

std::vector<Bytes> splitByLength(Bytes data, size_t lengthSize)
{
    std::vector<Bytes> nals;
    while (data.size() > lengthSize) {
        size_t length = 0;
        for (const uint8_t byte : data.first(lengthSize)) {
            length = length << 8 | byte;
        }
        data = data.subspan(lengthSize);
        length = std::min(length, data.size()); // a cut file: what is left of the NAL unit
        if (length > 0) {
            nals.push_back(data.first(length));
        }
        data = data.subspan(length);
    }
    return nals;
}

std::vector<Bytes> splitByStartCode(Bytes data)
{
    constexpr std::array<uint8_t, 3> kStartCode = {0, 0, 1};
    std::vector<Bytes> nals;
    const auto find = [&](auto from) {
        return std::search(from, data.end(), kStartCode.begin(), kStartCode.end());
    };
    for (auto at = find(data.begin()); at != data.end();) {
        const auto begin = at + kStartCode.size();
        at = find(begin);
        auto end = at;
        while (end != begin && *(end - 1) == 0) {
            --end; // zeros in front of the next start code, or trailing ones
        }
        if (begin != end) {
            nals.emplace_back(begin, end);
        }
    }
    return nals;
}

std::vector<Bytes> split(Bytes packet, NalFraming framing)
{
    return framing.lengthSize > 0 ? splitByLength(packet, static_cast<size_t>(framing.lengthSize))
                                  : splitByStartCode(packet);
}

void keepIfMissing(std::vector<uint8_t> &set, Bytes nal)
{
    if (set.empty()) {
        set.assign(nal.begin(), nal.end());
    }
}

void appendWithLength(std::vector<uint8_t> &out, Bytes nal)
{
    const uint32_t length = static_cast<uint32_t>(nal.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(length >> shift));
    }
    out.insert(out.end(), nal.begin(), nal.end());
}

// version:8  profile:8  compatibility:8  level:8  reserved:6 lengthSizeMinusOne:2
// reserved:3 numOfSps:5  { length:16 SPS }  numOfPps:8  { length:16 PPS }  (ISO/IEC 14496-15, 5.3.3.1)
ParameterSets parseConfigurationRecord(Bytes record)
{
    ParameterSets sets;
    size_t at = 5;
    for (const int countMask : {0x1F, 0xFF}) {
        if (at >= record.size()) {
            return sets;
        }
        for (int left = record[at++] & countMask; left > 0 && at + 2 <= record.size(); --left) {
            const size_t length = static_cast<size_t>(record[at] << 8 | record[at + 1]);
            at += 2;
            if (length == 0 || at + length > record.size()) {
                return sets;
            }
            keepIfMissing(countMask == 0x1F ? sets.sps : sets.pps, record.subspan(at, length));
            at += length;
        }
    }
    return sets;
}

} // namespace

ParameterSets parseExtradata(Bytes extradata, NalFraming &framing)
{
    if (extradata.size() >= 7 && extradata[0] == 1) {
        framing.lengthSize = (extradata[4] & 3) + 1;
        return parseConfigurationRecord(extradata);
    }
    framing.lengthSize = 0;
    ParameterSets sets;
    collectParameterSets(extradata, framing, sets);
    return sets;
}

void collectParameterSets(Bytes packet, NalFraming framing, ParameterSets &sets)
{
    for (const Bytes nal : split(packet, framing)) {
        if (typeOf(nal) == kSps) {
            keepIfMissing(sets.sps, nal);
        } else if (typeOf(nal) == kPps) {
            keepIfMissing(sets.pps, nal);
        }
    }
}

std::vector<uint8_t> annexBConfig(const ParameterSets &sets)
{
    constexpr std::array<uint8_t, 4> kStartCode = {0, 0, 0, 1};
    std::vector<uint8_t> out(kStartCode.begin(), kStartCode.end());
    for (const std::vector<uint8_t> *set : {&sets.sps, &sets.pps}) {
        out.insert(out.end(), set->begin(), set->end());
        out.insert(out.end(), kStartCode.begin(), kStartCode.end());
    }
    return out;
}

void toAccessUnit(Bytes packet, NalFraming framing, const ParameterSets &sets, std::vector<uint8_t> &out)
{
    out.clear();
    std::vector<Bytes> nals = split(packet, framing);
    std::erase_if(nals, [](Bytes nal) { return typeOf(nal) == kDelimiter; });
    if (std::ranges::none_of(nals, isSlice)) {
        return;
    }
    const bool key = std::ranges::any_of(nals, [](Bytes nal) { return typeOf(nal) == kIdr; });
    const int first = typeOf(nals.front());
    if (key && first != kIdr && first != kSps && first != kPps) {
        nals.insert(nals.begin(), {Bytes(sets.sps), Bytes(sets.pps)});
    }
    for (const Bytes nal : nals) {
        appendWithLength(out, nal);
    }
}
