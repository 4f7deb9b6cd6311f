#include "command/command.h"

#include "amf/decode.h"
#include "amf/object.h"
#include "command/module_info.h"
#include "command/player_commands.h"
#include "command/received_command.h"
#include "command/service_commands.h"
#include "message/recv_packet.h"
#include "net/log.h"
#include "net/log_line.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/refusal.h"

#include <limits.h>

namespace {

struct CommandRow {
    const char *Name; // exact and case-sensitive
    uint32_t Kind;
    LogText Line;
    int (*Handle)(ReceivedCommand *command); // null: nothing more than the kind
};

// clang-format off
constexpr CommandRow kCommands[] = {
    {"connect", RTMP_MSG_CONNECT,
     LOG_TEXT("INFO: %s: Received Command message: CONNECT\n"), HandleConnect},
    {"createStream", RTMP_MSG_CREATE_STREAM,
     LOG_TEXT("INFO: %s: Received Command message: CREATESTREAM\n"), nullptr},
    {"play", RTMP_MSG_PLAY,
     LOG_TEXT("INFO: %s: Received Command message: PLAY\n"), HandlePlay},
    {"pause", RTMP_MSG_PAUSE,
     LOG_TEXT("INFO: %s: Received Command message: PAUSE\n"), HandlePause},
    {"deleteStream", RTMP_MSG_DELETE_STREAM,
     LOG_TEXT("INFO: %s: Received Command message: DELETESTREAM\n"), nullptr},
    {"_result", RTMP_MSG_RESULT,
     LOG_TEXT("INFO: %s: Received Command message: RESULT\n"), HandleResult},
    {"_error", RTMP_MSG_ERROR,
     LOG_TEXT("INFO: %s: Received Command message: ERROR\n"), HandleError},
    {"onBWDone", RTMP_MSG_ON_BW_DONE,
     LOG_TEXT("INFO: %s: Received Command message: COMMAND_MSG_ON_BW_DONE\n"), nullptr},
    {"onStatus", RTMP_MSG_ON_STATUS,
     LOG_TEXT("INFO: %s: Received Command message: ONSTATUS\n"), HandleOnStatus},
    {"onFCPublish", RTMP_MSG_ON_FC_PUBLISH,
     LOG_TEXT("INFO: %s: Received Command message: onFCPublish\n"), nullptr},
    // KEPT: handled, and unsupported all the same. Required; whoever sends it to the serve loop is refused.
    {"moduleInfo", RTMP_MSG_UNSUPPORTED,
     LOG_TEXT("INFO: %s: Received Command message: moduleInfo\n"), HandleModuleInfo},
    {"ping", RTMP_MSG_USTREAM_PING,
     LOG_TEXT("INFO: %s: Received Command message: UstreamPing\n"), HandlePing},
    {"setChallenge", RTMP_MSG_SET_CHALLENGE,
     LOG_TEXT("INFO: %s: Received Command message: COMMAND_MSG_SET_CHALLENGE\n"), HandleSetChallenge},
    {"onClientLogin", RTMP_MSG_ON_CLIENT_LOGIN,
     LOG_TEXT("INFO: %s: Received Command message: ONCLIENTLOGIN\n"), HandleOnClientLogin},
    {"recordStarted", RTMP_MSG_RECORD_STARTED,
     LOG_TEXT("INFO: %s: Received Command message: USTREAM_RECORD_STARTED\n"), nullptr},
    {"recordError", RTMP_MSG_RECORD_ERROR,
     LOG_TEXT("INFO: %s: Received Command message: USTREAM_RECORD_ERROR\n"), HandleRecordStop},
    {"recordReady", RTMP_MSG_RECORD_READY,
     LOG_TEXT("INFO: %s: Received Command message: USTREAM_RECORD_READY\n"), nullptr},
    {"recordSaved", RTMP_MSG_RECORD_SAVED,
     LOG_TEXT("INFO: %s: Received Command message: USTREAM_RECORD_SAVED\n"), nullptr},
    {"recordTimerWarning", RTMP_MSG_RECORD_TIMER_WARNING,
     LOG_TEXT("INFO: %s: Received Command message: USTREAM_RECORD_TIMER_WARNING\n"), nullptr},
    {"recordLimitExceeded", RTMP_MSG_RECORD_LIMIT_EXCEEDED,
     LOG_TEXT("INFO: %s: Received Command message: USTREAM_RECORD_LIMIT_EXCEEDED\n"), HandleRecordStop},
    {"_checkbw", RTMP_MSG_CHECK_BW,
     LOG_TEXT("INFO: %s: Received Command message: CHECKBW\n"), nullptr},
};
// clang-format on
static_assert(sizeof kCommands / sizeof kCommands[0] == 21);

// A command that is unknown on connections which do not allow it.
struct RuledCommand {
    enum PlayerRule Rule;
    CommandRow Row;
};

// clang-format off
constexpr RuledCommand kRuledCommands[] = {
    {RULE_SEEK, {"seek", RTMP_MSG_SEEK,
     LOG_TEXT("INFO: %s: Received Command message: SEEK\n"), nullptr}},
    {RULE_PUBLISH, {"publish", RTMP_MSG_PUBLISH,
     LOG_TEXT("INFO: %s: Received Command message: PUBLISH\n"), HandlePublish}},
};
// clang-format on
static_assert(sizeof kRuledCommands / sizeof kRuledCommands[0] == 2);

const CommandRow *FindRuledCommand(const RtmpClient *client, const AmfString *name)
{
    for (const RuledCommand &ruled : kRuledCommands) {
        if (TextEquals(name, ruled.Row.Name) && Allows(client, ruled.Rule)) {
            return &ruled.Row;
        }
    }
    return nullptr;
}

const CommandRow *FindCommand(const RtmpClient *client, const AmfString *name)
{
    for (const CommandRow &row : kCommands) {
        if (TextEquals(name, row.Name)) {
            return &row;
        }
    }
    return FindRuledCommand(client, name);
}

// DecodePayload returns the packet's values, or null (logged).
AmfObject *DecodePayload(RtmpClient *client, const RtmpRecvPkt *pkt, const char *caller)
{
    AmfObject *values = NewRecord<AmfObject>();
    if (values == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to amfObject\n", caller);
        return nullptr;
    }
    if (DecodeAmfBuffer(client->Server, values, pkt->PayloadData, pkt->MsgLength, 1) < 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: Cannot decode AMF buffer\n",
                     caller);
        (void)FreeDecodedAmfObject(client->Server, values); // always 0
        free(values);
        return nullptr;
    }
    return values;
}

