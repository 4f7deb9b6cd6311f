#include "delivery/senders/monitor.h"
#include "delivery/senders/threaded_queue.h"
#include "delivery/steady/steady_sender.h"
#include "net/atomic.h"
#include "net/log.h"
#include "rtmpcast/media.h"
#include "rtmpcast/server.h"
#include "state/frame_under_way.h"
#include "state/session_list.h"

namespace {

bool IsFrame(const RtmpSession *session, const uint8_t *data, int32_t length, uint32_t mediaType)
{
    return session != nullptr && data != nullptr && length >= 1 &&
           (mediaType == RTMP_FRAME_VIDEO || mediaType == RTMP_FRAME_AUDIO);
}

bool HasSender(const RtmpSession *session)
{
    return session->SenderMode == RTMP_SENDER_THREADED ? session->Queue != nullptr
                                                       : session->Monitor != nullptr;
}

void EndScopedFrame(RtmpSession **session)
{
    EndFrame(*session);
}

// END_FRAME_AT_EXIT RtmpSession *underWay = session; also when the host cancels its thread.
#define END_FRAME_AT_EXIT __attribute__((cleanup(EndScopedFrame), unused))

} // namespace

int32_t RtmpSendData(RtmpSession *session, const uint8_t *data, int32_t length, int32_t fd, uint64_t mapBase,
                     uint64_t timestamp, int64_t mediaType)
{
    if (!IsFrame(session, data, length, static_cast<uint32_t>(mediaType))) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    if (LoadShared(&session->MediaInfoAdded) != 1) {
        return RTMP_ERR_NO_MEDIA_INFO;
    }
    if (session->Stream == nullptr && IsAnyClientConnected(session) != 0) {
        return RTMP_ERR_NO_CLIENT;
    }
    if (BeginFrame(session) != 0) {
        return RTMP_ERR_NO_CLIENT; // the session is being destroyed
    }
    END_FRAME_AT_EXIT RtmpSession *underWay = session;
    if (session->Stream != nullptr) {
        return SendDataSteadily(session, data, length, timestamp, static_cast<uint32_t>(mediaType));
    }
    RtmpLogger *logger = LoggerOf(session->Server);
    int32_t result;
    if (!HasSender(session)) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: The session has no sender\n", __func__);
        result = RTMP_FAILED;
    } else if (session->SenderMode == RTMP_SENDER_THREADED) {
        result = RtmpThreadedQueueSendData(session, data, length, fd, mapBase, timestamp, mediaType);
    } else {
        result = RtmpMonitorSendData(session, data, length, fd, mapBase, timestamp, mediaType);
    }
    if (result != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Sending message to connected clients failed\n",
                     __func__);
    }
    return result;
}
