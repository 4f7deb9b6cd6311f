#include "publishing_host.h"

#include <sys/socket.h>

#include <cstdlib>

namespace {

constexpr uint32_t kCommandChunkStream = 3;
constexpr size_t kPacket = 1536;

// A packet that no list has taken is the host's.
void FreeUnstored(RtmpServer *server, RtmpRecvPkt *message)
{
    if (message->MsgTypeId == RTMP_TYPE_AMF0_COMMAND && message->Result.Amf != nullptr) {
        FreeAmfObject(server, message->Result.Amf, 0);
        free(message->Result.Amf);
    }
    free(message->PayloadData);
    free(message);
}

// Chunks come one at a time, those of several messages interleaved: read until one completes its message.
RtmpRecvPkt *ReadWholeMessage(RtmpClient *client)
{
    RtmpRecvPkt *message = nullptr;
    do {
        message = ReadRtmpMessage(client);
        if (message == nullptr) {
            return nullptr;
        }
        if (IsRecvStrmPktExists(client, message) != 0 && AddRecvPkt(client, message) != 0) {
            FreeUnstored(client->Server, message);
            return nullptr;
        }
    } while (message->Complete != 1);
    return message;
}

int SendWhole(int socket, const uint8_t *bytes, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t sent = send(socket, bytes + done, count - done, MSG_NOSIGNAL);
        if (sent < 0) {
            return -1;
        }
        done += static_cast<size_t>(sent);
    }
    return 0;
}

int ReceiveWhole(int socket, uint8_t *bytes, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t got = recv(socket, bytes + done, count - done, 0);
        if (got <= 0) {
            return -1;
        }
        done += static_cast<size_t>(got);
    }
    return 0;
}

// A command of the host's own. The values are taken over; the message is the library's once it is sent.
int SendCommand(RtmpClient *client, AmfObject *values, uint32_t stream)
{
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    const uint32_t size = GetAmfEncBuffSize(client->Server, values);
    uint8_t *payload = EncodeAmfBuffer(client->Server, static_cast<int32_t>(size), values);
    FreeAmfObject(client->Server, values, 1);
    if (message == nullptr || payload == nullptr) {
        free(message);
        free(payload);
        return -1;
    }
    message->ChunkStreamId = kCommandChunkStream;
    message->MsgTypeId = RTMP_TYPE_AMF0_COMMAND;
    message->MsgStreamId[0] = static_cast<uint8_t>(stream); // little-endian
    message->PayloadLength = size;
    message->PayloadData = payload;
    return SendMsgToClient(client, message, RTMP_MSG_CONNECT); // any kind but 17 and 42, which are special
}

int SendGenerated(RtmpClient *client, uint32_t kind)
{
    RtmpSendPkt *message = GenerateRtmpMsg(client, nullptr, kind);
    return message != nullptr ? SendMsgToClient(client, message, kind) : -1;
}

} // namespace

Handled HandleOne(RtmpClient *client)
{
    Handled handled = {ReadWholeMessage(client), 0, 0, 0};
    if (handled.message == nullptr) {
        return handled; // the peer has left, or what it sent is no chunk stream; the log says which
    }
    handled.parsed = ParseRequestMsg(client, handled.message, &handled.kind);
    if (handled.parsed == 0) {
        handled.answered = ProcessSend(client, handled.message, handled.kind);
    }
    return handled;
}

void HandleUntilOver(RtmpClient *client)
{
    Handled handled = {};
    do {
        // What a service has to say lies in client->PublishCtx now. RTMP_MSG_UNSUPPORTED needs no reply here:
        // statistics are reported with this kind, and what else it stands for a publisher may overlook.
        handled = HandleOne(client);
    } while (handled.message != nullptr && handled.parsed == 0);
}

void EndPublisher(RtmpClient *client)
{
    if (DestroyRtmpClient(client) == 0) {
        return;
    }
    // The service never sent a message, or was never sent one. Such a client has joined no session: frames
    // are started only after an answer.
    if (client->SendPktCount > 0) {
        (void)RemoveSendPkt(client, nullptr);
    }
    free(client);
}

// C0 and C1 out, S0, S1 and S2 in, S1 back as C2.
int ConnectHandshake(int socket)
{
    uint8_t packets[1 + 2 * kPacket] = {3};
    if (SendWhole(socket, packets, 1 + kPacket) != 0 || ReceiveWhole(socket, packets, 1 + 2 * kPacket) != 0) {
        return -1;
    }
    return SendWhole(socket, packets + 1, kPacket);
}

int AnnounceChunkSize(RtmpClient *client)
{
    return SendGenerated(client, RTMP_MSG_SET_CHUNK_SIZE);
}

int SendConnect(RtmpClient *client, const char *app, double transaction)
{
    RtmpServer *server = client->Server;
    AmfObject properties = {};
    AmfObject values = {};
    (void)WriteAmfString(server, &properties, "app", app); // without memory the command comes out short,
    (void)WriteAmfString(server, &properties, "type", "nonprivate"); // and the service refuses it
    (void)WriteAmfString(server, &values, nullptr, "connect");
    (void)WriteAmfNumber(server, &values, nullptr, transaction);
    (void)WriteAmfObject(server, &values, &properties);
    return SendCommand(client, &values, 0);
}

int SendCreateStream(RtmpClient *client, double transaction)
{
    RtmpServer *server = client->Server;
    AmfObject values = {};
    (void)WriteAmfString(server, &values, nullptr, "createStream");
    (void)WriteAmfNumber(server, &values, nullptr, transaction);
    (void)WriteAmfNull(server, &values);
    return SendCommand(client, &values, 0);
}

int SendPublish(RtmpClient *client, const char *stream, double transaction)
{
    RtmpServer *server = client->Server;
    AmfObject values = {};
    (void)WriteAmfString(server, &values, nullptr, "publish");
    (void)WriteAmfNumber(server, &values, nullptr, transaction);
    (void)WriteAmfNull(server, &values);
    (void)WriteAmfString(server, &values, nullptr, stream);
    (void)WriteAmfString(server, &values, nullptr, "live");
    return SendCommand(client, &values, client->StreamId);
}

uint32_t StreamIdIn(RtmpServer *server, const RtmpRecvPkt *result)
{
    if (result == nullptr || result->MsgTypeId != RTMP_TYPE_AMF0_COMMAND) {
        return 0;
    }
    AmfObject *values = result->Result.Amf;
    if (values == nullptr || values->count < 4) {
        return 0;
    }
    AmfObjProperty *id = GetAmfProp(server, values, nullptr, 3); // behind name, transaction and null
    return GetAmfPropType(server, id) == AMF_NUMBER ? static_cast<uint32_t>(GetAmfPropNumber(server, id)) : 0;
}

int StartFrames(RtmpClient *client, RtmpSession *session)
{
    client->AudioChunkStreamId = client->StatusChunkStreamId + 1; // video goes on the first of the two
    if (AddClientInSession(session, client) != 0 || SendGenerated(client, RTMP_MSG_META_DATA) != 0 ||
        SendGenerated(client, RTMP_MSG_VIDEO) != 0 || SendGenerated(client, RTMP_MSG_AUDIO) != 0) {
        return -1;
    }
    // Last: from here on every frame goes out, on the thread that sends.
    __atomic_store_n(&client->State, CLIENT_STATE_PLAY_DONE, __ATOMIC_RELEASE);
    return 0;
}
