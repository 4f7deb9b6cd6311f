#include "delivery/steady/steady_sender.h"

#include "delivery/steady/finish_frame.h"
#include "media/access_unit.h"
#include "net/atomic.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/media.h"
#include "steady/line.h"
#include "steady/message_pool.h"

extern "C" {
struct SteadySender {
    uint64_t Reserved;
};
}

namespace {

RtmpFrame FrameOf(const RtmpSession *session, const uint8_t *data, int32_t length, uint64_t timestamp,
                  uint32_t mediaType)
{
    const bool isVideo = mediaType == RTMP_FRAME_VIDEO;
    RtmpFrame frame = {};
    frame.Data = data;
    frame.Length = length;
    frame.Kind = isVideo ? RTMP_MSG_VIDEO : RTMP_MSG_AUDIO;
    frame.Time = timestamp;
    const bool isStart =
        isVideo ? HasIdrSlice(data, length) != 0 : LoadShared(&session->MediaKind) == RTMP_MEDIA_AUDIO;
    frame.IsKeyFrame = isStart ? 1 : 0;
    frame.Payload = data;
    frame.PayloadLength = static_cast<uint32_t>(length);
    return frame;
}

} // namespace

int NewSteadySender(SteadyStream *stream)
{
    stream->Sender = NewRecord<SteadySender>();
    return stream->Sender != nullptr ? 0 : -1;
}

void FreeSteadySender(SteadyStream *stream)
{
    free(stream->Sender);
    stream->Sender = nullptr;
}

int SendDataSteadily(RtmpSession *session, const uint8_t *data, int32_t length, uint64_t timestamp,
                     uint32_t mediaType)
{
    WITHOUT_CANCEL int restore = ForbidCancel(); // a line would be left in the middle of a message
    SteadyStream *stream = session->Stream;
    RtmpFrame frame = FrameOf(session, data, length, timestamp, mediaType);
    FinishedMessage *message = FinishFrame(stream, &frame);
    if (message == nullptr) {
        return RTMP_FAILED;
    }
    PlaceMessage(stream, message, timestamp);
    FlushPlayers(stream);
    return LoadShared(&session->ClientCount) > 0 ? 0 : RTMP_ERR_NO_CLIENT;
}

void StopSteadySender(SteadyStream * /*stream*/) {}

void ResetSteadySender(SteadyStream * /*stream*/) {}
