#include "delivery/replies/start_sequence.h"

#include "delivery/replies/reply.h"
#include "net/atomic.h"

namespace {

constexpr ReplyFailures kAvcHeaderFailures = {
    LOG_TEXT("ERROR: %s: Cannot generate avcc data message\n"),
    LOG_TEXT("ERROR: %s: Cannot send avcc data message to client\n"),
};

constexpr ReplyFailures kAacHeaderFailures = {
    LOG_TEXT("ERROR: %s: Cannot generate AAC config message\n"),
    LOG_TEXT("ERROR: %s: Cannot send AAC config message to client\n"),
};

constexpr uint32_t kBeforeHeaders[] = {RTMP_MSG_PLAY_START, RTMP_MSG_SAMPLE_ACCESS, RTMP_MSG_META_DATA};

int SendAll(RtmpClient *client, RtmpRecvPkt *request, const char *who)
{
    for (const uint32_t kind : kBeforeHeaders) {
        if (SendReply(client, request, kind, kind, &kResponseFailures, who) != 0) {
            return -1;
        }
    }
    const RtmpSession *session = client->Session;
    if (session == nullptr) {
        return 0;
    }
    const uint32_t media = LoadShared(&session->MediaKind);
    if (media != RTMP_MEDIA_AUDIO &&
        SendReply(client, request, RTMP_MSG_VIDEO, RTMP_MSG_VIDEO, &kAvcHeaderFailures, who) != 0) {
        return -1;
    }
    if (media != RTMP_MEDIA_VIDEO &&
        SendReply(client, request, RTMP_MSG_AUDIO, RTMP_MSG_AUDIO, &kAacHeaderFailures, who) != 0) {
        return -1;
    }
    return 0;
}

} // namespace

int StartSendingData(RtmpClient *client, RtmpRecvPkt *request)
{
    return SendAll(client, request, __func__);
}
