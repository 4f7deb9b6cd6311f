#include "command/service_commands.h"

#include "amf/object.h"
#include "command/locked_reply.h"
#include "command/received_command.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/scope.h"
#include "rtmpcast/host.h"

#include <limits.h>
#include <stddef.h>
#include <stdio.h>

namespace {

// ------------------------------------------------------------------------------------------- information

// A member of an information object, tried in the order of its table, and the field of PublishCtx that its
// text goes to.
struct InfoKey {
    const char *Key;
    int64_t Field; // offset, or kNotKept
};
constexpr int64_t kNotKept = -1;

constexpr InfoKey kErrorKeys[] = {
    {"code", offsetof(PublishCtx, ErrorCode)},
    {"description", offsetof(PublishCtx, ErrorDescription)},
    {"level", kNotKept},
};
static_assert(sizeof PublishCtx::ErrorCode == kInfoFieldSize &&
              sizeof PublishCtx::ErrorDescription == kInfoFieldSize);

constexpr InfoKey kStatusKeys[] = {
    {"level", offsetof(PublishCtx, StatusLevel)},
    {"code", offsetof(PublishCtx, StatusCode)},
    {"description", offsetof(PublishCtx, StatusDescription)},
};
static_assert(sizeof PublishCtx::StatusLevel == kInfoFieldSize &&
              sizeof PublishCtx::StatusCode == kInfoFieldSize &&
              sizeof PublishCtx::StatusDescription == kInfoFieldSize);

const InfoKey *FindInfoKey(const InfoKey *keys, uint32_t count, const AmfString *name)
{
    for (uint32_t i = 0; i < count; i++) {
        if (KeyMatches(name, keys[i].Key)) {
            return &keys[i];
        }
    }
    return nullptr;
}

// KeepInfo stores the string members of the information object, which is the next argument. Numbers and
// other members are passed over.
template <uint32_t Count> void KeepInfo(ReceivedCommand *command, const InfoKey (&keys)[Count])
{
    RtmpServer *server = command->Client->Server;
    PublishCtx *context = command->Client->PublishCtx;
    AmfObject info;
    if (!TakeObject(command, &info) || context == nullptr) {
        return;
    }
    for (AmfObjProperty *member = info.first; member != nullptr; member = member->next) {
        AmfString name;
        GetAmfPropName(server, member, &name);
        const InfoKey *key = FindInfoKey(keys, Count, &name);
        if (key == nullptr || key->Field == kNotKept || GetAmfPropType(server, member) != AMF_STRING) {
            continue;
        }
        AmfString text;
        GetAmfPropString(server, member, &text);
        StoreText(reinterpret_cast<char *>(context) + key->Field, kInfoFieldSize, &text);
    }
}

// --------------------------------------------------------------------------------------------- challenge

void KeepSessionId(const ReceivedCommand *command, double number)
{
    PublishCtx *context = command->Client->PublishCtx;
    const int32_t sessionId = TruncateToInt32(number);
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: Session Id : %d\n", command->Caller, sessionId);
    if (context != nullptr) {
        snprintf(context->SessionIdText, sizeof context->SessionIdText, "%d", sessionId);
    }
}

void KeepChallenge(const ReceivedCommand *command, const AmfString *challenge)
{
    PublishCtx *context = command->Client->PublishCtx;
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: Challenge String : %.*s\n", command->Caller,
                 TextLength(challenge, INT_MAX), TextStart(challenge));
    if (context != nullptr) {
        StoreText(context->ChallengeString, sizeof context->ChallengeString, challenge);
    }
}

} // namespace

int HandleResult(ReceivedCommand *command)
{
    AmfString text;
    if (command->Client->PublishCtx != nullptr) {
        command->Client->PublishCtx->ResultTransactionId = command->TransactionId;
    }
    if (TakeString(command, &text)) {
        RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: \tString: %.*s\n", command->Caller,
                     TextLength(&text, INT_MAX), TextStart(&text));
    }
    return 0;
}

int HandleError(ReceivedCommand *command)
{
    if (command->Client->PublishCtx != nullptr) {
        command->Client->PublishCtx->ErrorTransactionId = command->TransactionId;
    }
    KeepInfo(command, kErrorKeys);
    return 0;
}

int HandleOnStatus(ReceivedCommand *command)
{
    if (command->Client->PublishCtx != nullptr) {
        command->Client->PublishCtx->StatusTransactionId = command->TransactionId;
    }
    KeepInfo(command, kStatusKeys);
    return 0;
}

int HandleOnClientLogin(ReceivedCommand *command)
{
    KeepInfo(command, kStatusKeys);
    return 0;
}

int HandleSetChallenge(ReceivedCommand *command)
{
    AmfObjProperty *sessionId = TakeArgument(command, AMF_NUMBER);
    if (sessionId != nullptr) {
        KeepSessionId(command, GetAmfPropNumber(command->Client->Server, sessionId));
    }
    AmfString challenge;
    if (TakeString(command, &challenge)) {
        KeepChallenge(command, &challenge);
    }
    return 0;
}

int HandlePing(ReceivedCommand *command)
{
    switch (ReplyUnderClientListLock(command->Client, command->Pkt, RTMP_MSG_USTREAM_PONG)) {
    case LOCKED_REPLY_SENT:
        return 0;
    case LOCKED_REPLY_NO_LOCK:
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock client list\n",
                     command->Caller);
        break;
    case LOCKED_REPLY_NOT_GENERATED:
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot generate RTMP USTREAM PONG message\n", command->Caller);
        break;
    case LOCKED_REPLY_NOT_SENT:
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot send USTREAM PONG message to server\n", command->Caller);
        break;
    case LOCKED_REPLY_NO_UNLOCK:
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock client list\n",
                     command->Caller);
        break;
    }
    return RTMP_FAILED;
}

int HandleRecordStop(ReceivedCommand *command)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    PublishUstreamRecord(command->Client, "start");
    return 0;
}
