// Byte strings of the tests: readable literals, the usual ways to cut and join, and comparison with a picture
// that leaves gaps.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

// Hex("02 0007 '_result' 00"): hex digits in pairs, blanks anywhere between them, quoted text stands for
// itself.
Bytes Hex(std::string_view picture);

Bytes Text(std::string_view text);

// Pairs of upper-case digits with a blank between two bytes.
std::string ToHex(const Bytes &bytes);
std::string ToHex(const void *data, size_t length);

Bytes operator+(Bytes left, const Bytes &right);
Bytes operator+(Bytes left, std::string_view text);
Bytes Join(std::initializer_list<Bytes> parts);
void Append(Bytes &bytes, const Bytes &more);
Bytes Repeated(const Bytes &piece, size_t times);

// At most `count` bytes from `from` on: as many as there are.
Bytes Slice(const Bytes &bytes, size_t from, size_t count);

// A number of `width` bytes, the high one first.
Bytes BigEndian(uint64_t value, size_t width);

// Counting(300) is 00 01 02 ... FE FF 00 ...; Counting(3, 0xA1) is A1 A2 A3.
Bytes Counting(size_t count, uint8_t first = 0);

// Whether `bytes` looks like `picture`: as Hex, and "??" matches any byte.
testing::AssertionResult Matches(const Bytes &bytes, std::string_view picture);

// Whether two byte strings are equal; shows the first difference.
testing::AssertionResult Same(const Bytes &actual, const Bytes &expected);
