// What is said of viewers, and who may watch.
#pragma once

#include <rtmpcast/service.h>

#include <string>
#include <string_view>

// Whether a stream, as a player asks for it, carries the token: "stream?token=TEXT", or among others.
bool hasToken(std::string_view stream, std::string_view token);

// A peer's own words with its control characters, and what is too long to be read, taken out.
std::string printable(std::string_view text);

// "viewer 192.0.2.7:40112 asks for live/stream", and with what it got: "... leaves live/stream after 62 s:
// ..."
std::string asks(const RtmpViewer &viewer);
std::string isRefused(const RtmpViewer &viewer);
std::string leaves(const RtmpViewer &viewer);
