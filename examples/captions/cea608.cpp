#include "cea608.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <string_view>

namespace {

constexpr uint8_t kChannel1 = 0x14;  // first byte of its control codes
constexpr uint32_t kNoSuch = 0xFFFD; // U+FFFD, for bytes that are no UTF-8

// The basic set is ASCII but for these codes.
struct BasicException {
    char32_t character;
    uint8_t code;
};
constexpr BasicException kBasicExceptions[] = {
    {U'\u2019', 0x27}, {U'á', 0x2A}, {U'é', 0x5C}, {U'í', 0x5E}, {U'ó', 0x5F}, {U'ú', 0x60},
    {U'ç', 0x7B},      {U'÷', 0x7C}, {U'Ñ', 0x7D}, {U'ñ', 0x7E}, {U'█', 0x7F},
};
constexpr std::string_view kNotAscii = "*\\^_`{|}~\x7F"; // whose codes those are

// 11 30 to 11 3F.
constexpr std::u32string_view kSpecial = U"®°½¿™¢£♪à\u00A0èâêîôû";

// 12 20 to 12 3F and 13 20 to 13 3F: each takes the place of the basic character in front of it, which
// decoders without these sets show.
struct ExtendedSet {
    uint8_t first;
    std::u32string_view characters;
    std::string_view stands; // for them
};
constexpr ExtendedSet kExtended[] = {
    {0x12, U"ÁÉÓÚÜü‘¡*'—©℠•“”ÀÂÇÈÊËëÎÏïÔÙùÛ«»", "AEOUUu'!.'-cs.\"\"AACEEEeIIiOUuU\"\""},
    {0x13, U"ÃãÍÌìÒòÕõ{}\\^_|~ÄäÖöß¥¤¦ÅåØø┌┐└┘", "AaIIiOoOo()/.-!-AaOosYx!AaOo++++"},
};
static_assert(kExtended[0].characters.size() == 32 && kExtended[0].stands.size() == 32);
static_assert(kExtended[1].characters.size() == 32 && kExtended[1].stands.size() == 32);
static_assert(kSpecial.size() == 16);

uint8_t withParity(uint8_t code)
{
    return std::popcount(code) % 2 == 1 ? code : static_cast<uint8_t>(code | 0x80);
}

// The code of a basic character; 0: it is none.
uint8_t basicCode(char32_t character)
{
    for (const BasicException &each : kBasicExceptions) {
        if (each.character == character) {
            return each.code;
        }
    }
    const bool isAscii = character >= 0x20 && character < 0x7F;
    return isAscii && kNotAscii.find(static_cast<char>(character)) == std::string_view::npos
               ? static_cast<uint8_t>(character)
               : 0;
}

// Puts single characters together to pairs; a pair of a control code does not share its bytes.
class PairWriter {
  public:
    void character(uint8_t code)
    {
        if (half_ == 0) {
            half_ = code;
            return;
        }
        pairs_.push_back(pairOf(half_, code));
        half_ = 0;
    }

    void control(CaptionPair pair)
    {
        fill();
        pairs_.insert(pairs_.end(), 2, pair);
    }

    std::vector<CaptionPair> take()
    {
        fill();
        return std::move(pairs_);
    }

  private:
    void fill()
    {
        if (half_ != 0) {
            character(0);
        }
    }

