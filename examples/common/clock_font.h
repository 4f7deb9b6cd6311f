// A small font for what is written into the test pattern: digits and the letters of "kbit/s".
#pragma once

#include <array>
#include <cstdint>

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;

// Rows from top to bottom; the lowest five bits are the pixels, the highest of them on the left.
using Glyph = std::array<uint8_t, kGlyphHeight>;

// A blank for what the font does not hold.
const Glyph &glyphOf(char letter);
