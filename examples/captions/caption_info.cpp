#include "caption_info.h"

#include <algorithm>
#include <string_view>

namespace {

enum Amf0 : uint8_t { kString = 0x02, kObject = 0x03, kObjectEnd = 0x09 };

void putText(std::vector<uint8_t> &out, std::string_view text)
{
    out.push_back(static_cast<uint8_t>(text.size() >> 8));
    out.push_back(static_cast<uint8_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

void putString(std::vector<uint8_t> &out, std::string_view text)
{
    out.push_back(kString);
    putText(out, text);
}

void putMember(std::vector<uint8_t> &out, std::string_view name, std::string_view text)
{
    putText(out, name);
    putString(out, text);
}

} // namespace

std::string base64(std::span<const uint8_t> bytes)
{
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const std::span<const uint8_t> part = bytes.subspan(at).first(std::min<size_t>(3, bytes.size() - at));
        uint32_t bits = 0;
        for (size_t i = 0; i < 3; ++i) {
            bits = bits << 8 | (i < part.size() ? part[i] : 0u);
        }
        for (size_t i = 0; i < 4; ++i) {
            out.push_back(i <= part.size() ? kDigits[bits >> (18 - 6 * i) & 0x3F] : '=');
        }
    }
    return out;
}

std::vector<uint8_t> captionInfo(std::span<const uint8_t> payload)
{
    std::vector<uint8_t> out;
    putString(out, "onCaptionInfo");
    out.push_back(kObject);
    putMember(out, "type", "708");
    putMember(out, "data", base64(payload));
    putText(out, "");
    out.push_back(kObjectEnd);
    return out;
}
