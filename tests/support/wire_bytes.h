// Byte strings of the wire tests: readable literals, and comparison with a picture that leaves gaps.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace wire {

using Bytes = std::vector<uint8_t>;

// FromHex("02 0007 '_result' 00"): hex digits in pairs, blanks anywhere, quoted text stands for itself.
Bytes FromHex(std::string_view picture);

// Pairs of hex digits with a blank between two bytes.
std::string ToHex(const Bytes &bytes);

Bytes Join(std::initializer_list<Bytes> parts);
void Append(Bytes &bytes, const Bytes &more);
Bytes Slice(const Bytes &bytes, size_t from, size_t count);

// Big-endian number of `width` bytes.
Bytes Number(uint64_t value, size_t width);

// Whether `bytes` looks like `picture`: as FromHex, and "??" matches any byte.
testing::AssertionResult Matches(const Bytes &bytes, std::string_view picture);

// Whether two byte strings are equal; shows the first difference.
testing::AssertionResult Same(const Bytes &actual, const Bytes &expected);

} // namespace wire
