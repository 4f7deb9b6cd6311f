// A server on each road for the life of the process, and the session of one input.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/fuzz_peer.h"

// Reference hosts call it so, and so do recorded players.
constexpr char kFuzzedName[] = "stream";

enum FuzzedSession { FUZZED_NONE, FUZZED_BARE, FUZZED_WITH_MEDIA, FUZZED_WITH_SENDER };

// Without listeners. The chunk size and the rules for players are those of the call.
RtmpServer *FuzzedServer(bool isSteady, int32_t chunkSize, uint32_t playerFlags);

RtmpSession *MakeFuzzedSession(RtmpServer *server, FuzzedSession kind);

// Destroys it; null is nothing. A failure is a finding.
void EndFuzzedSession(RtmpSession *session);

// A key frame, or sound. What the peer has not taken yet is taken in front, so that no write waits.
void SendFuzzedFrame(FuzzPeer *peer, RtmpSession *session, uint32_t number);
