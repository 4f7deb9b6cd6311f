#include "steady/line_flush.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/scope.h"
#include "net/tls_io.h"
#include "steady/line_end.h"
#include "steady/message_pool.h"
#include "steady/message_ring.h"
#include "steady/place.h"
#include "steady/room.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

constexpr uint32_t kItemsOfWrite = 8; // sound that is due and the picture behind it, or a part of a burst
constexpr uint32_t kVectorsOfItem = 2;
constexpr uint64_t kProgressMs = 2000; // a full socket that took nothing for so long makes no progress

// What goes out next: an answer or a message, and where the player is behind it.
struct Outgoing {
    SteadyHalf Item;
    SteadyPlace Behind;
};

struct Batch {
    Outgoing Items[kItemsOfWrite];
    uint32_t Count;
};

struct Span {
    const uint8_t *Bytes;
    uint32_t Length;
};

// The header of an item's own, if it has one, and its body.
Span HeaderOf(const SteadyHalf *item)
{
    return {item->Header, item->HeaderLength};
}

Span BodyOf(const SteadyHalf *item)
{
    if (item->Reply != nullptr) {
        return {item->Reply->Bytes, item->Reply->Length};
    }
    const uint32_t replaced = item->HeaderLength > 0 ? kSharedHeaderSize : 0;
    return {item->Message->Bytes + replaced, item->Message->Length - replaced};
}

uint32_t LengthOnWire(const SteadyHalf *item)
{
    return HeaderOf(item).Length + BodyOf(item).Length;
}

bool IsSomething(const SteadyHalf *item)
{
    return item->Reply != nullptr || item->Message != nullptr;
}

// ------------------------------------------------------------------------------------ what is due

void AddHalf(const SteadyLine *line, Batch *batch)
{
    if (IsSomething(&line->Half)) {
        batch->Items[batch->Count++] = {line->Half, line->Place};
    }
}

void AddReplies(const SteadyLine *line, Batch *batch, uint32_t most)
{
    for (SteadyReply *reply = line->FirstReply; reply != nullptr && batch->Count < most;
         reply = reply->Next) {
        Outgoing *next = &batch->Items[batch->Count++];
        next->Item = {};
        next->Item.Reply = reply;
        next->Behind = line->Place;
    }
}

void NoteMissed(SteadyLine *line, uint64_t missed, bool restarted)
{
    if (missed > 0) {
        StoreShared(&line->FramesDropped, line->FramesDropped + missed);
        (void)AddShared(&line->Stream->DroppedInAll, missed);
    }
    if (restarted) {
        StoreShared(&line->Restarts, line->Restarts + 1);
    }
}

// A message that the player does not get moves it on all the same.
void AddMessage(Batch *batch, SteadyStream *stream, FinishedMessage *message, SteadyPlace *place,
                uint32_t msgStreamId)
{
    Outgoing *next = &batch->Items[batch->Count];
    next->Item = {};
    const int length = StepOver(place, message, msgStreamId, next->Item.Header);
    if (length == STEP_SKIPPED) {
        DropMessage(stream, message);
        return;
    }
    next->Item.Message = message;
    next->Item.HeaderLength = static_cast<uint32_t>(length);
    next->Behind = *place;
    batch->Count++;
}

// AddReferred returns how many messages it looked at. A player that gets none of them is behind them.
uint32_t AddReferred(SteadyLine *line, Batch *batch, uint32_t most)
{
    FinishedMessage *messages[kItemsOfWrite];
    const uint32_t before = batch->Count;
    const uint32_t count = ReferMessages(line->Stream, line->Place.Next, messages, most - before);
    SteadyPlace place = line->Place;
    for (uint32_t i = 0; i < count; i++) {
        AddMessage(batch, line->Stream, messages[i], &place, line->Client->StreamId);
    }
    if (batch->Count == before) {
        line->Place = place;
    }
    return count;
}

void AddMessages(SteadyLine *line, Batch *batch, uint32_t most)
{
    SteadyStream *stream = line->Stream;
    const bool plays =
        ClientStateOf(line->Client) == CLIENT_STATE_PLAY_DONE && LoadShared(&line->End) == STEADY_GOES_ON;
    if (stream == nullptr || !plays || batch->Count >= most) {
        return;
    }
    bool restarted = false;
    const uint64_t missed = FindPlace(stream, &line->Place, line->Joined, &restarted);
    NoteMissed(line, missed, restarted);
    const uint32_t before = batch->Count;
    while (batch->Count == before && AddReferred(line, batch, most) > 0) {
    }
}

// What is half out comes first, then the answers, then the frames.
void GatherDue(SteadyLine *line, Batch *batch, uint32_t most)
{
    batch->Count = 0;
    AddHalf(line, batch);
    AddReplies(line, batch, most);
    AddMessages(line, batch, most);
}

