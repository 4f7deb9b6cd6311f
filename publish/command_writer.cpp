#include "publish/command_writer.h"

#include "amf/value_writer.h"
#include "delivery/write/client_send.h"
#include "media/player_bodies.h"
#include "message/header_fields.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/record.h"
#include "net/scope.h"

#include <string.h>
#include <sys/socket.h>

namespace {

// What a command carries behind its name and transaction id.
enum Arguments {
    ARGUMENTS_CONNECT,   // the properties of a connection
    ARGUMENTS_NONE,      // null
    ARGUMENTS_KEY,       // null, the stream's key
    ARGUMENTS_PUBLISH,   // null, key, "live"
    ARGUMENTS_STREAM_ID, // null, the stream's id
};

struct OutgoingCommand {
    enum RtmpPublisherCommand Command;
    const char *Name;
    enum Arguments Arguments;
    bool IsAnswered; // by its transaction id
    bool OnStream;   // travels on the stream that createStream has made
};

constexpr OutgoingCommand kOutgoingCommands[] = {
    {RTMP_PUBLISHER_CONNECT, "connect", ARGUMENTS_CONNECT, true, false},
    {RTMP_PUBLISHER_RELEASE_STREAM, "releaseStream", ARGUMENTS_KEY, true, false},
    {RTMP_PUBLISHER_FC_PUBLISH, "FCPublish", ARGUMENTS_KEY, true, false},
    {RTMP_PUBLISHER_CREATE_STREAM, "createStream", ARGUMENTS_NONE, true, false},
    {RTMP_PUBLISHER_PUBLISH, "publish", ARGUMENTS_PUBLISH, false, true},
    {RTMP_PUBLISHER_FC_UNPUBLISH, "FCUnpublish", ARGUMENTS_KEY, true, false},
    {RTMP_PUBLISHER_CLOSE_STREAM, "closeStream", ARGUMENTS_NONE, false, true},
    {RTMP_PUBLISHER_DELETE_STREAM, "deleteStream", ARGUMENTS_STREAM_ID, true, false},
};
static_assert(sizeof kOutgoingCommands / sizeof kOutgoingCommands[0] == 8, "one row for each command");

const OutgoingCommand *RowOf(enum RtmpPublisherCommand command)
{
    for (const OutgoingCommand &row : kOutgoingCommands) {
        if (row.Command == command) {
            return &row;
        }
    }
    return nullptr;
}

// RTMP 1.0, 7.2.1.1, as encoders of today fill it.
void PutConnection(ByteWriter *out, const RtmpPublisherTarget *target)
{
    MemberWriter members = BeginObject(out);
    PutTextMember(&members, "app", target->App);
    PutTextMember(&members, "type", "nonprivate");
    PutTextMember(&members, "flashVer", target->FlashVer);
    PutTextMember(&members, "swfUrl", target->TcUrl);
    PutTextMember(&members, "tcUrl", target->TcUrl);
    EndMembers(&members);
}

void PutArguments(ByteWriter *out, const RtmpPublisher *publisher, enum Arguments arguments)
{
    if (arguments == ARGUMENTS_CONNECT) {
        PutConnection(out, &publisher->Target);
        return;
    }
    PutNullValue(out);
    if (arguments == ARGUMENTS_KEY || arguments == ARGUMENTS_PUBLISH) {
        PutTextValue(out, publisher->Target.Key);
    }
    if (arguments == ARGUMENTS_PUBLISH) {
        PutTextValue(out, "live");
    }
    if (arguments == ARGUMENTS_STREAM_ID) {
        PutNumberValue(out, publisher->Client->StreamId);
    }
}

// Room for the longest command: what is fixed, and the target's texts.
uint64_t RoomFor(const RtmpPublisherTarget *target)
{
    constexpr uint64_t fixed = 256;
    return fixed + strlen(target->App) + 2 * strlen(target->TcUrl) + strlen(target->Key) +
           strlen(target->FlashVer);
}

// SendOwn sends `length` bytes, which it takes over. -1: no memory; RTMP_ERR_CONNECTION (logged): not sent.
int SendOwn(RtmpClient *client, uint32_t type, uint32_t chunkStreamId, uint32_t streamId, uint8_t *payload,
            uint32_t length)
{
    FREE_AT_EXIT uint8_t *own = payload;
    RtmpSendPkt *message = NewRecord<RtmpSendPkt>();
    if (message == nullptr) {
        return -1;
    }
    message->ChunkStreamId = chunkStreamId;
    message->MsgTypeId = type;
    message->PayloadLength = length;
    message->PayloadData = payload;
    SetMsgStreamId(message, streamId);
    own = nullptr;
    constexpr uint32_t kind = RTMP_MSG_RESULT; // any without a rule of its own
    return SendMsgToClient(client, message, kind) == 0 ? 0 : RTMP_ERR_CONNECTION;
}

// LogUnlessSent returns `code`.
int LogUnlessSent(const RtmpPublisher *publisher, int code, const char *who, const char *what)
{
    if (code != 0) {
        RtmpLogPrint(LoggerOf(publisher->Client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot send %s to the service\n", who, what);
    }
    return code;
}

// A command as it is sent.
struct Written {
    uint8_t *Payload; // null: no memory
    uint32_t Length;
};

Written WriteCommand(const RtmpPublisher *publisher, const OutgoingCommand *row, double transaction)
{
    const uint64_t room = RoomFor(&publisher->Target);
    uint8_t *payload = NewArray<uint8_t>(room);
    if (payload == nullptr) {
        return {nullptr, 0};
    }
    ByteWriter out = WriterOver(payload, room); // enough: RtmpPublisherCreate refuses texts that do not fit
    PutTextValue(&out, row->Name);
    PutNumberValue(&out, transaction);
    PutArguments(&out, publisher, row->Arguments);
    return {payload, static_cast<uint32_t>(room - RoomIn(&out))};
}

} // namespace

const ReplyFailures kServiceFailures = {
    LOG_TEXT("ERROR: %s: Cannot generate a message to the service\n"),
    LOG_TEXT("ERROR: %s: Cannot send a message to the service\n"),
};

int32_t RtmpPublisherSend(RtmpPublisher *publisher, enum RtmpPublisherCommand command, double *transaction)
{
    const OutgoingCommand *row = RowOf(command);
    if (row == nullptr) {
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    const double id = row->IsAnswered ? AddShared(&publisher->LastTransaction, uint32_t{1}) : 0;
    const Written written = WriteCommand(publisher, row, id);
    if (written.Payload == nullptr) {
        return LogUnlessSent(publisher, RTMP_FAILED, __func__, row->Name);
    }
    if (transaction != nullptr) {
        *transaction = id;
    }
    if (command == RTMP_PUBLISHER_CREATE_STREAM) {
        publisher->CreateStreamTransaction = id;
    }
    const uint32_t stream = row->OnStream ? publisher->Client->StreamId : 0;
    return LogUnlessSent(publisher,
                         SendOwn(publisher->Client, RTMP_TYPE_AMF0_COMMAND, kCommandChunkStreamId, stream,
                                 written.Payload, written.Length),
                         __func__, row->Name);
}

int32_t RtmpPublisherSendData(RtmpPublisher *publisher, const uint8_t *values, uint32_t length)
{
    constexpr uint32_t longest = 0xFFFFFF; // RTMP 1.0, 5.3.1.2.1
    RtmpClient *client = publisher->Client;
    if (values == nullptr || length == 0 || length > longest) {
        return LogUnlessSent(publisher, RTMP_ERR_INVALID_ARGUMENT, __func__, "data");
    }
    uint8_t *copy = NewArray<uint8_t>(length);
    if (copy == nullptr) {
        return LogUnlessSent(publisher, RTMP_FAILED, __func__, "data");
    }
    memcpy(copy, values, length);
    return LogUnlessSent(
        publisher, SendOwn(client, RTMP_TYPE_AMF0_DATA, kDataChunkStreamId, client->StreamId, copy, length),
        __func__, "data");
}

int32_t RtmpPublisherSendMetaData(RtmpPublisher *publisher)
{
    RtmpSession *session = LoadShared(&publisher->Client->Session);
    const CodecInfo *codecInfo = session == nullptr ? nullptr : LoadShared(&session->CodecInfo);
    if (codecInfo == nullptr) {
        return LogUnlessSent(publisher, RTMP_FAILED, __func__, "metadata");
    }
    uint8_t room[kMetadataRoom];
    ByteWriter out = WriterOver(room, sizeof room);
    PutTextValue(&out, "@setDataFrame");
    WriteWholeMetadata(session, codecInfo, &out);
    if (out.Overrun) {
        return LogUnlessSent(publisher, RTMP_FAILED, __func__, "metadata");
    }
    return RtmpPublisherSendData(publisher, room, static_cast<uint32_t>(sizeof room - RoomIn(&out)));
}

struct timeval LimitWrites(const RtmpClient *client, struct timeval limit)
{
    struct timeval before = {};
    socklen_t length = sizeof before;
    (void)getsockopt(client->Socket, SOL_SOCKET, SO_SNDTIMEO, &before, &length); // a socket has it
    (void)setsockopt(client->Socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return before;
}

struct timeval AnswerTime(const RtmpPublisher *publisher)
{
    const uint32_t milliseconds = publisher->Target.AnswerMilliseconds;
    return {static_cast<time_t>(milliseconds / 1000), static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
}
