// Text as pairs of bytes on field 1, channel 1 of ANSI/CTA-608-E ("line 21" closed captions), pop-on style.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Two bytes with odd parity. One picture carries one pair.
struct CaptionPair {
    uint8_t first = 0x80;
    uint8_t second = 0x80; // both 0x80: nothing is said

    bool operator==(const CaptionPair &) const = default;

    bool isControl() const // to be sent twice
    {
        return (first & 0x70) == 0x10;
    }
};

// With parity: `first` and `second` have 7 bits.
CaptionPair pairOf(uint8_t first, uint8_t second);

enum class CaptionControl : uint8_t {
    ResumeLoading = 0x20, // RCL: what follows goes into the memory that is not shown
    EraseShown = 0x2C,    // EDM
    EraseHidden = 0x2E,   // ENM
    Flip = 0x2F           // EOC: shown and hidden memory change places
};

CaptionPair controlPair(CaptionControl control);

constexpr size_t kCaptionColumns = 32;
constexpr size_t kCaptionRows = 4; // of one caption, the lowest of 15

// Text cut into captions of up to four rows, each row up to 32 columns: between words where it can be.
using CaptionRows = std::vector<std::u32string>;
std::vector<CaptionRows> layOutCaptions(const std::string &utf8);

// What loads these rows into the hidden memory: RCL, ENM, and for each row its address and its text. Control
// pairs stand here twice. Characters that the sets of the standard lack become '?'.
std::vector<CaptionPair> loadingPairs(const CaptionRows &rows);
