// A second reader of parameter sets (ITU-T H.264, 7.3.2.1.1, 9.1 and annex B) over plain vectors, for both
// ways the library has: the exact one with its oddities, and the standard's.
#pragma once

#include "checked_input.h"

#include <optional>
#include <string>

namespace h264_model {

// ------------------------------------------------------------------------------------------ the exact
// reader's bits

// Bits behind the end read as nothing: of a number that the end cuts, the upper bits are there.
class LooseBits {
  public:
    explicit LooseBits(FuzzBytes bytes) : bytes_(std::move(bytes)) {}

    uint32_t read(uint32_t count)
    {
        uint32_t value = 0;
        for (; count > 0 && !isAtEnd(); count--) {
            value |= one() << (count - 1);
        }
        return value;
    }
    uint32_t one()
    {
        if (isAtEnd()) {
            return 0;
        }
        const uint32_t bit = bytes_[at_ / 8] >> (7 - at_ % 8) & 1U;
        at_++;
        return bit;
    }
    void skip(int64_t count)
    {
        at_ += count > 0 ? static_cast<uint64_t>(count) : 0;
        at_ = at_ < bytes_.size() * 8 ? at_ : bytes_.size() * 8;
    }
    uint32_t ue()
    {
        uint32_t zeros = 0;
        while (one() == 0 && !isAtEnd() && zeros < 32) {
            zeros++;
        }
        const uint64_t first = (uint64_t{1} << zeros) - 1;
        return static_cast<uint32_t>(first + read(zeros));
    }
    int32_t se()
    {
        const int64_t code = ue();
        return static_cast<int32_t>(code % 2 == 1 ? code / 2 + 1 : -code / 2);
    }
    bool isAtEnd() const
    {
        return at_ >= bytes_.size() * 8;
    }
    uint64_t position() const
    {
        return at_;
    }