    std::vector<CaptionPair> pairs_;
    uint8_t half_ = 0; // 0: none
};

bool putExtended(PairWriter &out, char32_t character)
{
    for (const ExtendedSet &set : kExtended) {
        const size_t at = set.characters.find(character);
        if (at != std::u32string_view::npos) {
            out.character(static_cast<uint8_t>(set.stands[at]));
            out.control(pairOf(set.first, static_cast<uint8_t>(0x20 + at)));
            return true;
        }
    }
    return false;
}

void putCharacter(PairWriter &out, char32_t character)
{
    if (const uint8_t code = basicCode(character); code != 0) {
        out.character(code);
        return;
    }
    const size_t special = kSpecial.find(character);
    if (special != std::u32string_view::npos) {
        out.control(pairOf(0x11, static_cast<uint8_t>(0x30 + special)));
    } else if (!putExtended(out, character)) {
        out.character('?');
    }
}

// The preamble address codes of rows 12 to 15: white, column 0.
CaptionPair addressOf(size_t rowFromBottom)
{
    constexpr CaptionPair kRows[kCaptionRows] = {{0x14, 0x70}, {0x14, 0x50}, {0x13, 0x70}, {0x13, 0x50}};
    return pairOf(kRows[rowFromBottom].first, kRows[rowFromBottom].second);
}

size_t lengthOf(uint8_t lead)
{
    if (lead < 0x80) {
        return 1;
    }
    const int ones = std::countl_one(lead);
    return ones >= 2 && ones <= 4 ? static_cast<size_t>(ones) : 0;
}

// One character of UTF-8 off the front.
char32_t takeCharacter(std::string_view &text)
{
    const uint8_t lead = static_cast<uint8_t>(text[0]);
    const size_t length = lengthOf(lead);
    if (length == 0 || length > text.size()) {
        text.remove_prefix(1);
        return kNoSuch;
    }
    char32_t character = length == 1 ? lead : lead & (0x7Fu >> length);
    for (const char each : text.substr(1, length - 1)) {
        character = character << 6 | (static_cast<uint8_t>(each) & 0x3F);
    }
    text.remove_prefix(length);
    return character;
}

std::u32string decode(std::string_view text)
{
    std::u32string out;
    while (!text.empty()) {
        const char32_t character = takeCharacter(text);
        out.push_back(character == '\t' ? U' ' : character);
    }
    return out;
}

// Where a row of `line` ends: behind its last word that fits.
size_t endOfRow(std::u32string_view line)
{
    if (line.size() <= kCaptionColumns) {
        return line.size();
    }
    const size_t space = line.rfind(U' ', kCaptionColumns);
    return space == std::u32string_view::npos || space == 0 ? kCaptionColumns : space;
}

void skipSpaces(std::u32string_view &line)
{
    line.remove_prefix(std::min(line.find_first_not_of(U' '), line.size()));
}

void wrap(std::u32string_view line, CaptionRows &rows)
{
    for (skipSpaces(line); !line.empty(); skipSpaces(line)) {
        const size_t end = endOfRow(line);
        rows.emplace_back(line.substr(0, end));
        line.remove_prefix(end);
    }
}

} // namespace

CaptionPair pairOf(uint8_t first, uint8_t second)
{
    return {withParity(first), withParity(second)};
}

CaptionPair controlPair(CaptionControl control)
{
    return pairOf(kChannel1, static_cast<uint8_t>(control));
}

std::vector<CaptionRows> layOutCaptions(const std::string &utf8)
{
    const std::u32string text = decode(utf8);
    CaptionRows rows;
    for (std::u32string_view rest = text; !rest.empty();) {
        const size_t end = std::min(rest.find(U'\n'), rest.size());
        wrap(rest.substr(0, end), rows);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    std::vector<CaptionRows> captions;
    for (size_t at = 0; at < rows.size(); at += kCaptionRows) {
        const size_t end = std::min(at + kCaptionRows, rows.size());
        captions.emplace_back(rows.begin() + static_cast<ptrdiff_t>(at),
                              rows.begin() + static_cast<ptrdiff_t>(end));
    }
    return captions;
}

std::vector<CaptionPair> loadingPairs(const CaptionRows &rows)
{
    PairWriter out;
    out.control(controlPair(CaptionControl::ResumeLoading));
    out.control(controlPair(CaptionControl::EraseHidden));
    for (size_t i = 0; i < rows.size() && i < kCaptionRows; ++i) {
        const size_t fromBottom = std::min(rows.size(), kCaptionRows) - 1 - i;
        out.control(addressOf(fromBottom));
        for (const char32_t character : rows[i]) {
            putCharacter(out, character);
        }
    }
    return out.take();
}
