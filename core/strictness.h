// Every rule that is stricter, or more patient, than a player or host may expect, in one place. Each is a
// constant today; a host's setting can take its place without a search through the code.
#pragma once

#include <stdint.h>

// A command that the library does not know, a media message from a player, stream EOF and the like end the
// connection with NetConnection.Connect.Failed.
constexpr bool kRefuseUnknownMessages = true;

// Players must sign C1 and C2 (digest handshake). The plain handshake of RTMP 1.0, 5.2 is refused.
constexpr bool kRequireDigestHandshake = true;

// S0 carries the top byte of the last random word of S1, not the version number 3.
constexpr bool kS0CarriesRandomByte = true;

// Bits of the first basic-header byte that make the chunk stream id. 0x3F would be RTMP 1.0, 5.3.1.1.
constexpr uint8_t kChunkStreamIdMask = 0x2F;

// A continuation that ends exactly on a chunk boundary does not complete its message.
constexpr bool kFullLastChunkLeavesMessageOpen = true;

// Boolean members of objects are encoded as their name alone.
constexpr bool kEncodeBooleanMembersAsName = true;

// Removing the first of several clients makes its successor the tail of the list.
constexpr bool kFirstLeaverMovesTail = true;

// Connections that end by a read error leave their descriptor open.
constexpr bool kCloseSocketOnErrorExit = false;

// Writes wait for as long as a player's socket takes nothing.
constexpr bool kSendsMayBlock = true;
