// The packets of the handshake (RTMP 1.0, 5.2), and the keys with which Flash players and servers sign them.
#pragma once

#include <stdint.h>

constexpr uint8_t kProtocolVersion = 3; // RTMP 1.0, 5.2.2
constexpr uint32_t kPacketLength = 1536;
constexpr uint32_t kDigestLength = 32;
constexpr uint32_t kSignedLength = kPacketLength - kDigestLength;
constexpr uint32_t kRandomOffset = 8;
constexpr uint32_t kRandomWords = (kPacketLength - kRandomOffset) / 4;

// A key is a banner, with which C1 and S1 are signed, and 32 bytes behind it; S2 and C2 take all of it.
#define GENUINE_KEY_TAIL                                                                                     \
    "\xF0\xEE\xC2\x4A\x80\x68\xBE\xE8\x2E\x00\xD0\xD1\x02\x9E\x7E\x57"                                       \
    "\x6E\xEC\x5D\x2D\x29\x80\x6F\xAB\x93\xB8\xE6\x36\xCF\xEB\x31\xAE"

constexpr char GenuineFMSKey[] = "Genuine Adobe Flash Media Server 001" GENUINE_KEY_TAIL;
constexpr char GenuineFPKey[] = "Genuine Adobe Flash Player 001" GENUINE_KEY_TAIL;
constexpr uint32_t kServerBannerLength = 36;
constexpr uint32_t kServerKeyLength = 68;
constexpr uint32_t kPlayerBannerLength = 30;
constexpr uint32_t kPlayerKeyLength = 62;
static_assert(sizeof GenuineFMSKey == kServerKeyLength + 1, "the terminator is not part of the key");
static_assert(sizeof GenuineFPKey == kPlayerKeyLength + 1, "the terminator is not part of the key");

inline const uint8_t *BytesOf(const char *key)
{
    return reinterpret_cast<const uint8_t *>(key);
}
