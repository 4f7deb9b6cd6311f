// Byte strings of tests, written as hex.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline int HexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    throw std::invalid_argument("not a hex digit");
}

// Hex("03 000102 14"): pairs of digits; blanks are free.
inline Bytes Hex(const std::string &text)
{
    std::string digits;
    for (char c : text) {
        if (c != ' ') {
            digits += c;
        }
    }
    if (digits.size() % 2 != 0) {
        throw std::invalid_argument("half a byte: " + text);
    }
    Bytes out;
    for (size_t i = 0; i < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(HexDigit(digits[i]) << 4 | HexDigit(digits[i + 1])));
    }
    return out;
}

inline Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes Slice(const Bytes &bytes, size_t from, size_t count)
{
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(from + count));
}

// Counting(300) is 00 01 02 ... FE FF 00 ...; Counting(3, 0xA1) is A1 A2 A3.
inline Bytes Counting(size_t count, uint8_t first = 0)
{
    Bytes out(count);
    for (size_t i = 0; i < count; i++) {
        out[i] = static_cast<uint8_t>(first + i);
    }
    return out;
}
