#include "delivery/write/captions.h"

#include "delivery/write/client_send.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/host.h"

#include <string.h>

namespace {

enum { CAPTION_IN_STREAM = 0, CAPTION_AS_MESSAGE = 1 };

// Milliseconds of video since the last caption message. KEPT: one for the process, shared by all sessions.
// Required; changes what the host is handed.
uint64_t timeStampDelta;

// Where the SEI goes, and what it is.
struct CaptionSei {
    uint32_t Offset;
    int32_t NalSizePos;
    const uint8_t *Bytes;
    uint32_t Length;
};

// Bytes that the SEI does not have read as zero.
uint8_t SeiByte(const CaptionSei *sei, uint32_t index)
{
    return index < sei->Length ? sei->Bytes[index] : 0;
}

bool FindCaption(RtmpCaptionCtx *captions, const RtmpFrame *frame, CaptionSei *sei)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    const int32_t offset =
        find_cc_insertion_place_in_h264_of_qbox(frame->Data, frame->Length, &sei->NalSizePos);
    if (offset < 0 || offset > frame->Length) {
        return false;
    }
    uint8_t *bytes = nullptr;
    int32_t length = 0;
    get_sei_packet(captions->Handle, &bytes, &length, static_cast<uint32_t>(frame->TimestampDelta));
    sei->Offset = static_cast<uint32_t>(offset);
    sei->Bytes = bytes;
    sei->Length = bytes != nullptr && length > 0 ? static_cast<uint32_t>(length) : 0;
    return true;
}

void InsertIntoFrame(RtmpSession *session, RtmpFrame *frame, const CaptionSei *sei)
{
    const uint64_t needed = static_cast<uint64_t>(frame->PrefixLength) + sei->Offset + sei->Length;
    if (needed > kFramePrefixSize - 1) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Not enough memory for qbox_copy (need %d bytes)\n", kFanOut,
                     static_cast<int>(needed));
        return;
    }
    memcpy(frame->Prefix + frame->PrefixLength, frame->Data, sei->Offset);
    if (sei->Length > 0) {
        memcpy(frame->Prefix + frame->PrefixLength + sei->Offset, sei->Bytes, sei->Length);
    }
    frame->PrefixLength = static_cast<uint32_t>(needed);
    WITHOUT_CANCEL int restore = ForbidCancel();
    increase_nal_size(frame->Prefix + frame->HeaderLength, sei->NalSizePos,
                      static_cast<int32_t>(sei->Length));
    frame->Payload += sei->Offset;
    frame->PayloadLength -= sei->Offset;
}

// payload: 00 00 00  06 C1  cc_data of the SEI, bytes 11 to 14  FF
void FillCaptionPayload(RtmpCaptionCtx *captions, const CaptionSei *sei)
{
    const uint8_t payload[sizeof captions->Payload] = {
        0x00, 0x00, 0x00, 0x06, 0xC1, SeiByte(sei, 11), SeiByte(sei, 12), SeiByte(sei, 13), SeiByte(sei, 14),
        0xFF,
    };
    memcpy(captions->Payload, payload, sizeof payload);
}

// No SEI at all says as little as an empty pair.
bool IsEmptyCaption(const CaptionSei *sei)
{
    return sei->Length == 0 || (SeiByte(sei, 13) == 0x80 && SeiByte(sei, 14) == 0x80);
}

RtmpSendPkt *CaptionMessage(RtmpClient *client, uint64_t delta)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    return PublishGeneratePeriodicRTMPMsg(client, RTMP_MSG_CAPTION, delta);
}

void SendCaption(RtmpClient *client, RtmpLogger *logger)
{
    RtmpSendPkt *message = CaptionMessage(client, LoadShared(&timeStampDelta));
    StoreShared(&timeStampDelta, static_cast<uint64_t>(0));
    if (message == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot generate rtmp data message of client : %p\n",
                     kFanOut, static_cast<void *>(client));
        return;
    }
    if (SendMsgToClient(client, message, RTMP_MSG_CAPTION) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot send cc data message to server\n", kFanOut);
    }
}

// On the steady road clients join meanwhile: the session list lock, which the fan-out has, is not held there.
RtmpClient *FirstClient(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    return session->ClientListHead;
}

// The client list lock keeps the first client while its caption is written.
void SendToFirstClient(RtmpSession *session, const RtmpFrame *frame, const CaptionSei *sei)
{
    if (RtmpMutexLockOrCancel(&session->ClientListLock) != 0) {
        return; // the exact road's frame needs the lock, too, and reports it; the steady road loses a caption
    }
    UNLOCK_AT_EXIT RtmpMutex *held = &session->ClientListLock;
    RtmpClient *first = FirstClient(session);
    if (first == nullptr || ClientStateOf(first) != CLIENT_STATE_PLAY_DONE) {
        return;
    }
    FillCaptionPayload(session->CcGen, sei);
    AddShared(&timeStampDelta, frame->TimestampDelta);
    if (!IsEmptyCaption(sei)) {
        SendCaption(first, LoggerOf(session->Server));
    }
}

} // namespace

void InsertCaptions(RtmpSession *session, RtmpFrame *frame)
{
    RtmpCaptionCtx *captions = session->CcGen;
    if (frame->Kind != RTMP_MSG_VIDEO || captions == nullptr || LoadShared(&captions->Enabled) == 0) {
        return;
    }
    CaptionSei sei = {};
    if (!FindCaption(captions, frame, &sei)) {
        return;
    }
    const uint8_t mode = LoadShared(&captions->Mode);
    if (mode == CAPTION_IN_STREAM) {
        InsertIntoFrame(session, frame, &sei);
    } else if (mode == CAPTION_AS_MESSAGE) {
        SendToFirstClient(session, frame, &sei);
    }
}
