// A session's ring of finished messages: what a player has not taken yet is held here, once for all.
#pragma once

#include "steady/records.h"

extern "C" {

// NewSteadyStream makes a session's stream, with an empty ring. Null: no memory (not logged).
SteadyStream *NewSteadyStream(SteadyService *service, RtmpSession *session);

// FreeSteadyStream frees it. It has no players any more, and nobody sends.
void FreeSteadyStream(SteadyStream *stream);

// AppendMessage takes the caller's reference over, and gives the message its number. What the limits do not
// allow any more leaves the ring; the newest message always stays.
void AppendMessage(SteadyStream *stream, FinishedMessage *message);

// ReferMessages puts up to `most` messages from number `from` on into `messages`, each with a reference, and
// returns how many there are.
uint32_t ReferMessages(SteadyStream *stream, uint64_t from, FinishedMessage **messages, uint32_t most);

// TrimRing lets go of what no player needs any more: what stands in front of `needed`, the first message that
// some player has not got, and in front of the message that newcomers begin with.
void TrimRing(SteadyStream *stream, uint64_t needed);

// EmptyRing forgets all messages. Players begin anew with the next one that they may begin with.
void EmptyRing(SteadyStream *stream);
}