  private:
    const FuzzBytes bytes_;
    uint64_t at_ = 0;
};

// The positions of a list's entries: along the diagonals, the first of them to the right and down.
inline std::vector<size_t> ZigzagScan(size_t side)
{
    std::vector<size_t> out;
    for (size_t diagonal = 0; diagonal < 2 * side - 1; diagonal++) {
        for (size_t i = 0; i <= diagonal; i++) {
            const size_t x = diagonal % 2 == 0 ? i : diagonal - i;
            const size_t y = diagonal - x;
            if (x < side && y < side) {
                out.push_back(y * side + x);
            }
        }
    }
    return out;
}

inline FuzzBytes ScalingList(LooseBits *bits, size_t size, const FuzzBytes &byDefault,
                             const FuzzBytes &fallback)
{
    if (bits->one() == 0) {
        return fallback;
    }
    const std::vector<size_t> scan = ZigzagScan(size == 16 ? 4 : 8);
    FuzzBytes list(size);
    int64_t last = 8;
    int64_t next = 8;
    for (size_t i = 0; i < size; i++) {
        next = next != 0 ? (last + bits->se()) & 255 : 0;
        if (i == 0 && next == 0) {
            return byDefault;
        }
        last = next != 0 ? next : last;
        list[scan[i]] = static_cast<uint8_t>(last);
    }
    return list;
}

inline void SkipScalingMatrices(LooseBits *bits)
{
    if (bits->one() == 0) {
        return;
    }
    for (int i = 0; i < 8; i++) {
        const size_t size = i < 6 ? 16 : 64;
        (void)ScalingList(bits, size, FuzzBytes(size), FuzzBytes(size));
    }
}

struct ExactSps {
    uint32_t profile, constraints, level, width, height;
};

inline ExactSps ReadExactSps(const FuzzBytes &sps)
{
    LooseBits bits(FuzzBytes(sps.begin() + (sps.empty() ? 0 : 1), sps.end()));
    ExactSps out = {bits.read(8), bits.read(8), bits.read(8), 0, 0};
    (void)bits.ue();
    if (out.profile > 99) {
        bits.skip(bits.ue() == 3 ? 1 : 0);
        (void)bits.ue();
        (void)bits.ue();
        (void)bits.one();
        SkipScalingMatrices(&bits);
    }
    (void)bits.ue();
    const uint32_t countType = bits.ue();
    if (countType == 0) {
        (void)bits.ue();
    } else if (countType == 1) {
        (void)bits.one();
        (void)bits.se();
        (void)bits.se();
        const uint32_t cycle = bits.ue();
        for (uint32_t i = 0; i < cycle && i < 256; i++) {
            (void)bits.se();
        }
    }
    (void)bits.ue();
    bits.skip(1);
    out.width = (bits.ue() + 1) * 16;
    out.height = (bits.ue() + 1) * 16;
    out.height *= bits.one() == 1 ? 1 : 2;
    return out;
}

// ------------------------------------------------------------------------------------------------- the
// standard's

struct StandardSps {
    uint32_t chromaFormat, lumaDepth, chromaDepth, width, height;
};

struct NotWhole {}; // thrown where an SPS is cut, or holds what it may not

class StrictBits {
  public:
    // Without the emulation prevention bytes.
    explicit StrictBits(const FuzzBytes &nal)
    {
        size_t zeros = 0;
        for (const uint8_t byte : nal) {
            if (zeros >= 2 && byte == 3) {
                zeros = 0;
                continue;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            bytes_.push_back(byte);
        }
    }
    uint32_t read(int count)
    {
        uint32_t value = 0;
        for (int i = 0; i < count; i++) {
            if (at_ == bytes_.size() * 8) {
                throw NotWhole();
            }
            value = value << 1 | (bytes_[at_ / 8] >> (7 - at_ % 8) & 1U);
            at_++;
        }
        return value;
    }
    uint32_t ue(uint32_t most)
    {
        int zeros = 0;
        while (read(1) == 0) {
            zeros++;
            if (zeros == 32) {
                throw NotWhole();
            }
        }
        const uint64_t value = (uint64_t{1} << zeros) - 1 + read(zeros);
        if (value > most) {
            throw NotWhole();
        }
        return static_cast<uint32_t>(value);
    }
    int64_t se()
    {
        const int64_t code = ue(0xFFFFFFFE);
        return code % 2 == 1 ? code / 2 + 1 : -code / 2;
    }

  private:
    FuzzBytes bytes_;
    size_t at_ = 0;
};

inline bool NamesChroma(uint32_t profile)
{
    for (const uint32_t known :
         {44U, 83U, 86U, 100U, 110U, 118U, 122U, 128U, 134U, 135U, 138U, 139U, 144U, 244U}) {
        if (known == profile) {
            return true;
        }
    }
    return false;
}

inline void SkipList(StrictBits *bits, int size)
{
    int64_t scale = 8;
    for (int i = 0; i < size && scale != 0; i++) {
        const int64_t delta = bits->se();
        if (delta < -128 || delta > 127) {
            throw NotWhole();
        }
        scale = (scale + delta + 256) % 256;
    }
}

inline void ReadChroma(StrictBits *bits, uint32_t profile, StandardSps *out)
{
    out->chromaFormat = bits->ue(3);
    (void)bits->read(out->chromaFormat == 3 ? 1 : 0);
    out->lumaDepth = bits->ue(6);
    out->chromaDepth = bits->ue(6);
    (void)bits->read(1);
    const int lists = out->chromaFormat == 3 && profile != 144 ? 12 : 8;
    const bool haveLists = bits->read(1) == 1;
    for (int i = 0; haveLists && i < lists; i++) {
        if (bits->read(1) == 1) {
            SkipList(bits, i < 6 ? 16 : 64);
        }
    }
}

inline void SkipOrderCount(StrictBits *bits)
{
    const uint32_t type = bits->ue(2);
    if (type == 0) {
        (void)bits->ue(12);
    } else if (type == 1) {
        (void)bits->read(1);
        (void)bits->se();
        (void)bits->se();
        const uint32_t cycle = bits->ue(255);
        for (uint32_t i = 0; i < cycle; i++) {
            (void)bits->se();
        }
    }
}

inline uint32_t Cropped(StrictBits *bits, uint32_t side, uint32_t unit)
{
    const uint32_t first = bits->ue(1055 * 16);
    const uint32_t cut = (first + bits->ue(1055 * 16)) * unit;
    if (cut >= side) {
        throw NotWhole();
    }
    return side - cut;
}

inline void ReadPicture(StrictBits *bits, StandardSps *out)
{
    out->width = (bits->ue(1054) + 1) * 16;
    const uint32_t mapUnits = bits->ue(1054) + 1;
    const uint32_t fields = bits->read(1) == 1 ? 1 : 2;
    (void)bits->read(fields == 2 ? 2 : 1);
    out->height = mapUnits * fields * 16;
    if (mapUnits * fields > 1055) {
        throw NotWhole();
    }
    if (bits->read(1) == 1) {
        const bool isHalfWide = out->chromaFormat == 1 || out->chromaFormat == 2;
        out->width = Cropped(bits, out->width, isHalfWide ? 2 : 1);
        out->height = Cropped(bits, out->height, (out->chromaFormat == 1 ? 2 : 1) * fields);
    }
    (void)bits->read(1);
}

// Nothing: it is broken.
inline std::optional<StandardSps> ReadStandardSps(const FuzzBytes &sps)
{
    StandardSps out = {1, 0, 0, 0, 0};
    try {
        StrictBits bits(sps);
        (void)bits.read(8);
        const uint32_t profile = bits.read(8);
        (void)bits.read(16);
        (void)bits.ue(31);
        if (NamesChroma(profile)) {
            ReadChroma(&bits, profile, &out);
        }
        (void)bits.ue(12);
        SkipOrderCount(&bits);
        (void)bits.ue(0xFFFFFFFE);
        (void)bits.read(1);
        ReadPicture(&bits, &out);
    } catch (const NotWhole &) {
        return std::nullopt;
    }
    return out;
}

// ------------------------------------------------------------------------------------------- parameter sets
// in data

struct Place {
    size_t start, length;
    bool operator==(const Place &) const = default;
};

inline std::string TextOf(const FuzzBytes &bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

inline bool IsReferenceNal(uint8_t header, int type)
{
    return header < 0x80 && (header >> 5) != 0 && (header & 0x1F) == type;
}

// Behind a start code of four bytes, up to the next one; a PPS of four bytes or less may end the data
// instead.
inline std::optional<Place> FindExact(const FuzzBytes &bytes, int type)
{
    const std::string data = TextOf(bytes);
    const std::string code("\0\0\0\1", 4);
    for (size_t at = data.find(code); at != std::string::npos; at = data.find(code, at + 1)) {
        const size_t start = at + 4;
        if (start == bytes.size() || !IsReferenceNal(bytes[start], type)) {
            continue;
        }
        const size_t end = data.find(code, start);
        if (type == 8 && bytes.size() - start <= 4) {
            return Place{start, bytes.size() - start};
        }
        return end == std::string::npos ? std::nullopt : std::optional<Place>({start, end - start});
    }
    return std::nullopt;
}

// Behind a start code of three bytes, up to the next one or the end, without the zero bytes there.
inline std::optional<Place> FindStandard(const FuzzBytes &bytes, int type)
{
    const std::string data = TextOf(bytes);
    const std::string code("\0\0\1", 3);
    for (size_t at = data.find(code); at != std::string::npos; at = data.find(code, at + 3)) {
        const size_t start = at + 3;
        if (start == bytes.size() || !IsReferenceNal(bytes[start], type)) {
            continue;
        }
        const size_t next = data.find(code, start);
        const std::string nal = data.substr(start, next == std::string::npos ? next : next - start);
        const size_t length = nal.find_last_not_of('\0') + 1;
        return length > 0xFFFF ? std::nullopt : std::optional<Place>({start, length});
    }
    return std::nullopt;
}

inline FuzzBytes BytesAt(const FuzzBytes &bytes, const Place &place)
{
    const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(place.start);
    return FuzzBytes(start, start + static_cast<std::ptrdiff_t>(place.length));
}

// ------------------------------------------------------------------------------- an SPS written field by
// field

// Fields are taken from the input, so that mutated inputs stay sequence parameter sets; what no encoder would
// write is among the values.
class SpsWriter {
  public:
    explicit SpsWriter(FuzzInput *in) : in_(in) {}

    FuzzBytes write();

  private:
    void bits(uint64_t value, int count)
    {
        for (int i = count - 1; i >= 0; i--) {
            bits_.push_back((value >> i & 1) != 0);
        }
    }
    uint64_t ue(uint64_t value)
    {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0) {
            length++;
        }
        bits(0, length);
        bits(value + 1, length + 1);
        return value;
    }
    uint64_t ue()
    {
        constexpr uint64_t edges[] = {30,         31,         32,         254,        255,   256,
                                      1053,       1054,       1055,       16879,      16880, 0x7FFFFFFE,
                                      0x7FFFFFFF, 0xFFFFFFFE, 0xFFFFFFFF, 0x1FFFFFFFE};
        const uint8_t choice = in_->byte();
        if (choice < 0xE0) {
            return ue(choice % 32);
        }
        return ue(choice < 0xF0 ? in_->number(choice < 0xE8 ? 2 : 4) : edges[choice & 15]);
    }
    bool flag()
    {
        const bool set = (in_->byte() & 1) != 0;
        bits(set, 1);
        return set;
    }
    void chroma();
    void list(int size);
    void orderCount();
    void picture();

    FuzzInput *in_;
    std::vector<bool> bits_;
};

inline void SpsWriter::list(int size)
{
    if (!flag()) {
        return;
    }
    const int entries =
        in_->byte() % (size + 2); // as many are there, or one too many, or the rest is missing
    for (int i = 0; i < entries; i++) {
        ue();
    }
}

inline void SpsWriter::chroma()
{
    const uint64_t format = ue();
    if (format == 3) {
        flag();
    }
    ue();
    ue();
    flag();
    if (!flag()) {
        return;
    }
    const int lists = in_->byte() % 13;
    for (int i = 0; i < lists; i++) {
        list(i < 6 ? 16 : 64);
    }
}

inline void SpsWriter::orderCount()
{
    const uint64_t type = ue();
    if (type == 0) {
        ue();
    }
    if (type != 1) {
        return;
    }
    flag();
    ue();
    ue();
    const uint64_t cycle = ue();
    const uint64_t written = (in_->byte() & 1) != 0 ? cycle : in_->byte();
    for (uint64_t i = 0; i < written && i < 300; i++) {
        ue(i % 5); // the fields themselves say little
    }
}

inline void SpsWriter::picture()
{
    ue();
    ue();
    if (!flag()) {
        flag();
    }
    flag();
    if (flag()) {
        for (int side = 0; side < 4; side++) {
            ue();
        }
    }
    flag();
}

inline FuzzBytes SpsWriter::write()
{
    constexpr uint8_t profiles[] = {66, 77, 88, 99, 100, 110, 118, 122, 128, 134, 144, 244, 44, 83, 101, 255};
    const uint8_t choices = in_->byte();
    bits(0x67, 8);
    bits(profiles[choices & 15], 8);
    bits(in_->number(2), 16);
    const uint64_t profile = profiles[choices & 15];
    ue();
    if (profile > 99 || NamesChroma(static_cast<uint32_t>(profile))) {
        chroma();
    }
    ue();
    orderCount();
    ue();
    flag();
    picture();
    const uint64_t cut = in_->number(2); // bits off the end, most of the time none
    for (uint64_t i = 0; (choices & 0x30) == 0x30 && i < cut && !bits_.empty(); i++) {
        bits_.pop_back();
    }
    FuzzBytes out;
    for (size_t i = 0; i < bits_.size(); i += 8) {
        uint8_t byte = 0;
        for (size_t bit = 0; bit < 8 && i + bit < bits_.size(); bit++) {
            byte = static_cast<uint8_t>(byte | (bits_[i + bit] ? 0x80 >> bit : 0));
        }
        const size_t n = out.size();
        if ((choices & 0x40) != 0 && n >= 2 && out[n - 1] == 0 && out[n - 2] == 0 && byte <= 3) {
            out.push_back(3); // emulation prevention
        }
        out.push_back(byte);
    }
    return out;
}

} // namespace h264_model
