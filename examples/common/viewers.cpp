#include "viewers.h"

#include <cstdio>

namespace {

constexpr size_t kLongest = 100;

std::string addressOf(const RtmpViewer &viewer)
{
    return std::string(viewer.Figures.IsTls != 0 ? "viewer over TLS " : "viewer ") + viewer.Figures.Address +
           ":" + std::to_string(viewer.Figures.Port);
}

// Without the query: a token is nobody's business.
std::string nameOf(const RtmpViewer &viewer)
{
    const std::string_view stream(viewer.Stream);
    return printable(viewer.App) + "/" + printable(stream.substr(0, stream.find('?')));
}

std::string megabytes(uint64_t bytes)
{
    char text[32];
    snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

// As long for a wrong token as for the right one.
bool isEqual(std::string_view one, std::string_view other)
{
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (size_t i = 0; i < one.size() && i < other.size(); i++) {
        difference |= static_cast<unsigned>(one[i] ^ other[i]);
    }
    return difference == 0;
}

} // namespace

bool hasToken(std::string_view stream, std::string_view token)
{
    constexpr std::string_view kKey = "token=";
    const size_t query = stream.find('?');
    std::string_view rest = query != std::string_view::npos ? stream.substr(query + 1) : std::string_view();
    while (!rest.empty()) {
        const std::string_view pair = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
        if (pair.starts_with(kKey)) {
            return isEqual(pair.substr(kKey.size()), token);
        }
    }
    return false;
}

std::string printable(std::string_view text)
{
    std::string out;
    for (const char each : text.substr(0, kLongest)) {
        const bool isControl = static_cast<unsigned char>(each) < 0x20 || each == 0x7F;
        out.push_back(isControl ? '?' : each);
    }
    return text.size() > kLongest ? out + "..." : out;
}

std::string asks(const RtmpViewer &viewer)
{
    return addressOf(viewer) + " asks for " + nameOf(viewer);
}

std::string isRefused(const RtmpViewer &viewer)
{
    return addressOf(viewer) + " is refused " + nameOf(viewer) + ": it brings no valid token";
}

std::string leaves(const RtmpViewer &viewer)
{
    const RtmpClientFigures &got = viewer.Figures;
    return addressOf(viewer) + " leaves " + nameOf(viewer) + " after " +
           std::to_string(got.Milliseconds / 1000) + " s: " + megabytes(got.Bytes) + ", " +
           std::to_string(got.Frames) + " frames, " + std::to_string(got.DroppedFrames) + " dropped";
}