// ------------------------------------------------------------------------------------ what is out

// Begin takes an item out of the queue that it stands in: it is under way.
void Begin(SteadyLine *line, const Outgoing *outgoing)
{
    if (outgoing->Item.Reply != nullptr) {
        SteadyReply *reply = outgoing->Item.Reply;
        line->FirstReply = reply->Next;
        line->LastReply = reply->Next != nullptr ? line->LastReply : nullptr;
        line->ReplyBytes -= reply->Length;
        return;
    }
    line->Place = outgoing->Behind;
    NoteTimeOut(line);
}

void End(SteadyLine *line, const SteadyHalf *item)
{
    if (item->Reply != nullptr) {
        free(item->Reply);
        return;
    }
    NoteFrameOut(line, item->Message);
    DropMessage(line->Stream, item->Message);
}

// PutBack lets go of an item that nothing of is out: it stays where it was.
void PutBack(SteadyLine *line, const SteadyHalf *item)
{
    if (item->Message != nullptr) {
        DropMessage(line->Stream, item->Message);
    }
}

// AccountFor moves the line behind the bytes that are out.
void AccountFor(SteadyLine *line, Batch *batch, uint64_t out)
{
    StoreShared(&line->BytesOut, line->BytesOut + out);
    bool isHalf = IsSomething(&line->Half);
    for (uint32_t i = 0; i < batch->Count; i++, isHalf = false) {
        SteadyHalf *item = &batch->Items[i].Item;
        if (out == 0 && !isHalf) {
            PutBack(line, item);
            continue;
        }
        if (!isHalf) {
            Begin(line, &batch->Items[i]);
        }
        const uint32_t left = LengthOnWire(item) - item->Out;
        const uint32_t gone = out < left ? static_cast<uint32_t>(out) : left;
        out -= gone;
        item->Out += gone;
        line->Half = *item;
        if (gone == left) {
            End(line, item);
            line->Half = {};
        }
    }
}

// ------------------------------------------------------------------------------------ plain sockets

uint32_t AddVector(struct iovec *vectors, uint32_t count, Span span, uint32_t *skip)
{
    if (*skip >= span.Length) {
        *skip -= span.Length;
        return count;
    }
    vectors[count] = {const_cast<uint8_t *>(span.Bytes) + *skip, span.Length - *skip};
    *skip = 0;
    return count + 1;
}

uint32_t GatherVectors(Batch *batch, struct iovec *vectors, uint64_t *total)
{
    uint32_t count = 0;
    *total = 0;
    for (uint32_t i = 0; i < batch->Count; i++) {
        const SteadyHalf *item = &batch->Items[i].Item;
        uint32_t skip = item->Out;
        *total += LengthOnWire(item) - item->Out;
        count = AddVector(vectors, count, HeaderOf(item), &skip);
        count = AddVector(vectors, count, BodyOf(item), &skip);
    }
    return count;
}

bool IsPassing(int error)
{
    return error == EAGAIN || error == ENOBUFS || error == ENOMEM || error == EINTR;
}

