#include "delivery/steady/finish_frame.h"

#include "delivery/write/captions.h"
#include "media/flv_tag.h"
#include "media/h264.h"
#include "message/control.h"
#include "net/atomic.h"
#include "net/byte_writer.h"
#include "net/log.h"
#include "steady/message_pool.h"
#include "steady/message_ring.h"
#include "steady/shared_header.h"

#include <unistd.h>

namespace {

constexpr const char *kSendData = "RtmpSendData";
constexpr uint64_t kLongestMessage = 0xFFFFFF; // RTMP 1.0, 5.3.1.2.1: 24 bits

enum SteadyKind KindOf(const RtmpFrame *frame)
{
    return frame->Kind == RTMP_MSG_VIDEO ? STEADY_VIDEO : STEADY_AUDIO;
}

// The tag header says what the frame is, wherever its key slice stands.
void BeginPrefix(SteadyStream *stream, RtmpFrame *frame)
{
    const uint8_t noNal = 0;
    if (frame->Kind == RTMP_MSG_VIDEO) {
        frame->HeaderLength =
            static_cast<uint32_t>(GenerateFlvH264Hdr(stream->Session, &noNal, 0, 0, frame->Prefix, 0));
        frame->Prefix[0] = FlvVideoTag(frame->IsKeyFrame);
    } else {
        frame->HeaderLength = static_cast<uint32_t>(GenerateFlvAACHdr(stream->Session, frame->Prefix, 0));
    }
    frame->PrefixLength = frame->HeaderLength;
}

// A body on its way into chunks.
struct ChunkedBody {
    ByteWriter Out;
    uint8_t Continuation;
    uint32_t ChunkSize;
    uint32_t RoomInChunk;
};

void PutBody(ChunkedBody *body, const uint8_t *bytes, uint32_t length)
{
    while (length > 0) {
        if (body->RoomInChunk == 0) {
            PutU8(&body->Out, body->Continuation);
            body->RoomInChunk = body->ChunkSize;
        }
        const uint32_t part = length < body->RoomInChunk ? length : body->RoomInChunk;
        PutBytes(&body->Out, bytes, part);
        body->RoomInChunk -= part;
        bytes += part;
        length -= part;
    }
}

uint32_t SizeOnWire(uint32_t bodyLength, uint32_t chunkSize)
{
    return kSharedHeaderSize + bodyLength + (bodyLength - 1) / chunkSize * kContinuationSize;
}

FinishedMessage *LayOutMessage(SteadyStream *stream, const RtmpFrame *frame, uint32_t bodyLength)
{
    const uint32_t chunkSize = AnnouncedChunkSize(stream->Session->Server);
    FinishedMessage *message = TakeMessage(stream, SizeOnWire(bodyLength, chunkSize));
    if (message == nullptr) {
        return nullptr;
    }
    message->Kind = static_cast<uint8_t>(KindOf(frame));
    message->BodyLength = bodyLength;
    message->IsStart = frame->IsKeyFrame;
    ChunkedBody body = {WriterOver(message->Bytes + kSharedHeaderSize, message->Length - kSharedHeaderSize),
                        ContinuationOf(KindOf(frame)), chunkSize, chunkSize};
    PutBody(&body, frame->Prefix, frame->PrefixLength);
    PutBody(&body, frame->Payload, frame->PayloadLength);
    return message;
}

} // namespace

FinishedMessage *FinishFrame(SteadyStream *stream, RtmpFrame *frame)
{
    RtmpLogger *logger = LoggerOf(stream->Session->Server);
    BeginPrefix(stream, frame);
    InsertCaptions(stream->Session, frame);
    const uint64_t bodyLength = static_cast<uint64_t>(frame->PrefixLength) + frame->PayloadLength;
    if (bodyLength > kLongestMessage) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: A frame of %d bytes is too long for a message\n",
                     kSendData, frame->Length);
        return nullptr;
    }
    FinishedMessage *message = LayOutMessage(stream, frame, static_cast<uint32_t>(bodyLength));
    if (message == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Not enough memory for a frame of %d bytes\n",
                     kSendData, frame->Length);
    }
    return message;
}

void PlaceMessage(SteadyStream *stream, FinishedMessage *message, uint64_t time)
{
    const enum SteadyKind kind = static_cast<enum SteadyKind>(message->Kind);
    const bool isFirst = stream->LastOfKind[kind] == kNoMessage;
    const uint64_t last = stream->TimeOfKind[kind];
    uint64_t delta = isFirst || time < last ? 0 : time - last;
    delta = delta < kMostDelta ? delta : kMostDelta;
    PutSharedHeader(message->Bytes, kind, message->BodyLength, delta);
    message->Time = isFirst ? time : last + delta;
    AppendMessage(stream, message);
}
