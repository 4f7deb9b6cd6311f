// A server on each road for the life of the process, and what one input has: its session, and host functions
// of its own.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/fuzz_peer.h"

// Reference hosts call it so, and so do recorded players.
constexpr char kFuzzedName[] = "stream";

enum FuzzedSession { FUZZED_NONE, FUZZED_BARE, FUZZED_WITH_MEDIA, FUZZED_WITH_SENDER };

// Without listeners. The chunk size and the rules for players are those of the call.
RtmpServer *FuzzedServer(bool isSteady, int32_t chunkSize, uint32_t playerFlags);

// The session of an input, which ends behind whatever is declared after it: a failure is a finding. Host
// functions are the default's again then.
class FuzzedStage {
  public:
    FuzzedStage(RtmpServer *server, FuzzedSession kind);
    ~FuzzedStage();
    FuzzedStage(const FuzzedStage &) = delete;
    FuzzedStage &operator=(const FuzzedStage &) = delete;

    RtmpServer *const server;
    RtmpSession *const session; // null: FUZZED_NONE
};

// A key frame, or sound. What the peer has not taken yet is taken in front, so that no write waits.
void SendFuzzedFrame(FuzzPeer *peer, RtmpSession *session, uint32_t number);
