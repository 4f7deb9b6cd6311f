#include "delivery/replies/reply.h"

#include "delivery/write/client_send.h"
#include "message/generate.h"
#include "net/log.h"
#include "rtmpcast/types.h"

const ReplyFailures kResponseFailures = {
    LOG_TEXT("ERROR: %s: Cannot generate RTMP response message\n"),
    LOG_TEXT("ERROR: %s: Cannot send response message to client\n"),
};

int SendReply(RtmpClient *client, RtmpRecvPkt *request, uint32_t reply, uint32_t sendKind,
              const ReplyFailures *failures, const char *who)
{
    RtmpSendPkt *message = GenerateRtmpMsg(client, request, reply);
    if (message == nullptr) {
        LogLine(LoggerOf(client->Server), RTMP_LOG_ERROR, failures->NotGenerated, who);
        return -1;
    }
    if (SendOrForget(client, message, sendKind) != 0) {
        LogLine(LoggerOf(client->Server), RTMP_LOG_ERROR, failures->NotSent, who);
        return -1;
    }
    return 0;
}