// WriteBatch returns whether everything is out, so that more may be asked for.
bool WriteBatch(SteadyLine *line, Batch *batch)
{
    struct iovec vectors[kItemsOfWrite * kVectorsOfItem];
    uint64_t total = 0;
    struct msghdr message = {};
    message.msg_iov = vectors;
    message.msg_iovlen = GatherVectors(batch, vectors, &total);
    const ssize_t out = sendmsg(SocketInUse(line->Client), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (out < 0 && !IsPassing(errno)) {
        EndLine(line, STEADY_END_BROKEN);
    }
    AccountFor(line, batch, out > 0 ? static_cast<uint64_t>(out) : 0);
    return out >= 0 && static_cast<uint64_t>(out) == total;
}

// ------------------------------------------------------------------------------------ TLS

constexpr uint32_t kTlsRecord = 16384; // RFC 8446, 5.1

// A call takes a record's worth at most: it is done in whole or not at all, and a slow peer's progress shows.
uint32_t LengthOfCall(uint32_t left)
{
    return left < kTlsRecord ? left : kTlsRecord;
}

bool WriteSome(SteadyLine *line, const TlsLine *tls, Span span)
{
    const int64_t out = TlsWriteNow(tls, span.Bytes, LengthOfCall(span.Length));
    if (out > 0) {
        line->Half.Out += static_cast<uint32_t>(out);
        StoreShared(&line->BytesOut, line->BytesOut + static_cast<uint64_t>(out));
        return true;
    }
    if (out == 0 || !IsPassing(errno)) {
        EndLine(line, STEADY_END_BROKEN);
    }
    return false;
}

// WriteSpan writes what is left of a span. A call that would wait is repeated with the same bytes, as
// SSL_write demands: they stay where they are until they are out.
bool WriteSpan(SteadyLine *line, const TlsLine *tls, Span span, uint32_t before)
{
    bool goesOn = true;
    while (goesOn && line->Half.Out < before + span.Length) {
        const uint32_t done = line->Half.Out - before;
        goesOn = WriteSome(line, tls, {span.Bytes + done, span.Length - done});
    }
    return goesOn;
}

// One item at a time: it is under way before its first byte is handed over.
bool WriteOverTls(SteadyLine *line, Batch *batch)
{
    if (!IsSomething(&line->Half)) {
        Begin(line, &batch->Items[0]);
        line->Half = batch->Items[0].Item;
    }
    RtmpClient *client = line->Client;
    const TlsLine tls = {TlsInUse(client), SocketInUse(client), &client->TlsLock, &client->TlsWriteWaits};
    const Span header = HeaderOf(&line->Half);
    if (!WriteSpan(line, &tls, header, 0) || !WriteSpan(line, &tls, BodyOf(&line->Half), header.Length)) {
        return false;
    }
    End(line, &line->Half);
    line->Half = {};
    return true;
}

bool MaySend(const SteadyLine *line)
{
    const uint8_t end = LoadShared(&line->End);
    return end == STEADY_GOES_ON || end == STEADY_END_REFUSED;
}

// False: the socket is full, or the connection is over.
bool WriteOut(SteadyLine *line, Batch *batch)
{
    return line->Client->Tls != nullptr ? WriteOverTls(line, batch) : WriteBatch(line, batch);
}

} // namespace

void FlushLine(SteadyLine *line, uint64_t now)
{
    const uint32_t most = line->Client->Tls != nullptr ? 1 : kItemsOfWrite;
    bool goesOn = true;
    while (goesOn && MaySend(line)) {
        Batch batch;
        GatherDue(line, &batch, most);
        if (batch.Count == 0) {
            StoreShared(&line->WantsRoom, uint8_t{0});
            return;
        }
        const uint64_t before = line->BytesOut;
        goesOn = WriteOut(line, &batch);
        if (line->BytesOut != before || line->WantsRoom == 0) {
            line->LastProgress = now;
        }
        StoreShared(&line->WantsRoom, static_cast<uint8_t>(goesOn ? 0 : 1));
    }
    if (!MaySend(line)) {
        StoreShared(&line->WantsRoom, uint8_t{0}); // nothing leaves any more
    } else if (line->WantsRoom != 0) {
        AwaitRoom(line);
    }
}

void NoteTimeOut(SteadyLine *line)
{
    const uint64_t time = TimeOnTimeline(&line->Place);
    if (time > line->Client->TimelineTime) {
        line->Client->TimelineTime = time;
    }
}

void NoteFrameOut(SteadyLine *line, const FinishedMessage *message)
{
    StoreShared(&line->FramesOut, line->FramesOut + 1);
    line->Look.PictureBytes += message->Kind == STEADY_VIDEO ? message->BodyLength : 0;
}

bool MakesProgress(const SteadyLine *line, uint64_t now)
{
    return line->WantsRoom == 0 || MillisecondsSince(line->LastProgress, now) < kProgressMs;
}

SteadyBehind BehindOf(const SteadyLine *line)
{
    SteadyStream *stream = line->Stream;
    SteadyBehind behind = {};
    if (stream == nullptr || line->Place.IsBased == 0) {
        return behind;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    const uint64_t newest = stream->TimeOfKind[STEADY_VIDEO] > stream->TimeOfKind[STEADY_AUDIO]
                                ? stream->TimeOfKind[STEADY_VIDEO]
                                : stream->TimeOfKind[STEADY_AUDIO];
    behind.Pictures = static_cast<uint32_t>(stream->Pictures - line->Place.Pictures);
    behind.Milliseconds = line->Place.Next >= stream->Next || newest < line->Place.Time
                              ? 0
                              : static_cast<uint32_t>(newest - line->Place.Time);
    return behind;
}

uint64_t WaitingBytesOf(const SteadyLine *line)
{
    SteadyStream *stream = line->Stream;
    const SteadyHalf *half = &line->Half;
    uint64_t bytes = line->ReplyBytes + (IsSomething(half) ? LengthOnWire(half) - half->Out : 0);
    if (stream == nullptr || line->Place.IsBased == 0) {
        return bytes;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&stream->RingLock);
    const uint64_t from = line->Place.Next > stream->First ? line->Place.Next : stream->First;
    for (uint64_t number = from; number < stream->Next; number++) {
        bytes += stream->Slots[number & (stream->SlotCount - 1)]->Length;
    }
    return bytes;
}
