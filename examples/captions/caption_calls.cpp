#include "caption_calls.h"

#include "caption_info.h"
#include "caption_sei.h"

#include <rtmpcast/rtmpcast.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

namespace {

// What the library puts in front of a frame at most: tag header, the frame up to the place, the captions.
constexpr int32_t kPrefixRoom = 1023;
constexpr int32_t kTagHeader = 5;
constexpr int32_t kCaptionUnit = 22; // bytes of a pair's NAL unit, its length included

// Its own: on the video's, the captions would move the video's clock.
constexpr uint32_t kCaptionChunkStream = 30; // some services take no more than 32

// Between the two calls for a frame, which come on one thread, one behind the other.
thread_local bool frameHasPlace;

CaptionGenerator *generatorOf(uint64_t handle)
{
    return reinterpret_cast<CaptionGenerator *>(handle);
}

uint64_t monotonicMilliseconds()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // of a clock that there is: cannot fail
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

void putTime(uint8_t (&field)[3], uint8_t (&extended)[4], uint64_t time)
{
    const uint32_t shown = static_cast<uint32_t>(time < 0xFFFFFF ? time : 0xFFFFFF);
    for (size_t i = 0; i < 3; ++i) {
        field[i] = static_cast<uint8_t>(shown >> (16 - 8 * i));
    }
    for (size_t i = 0; i < 4; ++i) {
        extended[i] = static_cast<uint8_t>(time >> (24 - 8 * i));
    }
}

// On the default road media time is the age of the connection. Where it is not, the library writes its own.
void stamp(RtmpSendPkt &message, const RtmpClient &client, uint64_t delta)
{
    message.Timestamp = monotonicMilliseconds() - client.CreateTime;
    putTime(message.HdrTimestamp, message.ExtTimestamp, message.Timestamp);
    putTime(message.HdrTimestampDelta, message.ExtTimestampDelta, delta);
}

} // namespace

uint64_t makeCaptions()
{
    return reinterpret_cast<uint64_t>(new (std::nothrow) CaptionGenerator);
}

void endCaptions(uint64_t handle)
{
    delete generatorOf(handle);
}

// The captions are a NAL unit of their own, so that none grows. A frame without a place gets nothing at its
// beginning: its time is told with takeCaption all the same.
int32_t placeCaption(const uint8_t *data, int32_t length, int32_t *nalSizePos)
{
    *nalSizePos = 0;
    const int32_t place = placeOfCaption({data, static_cast<size_t>(length)});
    frameHasPlace = place >= 0 && place <= kPrefixRoom - kTagHeader - kCaptionUnit;
    return frameHasPlace ? place : 0;
}

void takeCaption(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta)
{
    const std::span<uint8_t> bytes = generatorOf(handle)->next(timestampDelta, frameHasPlace);
    *sei = bytes.data();
    *seiLen = static_cast<int32_t>(bytes.size());
}

RtmpSendPkt *makeCaptionInfo(RtmpClient *client, uint32_t kind, uint64_t timeStampDelta)
{
    const std::vector<uint8_t> body = captionInfo(client->Session->CcGen->Payload);
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof *message));
    uint8_t *payload = static_cast<uint8_t *>(calloc(1, body.size()));
    if (message == nullptr || payload == nullptr) {
        free(message);
        free(payload);
        return nullptr;
    }
    memcpy(payload, body.data(), body.size());
    message->ChunkStreamId = kCaptionChunkStream;
    message->MsgTypeId = RTMP_TYPE_AMF0_DATA;
    message->MsgKind = kind;
    message->PayloadLength = static_cast<uint32_t>(body.size());
    message->PayloadData = payload;
    for (int i = 0; i < 4; ++i) {
        message->MsgStreamId[i] = static_cast<uint8_t>(client->StreamId >> (8 * i)); // little-endian
    }
    stamp(*message, *client, timeStampDelta);
    return message;
}
