#include "delivery/replies/reply.h"

#include "delivery/write/client_send.h"
#include "message/generate.h"
#include "net/log.h"
#include "rtmpcast/types.h"

const ReplyFailures kResponseFailures = {
    "ERROR: %s: Cannot generate RTMP response message\n",
    "ERROR: %s: Cannot send response message to client\n",
};

namespace {

void LogReplyFailure(RtmpClient *client, const char *format, const char *who)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a text of ReplyFailures
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, format, who);
#pragma GCC diagnostic pop
}

} // namespace

int SendReply(RtmpClient *client, RtmpRecvPkt *request, uint32_t reply, uint32_t sendKind,
              const ReplyFailures *failures, const char *who)
{
    RtmpSendPkt *message = GenerateRtmpMsg(client, request, reply);
    if (message == nullptr) {
        LogReplyFailure(client, failures->NotGenerated, who);
        return -1;
    }
    if (SendOrForget(client, message, sendKind) != 0) {
        LogReplyFailure(client, failures->NotSent, who);
        return -1;
    }
    return 0;
}
