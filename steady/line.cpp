#include "steady/line.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "steady/line_end.h"
#include "steady/line_flush.h"
#include "steady/message_pool.h"
#include "steady/message_ring.h"
#include "steady/place.h"
#include "steady/room.h"

#include <arpa/inet.h>

namespace {

// The caller holds Lock.
void Link(SteadyService *service, SteadyLine *line)
{
    line->PrevLine = service->LastLine;
    (line->PrevLine != nullptr ? line->PrevLine->NextLine : service->FirstLine) = line;
    service->LastLine = line;
    service->LineCount++;
    service->AcceptedCount += line->OwnsSocket;
}

uint32_t CountAddress(const SteadyService *service, uint32_t address)
{
    uint32_t count = 0;
    for (const SteadyLine *line = service->FirstLine; line != nullptr; line = line->NextLine) {
        count += line->OwnsSocket != 0 && line->Address == address ? 1 : 0;
    }
    return count;
}

// The limits are those of connections that the library accepts.
int CheckLimits(const SteadyService *service, const SteadyLine *line)
{
    if (line->OwnsSocket == 0) {
        return 0;
    }
    if (service->AcceptedCount >= service->Limits.MostClients) {
        return LINE_TOO_MANY;
    }
    return CountAddress(service, line->Address) >= service->Limits.MostClientsPerAddress
               ? LINE_TOO_MANY_OF_ADDRESS
               : 0;
}

int TakeUp(SteadyService *service, SteadyLine *line)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    const int result = CheckLimits(service, line);
    if (result != 0) {
        return result;
    }
    if (service->Closing != 0 || WatchLine(line) != 0) {
        return LINE_NO_MEMORY;
    }
    Link(service, line);
    return 0;
}

// LeaveKeeper: from now on nobody finds the line among the service's. It still counts.
void LeaveKeeper(SteadyService *service, SteadyLine *line)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    UnwatchLine(line);
    (line->PrevLine != nullptr ? line->PrevLine->NextLine : service->FirstLine) = line->NextLine;
    (line->NextLine != nullptr ? line->NextLine->PrevLine : service->LastLine) = line->PrevLine;
    service->LineCount--;
}

// Uncount is the last that an accepted connection does with the service, which may be gone afterwards.
void Uncount(SteadyService *service)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    service->AcceptedCount--;
    pthread_cond_broadcast(&service->LineLeft);
}

void FreeReplies(SteadyLine *line)
{
    free(line->Half.Reply);
    while (line->FirstReply != nullptr) {
        SteadyReply *next = line->FirstReply->Next;
        free(line->FirstReply);
        line->FirstReply = next;
    }
}

// The caller holds the client's WriteLock.
void MeasureLag(SteadyLine *line, uint64_t now, SteadyLag *lag)
{
    const SteadyPlace *place = &line->Place;
    if (ClientStateOf(line->Client) != CLIENT_STATE_PLAY_DONE || place->IsBased == 0) {
        return;
    }
    lag->Playing++;
    if (!MakesProgress(line, now)) {
        return;
    }
    const SteadyBehind behind = BehindOf(line);
    lag->Pictures = behind.Pictures > lag->Pictures ? behind.Pictures : lag->Pictures;
    lag->Milliseconds = behind.Milliseconds > lag->Milliseconds ? behind.Milliseconds : lag->Milliseconds;
}

void LeavePlayers(SteadyLine *line)
{
    SteadyStream *stream = line->Stream;
    if (stream == nullptr) {
        return;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    (line->PrevPlayer != nullptr ? line->PrevPlayer->NextPlayer : stream->FirstPlayer) = line->NextPlayer;
    (line->NextPlayer != nullptr ? line->NextPlayer->PrevPlayer : stream->LastPlayer) = line->PrevPlayer;
    stream->GoneBytes += line->BytesOut;
    stream->GoneFrames += line->FramesOut;
    stream->GoneDropped += line->FramesDropped;
    DropMessage(stream, line->Half.Message); // half a message; the connection is over
    line->Half.Message = nullptr;
    line->Stream = nullptr;
}

} // namespace