// Whether such a command is refused is decided where the kind is looked at.
int ReportUnknownCommand(const ReceivedCommand *command, uint32_t *msgKind)
{
    RtmpLogPrint(command->Logger, RTMP_LOG_INFO, "INFO: %s: Unsupported command message: %.*s\n",
                 command->Caller, TextLength(&command->Name, INT_MAX), TextStart(&command->Name));
    NoteRefusal(command->Pkt, REFUSED_UNKNOWN_COMMAND, &command->Name);
    *msgKind = RTMP_MSG_UNSUPPORTED;
    return 0;
}

} // namespace

int ParseCmdMsgReq(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t *msgKind)
{
    (void)FreeDecodedCommand(client->Server, pkt); // of an earlier call for this packet; it never fails
    AmfObject *values = DecodePayload(client, pkt, __func__);
    if (values == nullptr) {
        return RTMP_FAILED;
    }
    pkt->Result.Amf = values; // freed with the packet
    ReceivedCommand command = {};
    command.Client = client;
    command.Pkt = pkt;
    command.Caller = __func__;
    command.Logger = LoggerOf(client->Server);
    command.Values = values;
    ReadCommandHead(&command);
    const CommandRow *row = FindCommand(client, &command.Name);
    if (row == nullptr) {
        return ReportUnknownCommand(&command, msgKind);
    }
    LogLine(command.Logger, RTMP_LOG_INFO, row->Line, __func__);
    *msgKind = row->Kind;
    if (row->Kind == RTMP_MSG_UNSUPPORTED) {
        NoteRefusal(pkt, REFUSED_COMMAND, &command.Name);
    }
    return row->Handle != nullptr ? row->Handle(&command) : 0;
}
