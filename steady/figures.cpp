#include "steady/figures.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "net/scope.h"
#include "steady/line.h"
#include "steady/line_end.h"
#include "steady/line_flush.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

namespace {

bool IsViewer(uint32_t state)
{
    return state == CLIENT_STATE_PLAY_DONE || state == CLIENT_STATE_PAUSE_DONE ||
           state == CLIENT_STATE_REPLAY;
}

uint32_t RoundTripOf(const RtmpClient *client)
{
    struct tcp_info info = {};
    socklen_t length = sizeof info;
    if (getsockopt(SocketInUse(client), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) {
        return 0; // no TCP, as with a host's own socket pair
    }
    return info.tcpi_rtt;
}

void FillFromLine(const SteadyLine *line, RtmpClientFigures *figures)
{
    figures->Bytes = LoadShared(&line->BytesOut);
    figures->Frames = LoadShared(&line->FramesOut);
    figures->DroppedFrames = LoadShared(&line->FramesDropped);
    figures->Restarts = LoadShared(&line->Restarts);
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(line->Client);
    figures->IsTls = line->SpeaksTls != 0 || line->Client->Tls != nullptr ? 1 : 0; // its handle may be gone
    const SteadyBehind behind = BehindOf(line);
    figures->LagMilliseconds = behind.Milliseconds;
    figures->LagPictures = behind.Pictures;
    figures->WaitingBytes = WaitingBytesOf(line);
}

// The caller holds PlayersLock.
void AddPlayer(const SteadyLine *line, RtmpSessionFigures *figures)
{
    figures->Viewers += IsViewer(ClientStateOf(line->Client)) ? 1 : 0;
    figures->Bytes += LoadShared(&line->BytesOut);
    figures->Frames += LoadShared(&line->FramesOut);
    figures->DroppedFrames += LoadShared(&line->FramesDropped);
}

void AddPlayers(SteadyStream *stream, RtmpSessionFigures *figures)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    figures->ViewersInAll = stream->ViewersInAll;
    figures->Bytes = stream->GoneBytes;
    figures->Frames = stream->GoneFrames;
    figures->DroppedFrames = stream->GoneDropped;
    for (const SteadyLine *line = stream->FirstPlayer; line != nullptr; line = line->NextPlayer) {
        AddPlayer(line, figures);
    }
}

void AddRing(SteadyStream *stream, RtmpSessionFigures *figures)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    figures->RingMessages = static_cast<uint32_t>(stream->Next - stream->First);
    figures->RingBytes = stream->Bytes;
    if (figures->RingMessages == 0) {
        return;
    }
    const uint32_t mask = stream->SlotCount - 1;
    const uint64_t newest = stream->Slots[(stream->Next - 1) & mask]->Time;
    figures->RingMilliseconds =
        static_cast<uint32_t>(MillisecondsSince(stream->Slots[stream->First & mask]->Time, newest));
}

} // namespace

void FillClientFigures(RtmpClient *client, RtmpClientFigures *figures)
{
    *figures = {};
    strncpy(figures->Address, client->ClientIP, sizeof figures->Address - 1);
    figures->Port = ntohs(client->Port);
    figures->State = ClientStateOf(client);
    figures->Milliseconds = static_cast<uint32_t>(RtmpGetSystemTime() - client->CreateTime);
    figures->RoundTripMicros = RoundTripOf(client);
    if (client->Line != nullptr) {
        FillFromLine(client->Line, figures);
    }
}

uint32_t FillFiguresOfPlayers(SteadyStream *stream, RtmpClientFigures *clients, uint32_t most)
{
    uint32_t count = 0;
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    for (const SteadyLine *line = stream->FirstPlayer; line != nullptr; line = line->NextPlayer, count++) {
        if (count < most) {
            FillClientFigures(line->Client, &clients[count]);
        }
    }
    return count;
}

void FillSessionFigures(SteadyStream *stream, RtmpSessionFigures *figures)
{
    *figures = {};
    AddPlayers(stream, figures);
    AddRing(stream, figures);
    const SteadyLag lag = LagOf(stream);
    figures->SlowestMilliseconds = lag.Milliseconds;
    figures->SlowestPictures = lag.Pictures;
}
