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

namespace {

// What a command carries behind its name and transaction id.
enum Arguments {
    ARGUMENTS_CONNECT,   // the properties of a connection
    ARGUMENTS_NONE,      // null
    ARGUMENTS_KEY,       // null, the stream's key
    ARGUMENTS_PUBLISH,   // null, key, "live"
    ARGUMENTS_STREAM_ID, // null, the stream's id
};

struct CommandRow {
    enum RtmpPublisherCommand Command;
    const char *Name;
    enum Arguments Arguments;
    bool IsAnswered; // by its transaction id
    bool OnStream;   // travels on the stream that createStream has made
};

constexpr CommandRow kCommands[] = {
    {RTMP_PUBLISHER_CONNECT, "connect", ARGUMENTS_CONNECT, true, false},
    {RTMP_PUBLISHER_RELEASE_STREAM, "releaseStream", ARGUMENTS_KEY, true, false},
    {RTMP_PUBLISHER_FC_PUBLISH, "FCPublish", ARGUMENTS_KEY, true, false},
    {RTMP_PUBLISHER_CREATE_STREAM, "createStream", ARGUMENTS_NONE, true, false},
    {RTMP_PUBLISHER_PUBLISH, "publish", ARGUMENTS_PUBLISH, false, true},
    {RTMP_PUBLISHER_FC_UNPUBLISH, "FCUnpublish", ARGUMENTS_KEY, true, false},
    {RTMP_PUBLISHER_CLOSE_STREAM, "closeStream", ARGUMENTS_NONE, false, true},
    {RTMP_PUBLISHER_DELETE_STREAM, "deleteStream", ARGUMENTS_STREAM_ID, true, false},
};
static_assert(sizeof kCommands / sizeof kCommands[0] == 8, "one row for each command");

const CommandRow *RowOf(enum RtmpPublisherCommand command)
{
    for (const CommandRow &row : kCommands) {
        if (row.Command == command) {
            return &row;
        }
    }
    return nullptr;
}

// RTMP 1.0, 7.2.1.1, as encoders of today fill it.
void PutConnection(ByteWriter *out, const RtmpPublisherTarget *target)
{
    AmfMembers members = BeginObject(out);
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

// SendOwn sends `length` bytes, which it takes over. -1 (logged): no memory, or not sent.
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
    return SendMsgToClient(client, message, RTMP_MSG_RESULT); // any kind without a rule of its own
}

int LogNotSent(const RtmpPublisher *publisher, const char *who, const char *what)
{
    RtmpLogPrint(LoggerOf(publisher->Client->Server), RTMP_LOG_ERROR,
                 "ERROR: %s: Cannot send %s to the service\n", who, what);
    return RTMP_FAILED;
}

} // namespace

int32_t RtmpPublisherSend(RtmpPublisher *publisher, enum RtmpPublisherCommand command, double *transaction)
{
    const CommandRow *row = RowOf(command);
    if (row == nullptr) {
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    const double id = row->IsAnswered ? ++publisher->LastTransaction : 0;
    const uint64_t room = RoomFor(&publisher->Target);
    uint8_t *payload = NewArray<uint8_t>(room);
    if (payload == nullptr) {
        return LogNotSent(publisher, __func__, row->Name);
    }
    ByteWriter out = WriterOver(payload, room);
    PutTextValue(&out, row->Name);
    PutNumberValue(&out, id);
    PutArguments(&out, publisher, row->Arguments);
    if (transaction != nullptr) {
        *transaction = id;
    }
    if (command == RTMP_PUBLISHER_CREATE_STREAM) {
        publisher->CreateStreamTransaction = id;
    }
    const uint32_t stream = row->OnStream ? publisher->Client->StreamId : 0;
    if (out.Overrun) {
        free(payload);
        return LogNotSent(publisher, __func__, row->Name);
    }
    if (SendOwn(publisher->Client, RTMP_TYPE_AMF0_COMMAND, kCommandChunkStreamId, stream, payload,
                static_cast<uint32_t>(room - RoomIn(&out))) != 0) {
        return LogNotSent(publisher, __func__, row->Name);
    }
    return 0;
}

int32_t RtmpPublisherSendData(RtmpPublisher *publisher, const uint8_t *values, uint32_t length)
{
    RtmpClient *client = publisher->Client;
    uint8_t *copy = NewArray<uint8_t>(length);
    if (copy == nullptr) {
        return LogNotSent(publisher, __func__, "data");
    }
    memcpy(copy, values, length);
    if (SendOwn(client, RTMP_TYPE_AMF0_DATA, kDataChunkStreamId, client->StreamId, copy, length) != 0) {
        return LogNotSent(publisher, __func__, "data");
    }
    return 0;
}

int32_t RtmpPublisherSendMetaData(RtmpPublisher *publisher)
{
    RtmpSession *session = LoadShared(&publisher->Client->Session);
    if (session == nullptr || LoadShared(&session->CodecInfo) == nullptr) {
        return LogNotSent(publisher, __func__, "metadata");
    }
    uint8_t room[kMetadataRoom];
    ByteWriter out = WriterOver(room, sizeof room);
    PutTextValue(&out, "@setDataFrame");
    WriteWholeMetadata(session, &out);
    if (out.Overrun) {
        return LogNotSent(publisher, __func__, "metadata");
    }
    return RtmpPublisherSendData(publisher, room, static_cast<uint32_t>(sizeof room - RoomIn(&out)));
}
