// Big- and little-endian fields of the wire. The byte order is in the verb.
#pragma once

#include <stdint.h>

inline uint32_t GetU16Be(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 8 | p[1];
}

inline uint32_t GetU24Be(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[2];
}

inline uint32_t GetU32Be(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | GetU24Be(p + 1);
}
