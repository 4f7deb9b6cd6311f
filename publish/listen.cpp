#include "publish/listen.h"

#include "amf/object.h"
#include "delivery/replies/reply.h"
#include "message/recv_list.h"
#include "message/recv_packet.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "publish/command_writer.h"
#include "serve/dispatch.h"
#include "serve/serve.h"

#include <string.h>

namespace {

constexpr const char *kListen = "RtmpPublisherServe";
constexpr uint32_t kNameHeader = 3; // marker:8 length:16

// What players ask for is nothing that a service may: "play" would join it to a session of its own choice.
constexpr const char *kPlayersCommands[] = {"connect",      "createStream", "play",   "pause",
                                            "deleteStream", "seek",         "publish"};

bool IsNamed(const RtmpRecvPkt *pkt, const char *name)
{
    const uint64_t length = strlen(name);
    return pkt->ReceivedBytes >= kNameHeader + length && pkt->PayloadData[1] == 0 &&
           pkt->PayloadData[2] == length && memcmp(pkt->PayloadData + kNameHeader, name, length) == 0;
}

// An answer is told by its own texts: what it leaves out is not what an earlier one said.
void ForgetTexts(PublishCtx *answers, const RtmpRecvPkt *pkt)
{
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND) {
        return;
    }
    if (IsNamed(pkt, "_error")) {
        answers->ErrorCode[0] = '\0';
        answers->ErrorDescription[0] = '\0';
    } else if (IsNamed(pkt, "onStatus") || IsNamed(pkt, "onClientLogin")) {
        answers->StatusLevel[0] = '\0';
        answers->StatusCode[0] = '\0';
        answers->StatusDescription[0] = '\0';
    }
}

bool IsPlayersCommand(const RtmpRecvPkt *pkt)
{
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND) {
        return false;
    }
    for (const char *name : kPlayersCommands) {
        if (IsNamed(pkt, name)) {
            return true;
        }
    }
    return false;
}

// The number behind name, transaction id and null; kNoStreamId: there is none.
double StreamIdIn(RtmpServer *server, const RtmpRecvPkt *pkt)
{
    constexpr int32_t place = 3;
    AmfObject *values = pkt->Result.Amf;
    if (pkt->MsgTypeId != RTMP_TYPE_AMF0_COMMAND || values == nullptr || values->count <= place) {
        return kNoStreamId;
    }
    AmfObjProperty *value = GetAmfProp(server, values, nullptr, place);
    return GetAmfPropType(server, value) == AMF_NUMBER ? GetAmfPropNumber(server, value) : kNoStreamId;
}

// A ping is answered before the session is joined, too.
void AnswerEarlyPing(RtmpClient *client, RtmpRecvPkt *pkt, uint32_t kind)
{
    if (kind == RTMP_MSG_PING_REQUEST && LoadShared(&client->Session) == nullptr) {
        (void)SendReply(client, pkt, RTMP_MSG_PING_RESPONSE, RTMP_MSG_PING_RESPONSE, &kServiceFailures,
                        kListen); // logged; the connection goes on
    }
}

// 0; -1: what came was not to be understood.
int Handle(RtmpPublisher *publisher, RtmpRecvPkt *pkt, Heard *heard)
{
    RtmpClient *client = publisher->Client;
    *heard = {RTMP_MSG_UNSUPPORTED, kNoStreamId}; // events that are passed over leave the kind alone
    if (IsPlayersCommand(pkt)) {
        return 0;
    }
    ForgetTexts(&publisher->Answers, pkt);
    if (ParseRequestMsg(client, pkt, &heard->Kind) != 0) {
        return -1;
    }
    AnswerEarlyPing(client, pkt, heard->Kind);
    if (heard->Kind == RTMP_MSG_RESULT) {
        heard->StreamId = StreamIdIn(client->Server, pkt);
    }
    return 0;
}

bool IsError(const RtmpPublisher *publisher)
{
    return strcmp(publisher->Answers.StatusLevel, "error") == 0;
}

// TakeStreamId takes the id from the answer to createStream; other results have none. -1: one that cannot be.
int TakeStreamId(RtmpPublisher *publisher, double id)
{
    if (publisher->CreateStreamTransaction == 0 ||
        publisher->Answers.ResultTransactionId != publisher->CreateStreamTransaction) {
        return 0;
    }
    if (!(id >= 0 && id <= UINT32_MAX)) { // also what is no number
        return -1;
    }
    publisher->Client->StreamId = static_cast<uint32_t>(id);
    publisher->CreateStreamTransaction = 0;
    return 0;
}

} // namespace

int32_t HearMessage(RtmpPublisher *publisher, uint64_t until, Heard *heard)
{
    RtmpClient *client = publisher->Client;
    bool stored = false;
    client->ReadsUntil = until;
    RtmpRecvPkt *pkt = ReadWholeMessage(client, &stored);
    if (pkt == nullptr) {
        return CodeOfFailedRead(client);
    }
    const int result = Handle(publisher, pkt, heard);
    LetGoOfMessage(client, pkt, stored);
    return result == 0 ? 0 : RTMP_ERR_CONNECTION;
}

int32_t JudgeHeard(RtmpPublisher *publisher, const Heard *heard, double transaction)
{
    constexpr int32_t goesOn = 1;
    const PublishCtx *answers = &publisher->Answers;
    switch (heard->Kind) {
    case RTMP_MSG_RESULT:
        if (TakeStreamId(publisher, heard->StreamId) != 0) {
            return RTMP_ERR_CONNECTION;
        }
        return transaction > 0 && answers->ResultTransactionId == transaction ? 0 : goesOn;
    case RTMP_MSG_ERROR:
        return answers->ErrorTransactionId == transaction ? RTMP_ERR_REFUSED : goesOn;
    case RTMP_MSG_ON_STATUS:
        if (IsError(publisher)) {
            return RTMP_ERR_REFUSED;
        }
        return transaction > 0 ? goesOn : 0;
    default:
        return goesOn;
    }
}

int32_t RtmpPublisherAwait(RtmpPublisher *publisher, double transaction)
{
    const uint64_t deadline = RtmpGetSystemTime() + publisher->Target.AnswerMilliseconds;
    int32_t result = 1;
    while (result > 0) {
        Heard heard;
        result = HearMessage(publisher, deadline, &heard);
        if (result == 0) {
            result = JudgeHeard(publisher, &heard, transaction);
        }
    }
    return result;
}

int32_t CodeOfFailedRead(const RtmpClient *client)
{
    const bool isLate = client->ReadsUntil != 0 && RtmpGetSystemTime() >= client->ReadsUntil;
    return isLate ? RTMP_ERR_NO_ANSWER : RTMP_ERR_CONNECTION;
}
