// The digest handshake (RTMP 1.0, 5.2, with the signatures that Flash players and servers put into C1, S1,
// S2 and C2), and the plain one for connections that allow it (RTMP_PLAYERS_HANDSHAKE); server side.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// PerformHandshake runs the handshake on a new connection. -1: refused or cut short (logged).
RTMP_STATUS int PerformHandshake(RtmpClient *client);

// Offset of the 32 digest bytes in a 1536-byte packet, by the two schemes in use; -1 out of range.
int32_t GetDigestPosition1(const uint8_t *packet);
int32_t GetDigestPosition2(const uint8_t *packet);

// CalculateDigest is HMAC-SHA256 over the 1504 bytes of a packet that are not the digest at `offset`.
RTMP_STATUS int CalculateDigest(uint32_t offset, const uint8_t *packet, const uint8_t *key,
                                uint32_t keyLength, uint8_t *digest);

// CompareDigest returns 1 when the digest at `offset` is right, 0 when not, 255 when it could not be
// computed.
uint8_t CompareDigest(uint32_t offset, const uint8_t *packet, const uint8_t *key, uint32_t keyLength);

RTMP_STATUS int HMACsha256(const uint8_t *data, uint32_t length, const uint8_t *key, uint32_t keyLength,
                           uint8_t *digest);

// ReadNoOfBytes reads exactly `length` bytes from a client. An RTMPT client reads nothing and gets 0.
RTMP_STATUS int ReadNoOfBytes(RtmpClient *client, uint8_t *buffer, uint32_t length);
}
