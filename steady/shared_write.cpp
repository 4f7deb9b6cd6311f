#include "steady/shared_write.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/scope.h"
#include "steady/line.h"
#include "steady/line_flush.h"
#include "steady/message_pool.h"
#include "steady/message_ring.h"
#include "steady/place.h"

#include <sys/socket.h>

namespace {

uint64_t NextOf(SteadyStream *stream)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    return stream->Next;
}

// A kind's very first message has nothing to count from: every player needs a header of its own for it.
bool AddToWrite(SharedWrite *write, FinishedMessage *message)
{
    uint64_t *previous = &write->PreviousOfKind[message->Kind];
    *previous = *previous != kNoMessage ? *previous : message->PreviousOfKind;
    write->Vectors[write->Count] = {message->Bytes, message->Length};
    write->Messages[write->Count++] = message;
    write->Bytes += message->Length;
    return *previous != kNoMessage;
}

bool Follows(const SteadyPlace *place, const SharedWrite *write, enum SteadyKind kind)
{
    return write->PreviousOfKind[kind] == kNoMessage ||
           write->PreviousOfKind[kind] == place->LastOfKind[kind];
}

bool IsFree(const SteadyLine *line)
{
    return HasAllOut(line) && line->Client->Tls == nullptr;
}

bool IsDueAsItIs(const SteadyLine *line, const SharedWrite *write)
{
    const SteadyPlace *place = &line->Place;
    return write->IsForAll != 0 && place->Next == write->Messages[0]->Number && place->IsBased != 0 &&
           Follows(place, write, STEADY_VIDEO) && Follows(place, write, STEADY_AUDIO) && IsFree(line) &&
           ClientStateOf(line->Client) == CLIENT_STATE_PLAY_DONE && LoadShared(&line->End) == STEADY_GOES_ON;
}

void KeepHalf(SteadyLine *line, FinishedMessage *message, uint32_t out)
{
    (void)AddShared(&message->References, uint32_t{1});
    line->Half = {};
    line->Half.Message = message;
    line->Half.Out = out;
}

// MoveOn moves the line behind the bytes that are out.
void MoveOn(SteadyLine *line, const SharedWrite *write, uint64_t out)
{
    uint8_t unused[kOwnHeaderMost];
    StoreShared(&line->BytesOut, line->BytesOut + out);
    for (uint32_t i = 0; i < write->Count && out > 0; i++) {
        FinishedMessage *message = write->Messages[i];
        (void)StepOver(&line->Place, message, 0, unused); // with its shared header
        if (out < message->Length) {
            KeepHalf(line, message, static_cast<uint32_t>(out));
            break;
        }
        out -= message->Length;
        NoteFrameOut(line, message);
    }
    NoteTimeOut(line);
}

} // namespace

void BeginSharedWrite(SteadyStream *stream, uint64_t now, SharedWrite *write)
{
    const uint64_t from = stream->Flushed;
    stream->Flushed = NextOf(stream);
    const uint64_t due = stream->Flushed - from;
    const uint32_t most = due < kMostShared ? static_cast<uint32_t>(due) : kMostShared;
    FinishedMessage *messages[kMostShared];
    const uint32_t count = ReferMessages(stream, from, messages, most);
    write->Count = 0;
    write->Bytes = 0;
    write->Time = now;
    write->PreviousOfKind[STEADY_VIDEO] = kNoMessage;
    write->PreviousOfKind[STEADY_AUDIO] = kNoMessage;
    write->IsForAll = count > 0 ? 1 : 0;
    for (uint32_t i = 0; i < count; i++) {
        if (!AddToWrite(write, messages[i])) {
            write->IsForAll = 0;
        }
    }
}

void EndSharedWrite(SteadyStream *stream, SharedWrite *write)
{
    for (uint32_t i = 0; i < write->Count; i++) {
        DropMessage(stream, write->Messages[i]);
    }
}

bool WriteShared(SteadyLine *line, const SharedWrite *write)
{
    if (!IsDueAsItIs(line, write)) {
        return false;
    }
    struct msghdr message = {};
    message.msg_iov = const_cast<struct iovec *>(write->Vectors);
    message.msg_iovlen = write->Count;
    const ssize_t out = sendmsg(SocketInUse(line->Client), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (out <= 0) {
        return false;
    }
    line->LastProgress = write->Time;
    MoveOn(line, write, static_cast<uint64_t>(out));
    return static_cast<uint64_t>(out) == write->Bytes && write->Count < kMostShared;
}
