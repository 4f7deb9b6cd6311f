// "onCaptionInfo": captions as an AMF0 data message beside the video, as streaming services take them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// The body of the message: "onCaptionInfo", and an object of `type` "708" and `data`, the bytes in base64.
std::vector<uint8_t> captionInfo(std::span<const uint8_t> payload);

std::string base64(std::span<const uint8_t> bytes); // RFC 4648, 4
