// The figures of sessions and connections of the steady road.
#pragma once

#include "steady/records.h"

extern "C" {

// FillClientFigures takes the client's WriteLock for a moment. Address and descriptor of the client are still
// there: the caller is the thread that serves it, or holds PlayersLock of the stream that it has joined. A
// client without a line has sent nothing.
void FillClientFigures(RtmpClient *client, RtmpClientFigures *figures);

// FillFiguresOfPlayers fills those of the first `most` players, and returns how many there are.
uint32_t FillFiguresOfPlayers(SteadyStream *stream, RtmpClientFigures *clients, uint32_t most);

void FillSessionFigures(SteadyStream *stream, RtmpSessionFigures *figures);
}
