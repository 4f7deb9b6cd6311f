#include "message/command_payload.h"

#include "amf/encode.h"
#include "amf/object.h"
#include "message/send_packet.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"

#include <stdio.h>

namespace {

constexpr char kPayloadWriter[] = "WriteCmdMsgPayload";

// One failed field.
int CannotEncode(RtmpServer *server, const char *field)
{
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf %s\n", kPayloadWriter,
                 field);
    return -1;
}

int PutTextMember(RtmpServer *server, AmfObject *into, const char *name, const char *value)
{
    return WriteAmfString(server, into, name, value) == 0 ? 0 : CannotEncode(server, name);
}

// A number that is 0 was not given.
int PutNumberMember(RtmpServer *server, AmfObject *into, const char *name, double value)
{
    if (value == 0) {
        return 0;
    }
    return WriteAmfNumber(server, into, name, value) == 0 ? 0 : CannotEncode(server, name);
}

// HandOver appends `members` as an object. They belong to `values` afterwards, or are freed.
int HandOver(RtmpServer *server, AmfObject *values, AmfObject *members, int status, const char *which)
{
    if (status == 0 && WriteAmfObject(server, values, members) == 0) {
        return 0;
    }
    FreeAmfObject(server, members, 1);
    return status == 0 ? CannotEncode(server, which) : status;
}

int PutCommandName(RtmpServer *server, AmfObject *values, const char *command)
{
    if (WriteAmfString(server, values, nullptr, command) == 0) {
        return 0;
    }
    // KEPT: command and function stand in each other's place. Required; changes a log line.
    RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf %s\n", command,
                 kPayloadWriter);
    return -1;
}

// The body of a WriteCmdMsgPayload without properties: null, and the stream id when there is one.
int PutNullAndStreamId(RtmpServer *server, AmfObject *values, uint32_t streamId)
{
    if (WriteAmfNull(server, values) != 0) {
        return CannotEncode(server, "null object marker");
    }
    if (streamId != 0 && WriteAmfNumber(server, values, nullptr, streamId) != 0) {
        return CannotEncode(server, "streamid");
    }
    return 0;
}

int PutProperties(RtmpServer *server, AmfObject *values, const CmdMsgPayload *payload)
{
    if (payload->FmsVer == nullptr && payload->Capabilities == 0 && payload->Mode == 0) {
        return PutNullAndStreamId(server, values, payload->StreamId);
    }
    AmfObject members = {};
    int status = 0;
    if (payload->FmsVer != nullptr) {
        status = PutTextMember(server, &members, "fmsVer", payload->FmsVer);
    }
    if (status == 0) {
        status = PutNumberMember(server, &members, "capabilities", payload->Capabilities);
    }
    if (status == 0) {
        status = PutNumberMember(server, &members, "mode", payload->Mode);
    }
    return HandOver(server, values, &members, status, "sub-object1");
}

const char *ClientIdOf(RtmpClient *client)
{
    if (client->ClientId[0] == '\0') {
        snprintf(client->ClientId, sizeof client->ClientId, "%x", static_cast<uint32_t>(RtmpGetSystemTime()));
    }
    return client->ClientId;
}

// description, details, clientid of a client that has named a stream
int PutStreamMembers(RtmpClient *client, AmfObject *members, const char *description)
{
    RtmpServer *server = client->Server;
    const uint64_t room = strlen(description) + 1 + strlen(client->StreamName) + 1;
    FREE_AT_EXIT char *text = NewArray<char>(room);
    if (text == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to tempBuffer\n",
                     kPayloadWriter);
        return -1;
    }
    snprintf(text, room, "%s %s", description, client->StreamName);
    int status = PutTextMember(server, members, "description", text);
    if (status == 0) {
        status = PutTextMember(server, members, "details", client->StreamName);
    }
    return status == 0 ? PutTextMember(server, members, "clientid", ClientIdOf(client)) : status;
}

int PutInformation(RtmpClient *client, AmfObject *values, const CmdMsgPayload *payload)
{
    if (payload->Level == nullptr || payload->Code == nullptr || payload->Description == nullptr) {
        return 0;
    }
    RtmpServer *server = client->Server;
    AmfObject members = {};
    int status = PutTextMember(server, &members, "level", payload->Level);
    if (status == 0) {
        status = PutTextMember(server, &members, "code", payload->Code);
    }
    if (status == 0) {
        status = client->StreamName != nullptr
                     ? PutStreamMembers(client, &members, payload->Description)
                     : PutTextMember(server, &members, "description", payload->Description);
    }
    return HandOver(server, values, &members, status, "sub-object2");
}

int PutValues(RtmpClient *client, AmfObject *values, const CmdMsgPayload *payload)
{
    RtmpServer *server = client->Server;
    if (PutCommandName(server, values, payload->Command) != 0) {
        return -1;
    }
    if (WriteAmfNumber(server, values, nullptr, payload->TransactionId) != 0) {
        return CannotEncode(server, "transactionId");
    }
    if (PutProperties(server, values, payload) != 0) {
        return -1;
    }
    return PutInformation(client, values, payload);
}

bool IsValid(const RtmpClient *client, const RtmpSendPkt *pkt, const CmdMsgPayload *payload)
{
    return client != nullptr && pkt != nullptr && payload->Command != nullptr &&
           payload->TransactionId >= 0; // false for a NaN too
}

} // namespace

int WriteCmdMsgPayload(RtmpClient *client, RtmpSendPkt *pkt, const CmdMsgPayload *payload)
{
    if (!IsValid(client, pkt, payload)) {
        RtmpLogPrint(LoggerOf(client != nullptr ? client->Server : nullptr), RTMP_LOG_ERROR,
                     "ERROR: %s: Invalid input arguments\n", __func__);
        return -1;
    }
    AmfObject values = {};
    int status = PutValues(client, &values, payload);
    if (status == 0) {
        status = EncodePayload(client, pkt, &values, __func__);
    }
    FreeAmfObject(client->Server, &values, 1);
    return status;
}
