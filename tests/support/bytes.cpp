#include "support/bytes.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace {

struct Cell {
    bool any;
    uint8_t byte;
    bool operator==(const Cell &) const = default;
};

uint8_t Digit(char c)
{
    const size_t at = std::string_view("0123456789abcdef").find(static_cast<char>(tolower(c)));
    if (at == std::string_view::npos) {
        throw std::invalid_argument(std::string("not a hex digit: ") + c);
    }
    return static_cast<uint8_t>(at);
}

std::vector<Cell> Read(std::string_view picture)
{
    std::vector<Cell> cells;
    for (size_t i = 0; i < picture.size(); ++i) {
        if (isspace(static_cast<unsigned char>(picture[i]))) {
            continue;
        }
        if (picture[i] == '\'') {
            for (++i; i < picture.size() && picture[i] != '\''; ++i) {
                cells.push_back({false, static_cast<uint8_t>(picture[i])});
            }
            continue;
        }
        if (i + 1 >= picture.size()) {
            throw std::invalid_argument("half a byte at the end");
        }
        const bool any = picture[i] == '?' && picture[i + 1] == '?';
        cells.push_back(
            {any, any ? uint8_t{0} : static_cast<uint8_t>(Digit(picture[i]) << 4 | Digit(picture[i + 1]))});
        ++i;
    }
    return cells;
}

testing::AssertionResult Compare(const Bytes &bytes, const std::vector<Cell> &cells)
{
    size_t at = 0;
    while (at < bytes.size() && at < cells.size() && (cells[at].any || cells[at].byte == bytes[at])) {
        ++at;
    }
    if (at == bytes.size() && at == cells.size()) {
        return testing::AssertionSuccess();
    }
    Bytes wanted;
    for (const Cell &cell : cells) {
        wanted.push_back(cell.byte);
    }
    const size_t from = at < 24 ? 0 : at - 24;
    return testing::AssertionFailure()
           << bytes.size() << " bytes against " << cells.size() << ", first difference at " << at
           << "\n  from " << from << ": " << ToHex(Slice(bytes, from, 48))
           << "\n  wanted: " << ToHex(Slice(wanted, from, 48));
}

} // namespace

Bytes Hex(std::string_view picture)
{
    Bytes bytes;
    for (const Cell &cell : Read(picture)) {
        if (cell.any) {
            throw std::invalid_argument("a gap in a literal");
        }
        bytes.push_back(cell.byte);
    }
    return bytes;
}

Bytes Text(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string ToHex(const void *data, size_t length)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t i = 0; i < length; i++) {
        const uint8_t byte = static_cast<const uint8_t *>(data)[i];
        text += text.empty() ? "" : " ";
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string ToHex(const Bytes &bytes)
{
    return ToHex(bytes.data(), bytes.size());
}

Bytes operator+(Bytes left, const Bytes &right)
{
    Append(left, right);
    return left;
}

Bytes operator+(Bytes left, std::string_view text)
{
    left.insert(left.end(), text.begin(), text.end());
    return left;
}

Bytes Join(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes &part : parts) {
        Append(all, part);
    }
    return all;
}

void Append(Bytes &bytes, const Bytes &more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// By doubling, so that millions of pieces are soon put together without optimisation too.
Bytes Repeated(const Bytes &piece, size_t times)
{
    const size_t length = piece.size() * times;
    Bytes all = times > 0 ? piece : Bytes();
    all.reserve(length);
    while (all.size() < length) {
        const size_t more = std::min(all.size(), length - all.size());
        all.resize(all.size() + more);
        std::copy_n(all.begin(), more, all.end() - static_cast<std::ptrdiff_t>(more));
    }
    return all;
}

Bytes Slice(const Bytes &bytes, size_t from, size_t count)
{
    const size_t first = std::min(from, bytes.size());
    const size_t last = first + std::min(count, bytes.size() - first);
    return {bytes.begin() + static_cast<ptrdiff_t>(first), bytes.begin() + static_cast<ptrdiff_t>(last)};
}

Bytes BigEndian(uint64_t value, size_t width)
{
    Bytes bytes(width);
    for (size_t i = 0; i < width; ++i) {
        bytes[width - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
    return bytes;
}

Bytes Counting(size_t count, uint8_t first)
{
    Bytes out(count);
    uint8_t *const bytes = out.data();
    for (size_t i = 0; i < count; i++) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return out;
}

testing::AssertionResult Matches(const Bytes &bytes, std::string_view picture)
{
    return Compare(bytes, Read(picture));
}

testing::AssertionResult Same(const Bytes &actual, const Bytes &expected)
{
    if (actual == expected) {
        return testing::AssertionSuccess();
    }
    std::vector<Cell> cells;
    for (const uint8_t byte : expected) {
        cells.push_back({false, byte});
    }
    return Compare(actual, cells);
}