int NewLine(SteadyService *service, RtmpClient *client, int ownsSocket)
{
    SteadyLine *line = NewRecord<SteadyLine>();
    if (line == nullptr) {
        return LINE_NO_MEMORY;
    }
    line->Client = client;
    line->Service = service;
    line->OwnsSocket = static_cast<uint8_t>(ownsSocket);
    line->Address = inet_addr(client->ClientIP);
    line->Since = RtmpGetSystemTime();
    PlaceAtBeginning(&line->Place, 0);
    client->Line = line;
    const int result = TakeUp(service, line);
    if (result != 0) {
        client->Line = nullptr;
        free(line);
    }
    return result;
}

bool IsClosing(SteadyService *service)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&service->Lock);
    return service->Closing != 0;
}

void FreeLine(RtmpClient *client)
{
    SteadyLine *line = client->Line;
    if (line == nullptr) {
        return;
    }
    SteadyService *service = line->Service;
    const bool ownsSocket = line->OwnsSocket != 0;
    LeaveKeeper(service, line);
    LeavePlayers(line);
    if (ownsSocket) {
        CloseLine(client);
    }
    client->Line = nullptr;
    FreeReplies(line);
    free(line->App);
    free(line->TcUrl);
    free(line);
    if (ownsSocket) {
        Uncount(service);
    }
}

void JoinPlayers(SteadyStream *stream, SteadyLine *line)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    UNLOCK_AT_EXIT RtmpMutex *writing = HoldForWriting(line->Client); // the keeper may be sending an answer
    line->Stream = stream;
    line->PrevPlayer = stream->LastPlayer;
    (line->PrevPlayer != nullptr ? line->PrevPlayer->NextPlayer : stream->FirstPlayer) = line;
    stream->LastPlayer = line;
    stream->ViewersInAll++;
}

void BeginAnew(SteadyLine *line, int again)
{
    PlaceAtBeginning(&line->Place, again);
    line->Look.Begun = RtmpGetSystemTime();
    line->Look.HasCaughtUp = 0;
    if (again == 0) {
        line->Client->TimelineTime = 0;
    }
    SteadyStream *stream = line->Stream;
    if (stream != nullptr && (line->Service->Limits.Options & RTMP_SERVICE_NO_BURST) != 0) {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
        line->Joined = stream->Next;
    }
}

SteadyReply *NewReply(uint32_t length)
{
    SteadyReply *reply = static_cast<SteadyReply *>(malloc(sizeof *reply + length));
    if (reply != nullptr) {
        *reply = {nullptr, length, reinterpret_cast<uint8_t *>(reply + 1)};
    }
    return reply;
}

int QueueReply(SteadyLine *line, SteadyReply *reply)
{
    if (reply->Length > line->Service->Limits.ReplyBytes - line->ReplyBytes) {
        EndLine(line, STEADY_END_REPLIES);
    }
    if (LoadShared(&line->End) != STEADY_GOES_ON) {
        free(reply);
        return -1;
    }
    (line->LastReply != nullptr ? line->LastReply->Next : line->FirstReply) = reply;
    line->LastReply = reply;
    line->ReplyBytes += reply->Length;
    if (line->WantsRoom == 0) {
        FlushLine(line, RtmpGetSystemTime());
    }
    return LoadShared(&line->End) == STEADY_GOES_ON ? 0 : -1;
}

bool HasAllOut(const SteadyLine *line)
{
    return line->FirstReply == nullptr && line->Half.Reply == nullptr && line->Half.Message == nullptr;
}

void EndPlayers(SteadyStream *stream)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    for (SteadyLine *line = stream->FirstPlayer; line != nullptr; line = line->NextPlayer) {
        if (line->OwnsSocket != 0) {
            EndLine(line, STEADY_END_SESSION);
        }
    }
}

SteadyLag LagOf(SteadyStream *stream)
{
    const uint64_t now = RtmpGetSystemTime();
    SteadyLag lag = {};
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->PlayersLock);
    for (SteadyLine *line = stream->FirstPlayer; line != nullptr; line = line->NextPlayer) {
        UNLOCK_AT_EXIT RtmpMutex *writing = HoldForWriting(line->Client);
        MeasureLag(line, now, &lag);
    }
    return lag;
}
