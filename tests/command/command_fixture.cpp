#include "command_fixture.h"

#include "amf/object.h"
#include "command/user_control.h"

#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace received {

namespace {

std::string U16(size_t value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string U32(size_t value)
{
    return U16(value >> 16) + U16(value);
}

const std::string kObjectEnd("\0\0\x09", 3);

Amf Members(const std::string &head, std::initializer_list<std::pair<std::string, Amf>> members)
{
    Amf out = {head, {head.size()}};
    for (const std::pair<std::string, Amf> &member : members) {
        out.bytes += U16(member.first.size()) + member.first;
        for (const size_t whole : member.second.wholeAt) {
            out.wholeAt.push_back(out.bytes.size() + whole);
        }
        out.bytes += member.second.bytes;
    }
    out.bytes += kObjectEnd;
    out.wholeAt.push_back(out.bytes.size());
    return out;
}

Amf Whole(const std::string &bytes)
{
    return {bytes, {bytes.size()}};
}

} // namespace

Amf Number(double value)
{
    uint64_t bits;
    static_assert(sizeof bits == sizeof value);
    memcpy(&bits, &value, sizeof bits);
    return Whole(std::string(1, '\0') + U32(bits >> 32) + U32(bits & 0xFFFFFFFF));
}

Amf Boolean(bool value)
{
    return Whole({'\x01', value ? '\x01' : '\0'});
}

Amf String(const std::string &text)
{
    return Whole('\x02' + U16(text.size()) + text);
}

Amf Null()
{
    return Whole("\x05");
}

Amf Object(std::initializer_list<std::pair<std::string, Amf>> members)
{
    return Members("\x03", members);
}

Amf EcmaArray(std::initializer_list<std::pair<std::string, Amf>> members)
{
    return Members('\x08' + U32(members.size()), members);
}

Amf StrictArray(std::initializer_list<Amf> elements)
{
    std::string bytes = '\x0A' + U32(elements.size());
    for (const Amf &element : elements) {
        bytes += element.bytes;
    }
    return Whole(bytes);
}

Amf Message(std::initializer_list<Amf> values)
{
    Amf out = {"", {0}};
    for (const Amf &value : values) {
        for (const size_t whole : value.wholeAt) {
            out.wholeAt.push_back(out.bytes.size() + whole);
        }
        out.bytes += value.bytes;
    }
    return out;
}

bool IsZero(const PublishCtx &context)
{
    const PublishCtx zero = {};
    return memcmp(&context, &zero, sizeof zero) == 0;
}

CommandFixture::CommandFixture()
{
    HostFakes::get().reset();
    wrapped::Reset();
    server.Logger = log.get();
    server.ChunkSize = 4096;
    server.LiveSessionListLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
    session.Name = strdup("live");
    session.MediaInfoAdded = 1;
    session.Server = &server;
    session.ClientListLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
    session.MemberLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
    session.MemberLeft = PTHREAD_COND_INITIALIZER;
    server.LiveSessionHead = &session;
    server.LiveSessionTail = &session;
    server.LiveSessionCount = 1;

    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        abort();
    }
    peer = pair[1];
    client = CreateNewRtmpClient(&server, RTMP_CONN_RTMP, pair[0], "127.0.0.1", 1935, nullptr);
}

CommandFixture::~CommandFixture()
{
    wrapped::Reset();
    const int ours = client->Socket;
    if (client->Session != nullptr) {
        (void)UnlinkClient(&session, client);
    }
    FreeClientRecord(client);
    close(ours);
    close(peer);
    free(session.Name);
}

void CommandFixture::withContext()
{
    contextStorage_ = std::make_unique<PublishCtx>();
    memset(contextStorage_.get(), 0, sizeof(PublishCtx));
    context = contextStorage_.get();
    client->PublishCtx = context;
}

void CommandFixture::joinSession()
{
    (void)LinkClient(&session, client);
}

Parsed CommandFixture::run(const std::string &payload, uint32_t type)
{
    RtmpRecvPkt pkt = {};
    pkt.MsgTypeId = type;
    pkt.ChunkStreamId = 3;
    pkt.MsgLength = static_cast<uint32_t>(payload.size());
    pkt.PayloadData = static_cast<uint8_t *>(malloc(payload.size()));
    memcpy(pkt.PayloadData, payload.data(), payload.size());

    Parsed out = {0, kUntouched, -1, 0, 0};
    if (type == RTMP_TYPE_USER_CONTROL) {
        out.result = ParseUsrCtrlMsgReq(client, &pkt, &out.kind);
        out.event = pkt.Result.Event.EventType;
        out.eventValue = pkt.Result.Event.EventValue;
    } else {
        out.result = ParseCmdMsgReq(client, &pkt, &out.kind);
        if (pkt.Result.Amf != nullptr) {
            out.values = pkt.Result.Amf->count;
            FreeAmfObject(&server, pkt.Result.Amf, 0);
            free(pkt.Result.Amf);
        }
    }
    free(pkt.PayloadData);
    return out;
}

Parsed CommandFixture::parse(const std::string &payload)
{
    return run(payload, RTMP_TYPE_AMF0_COMMAND);
}

Parsed CommandFixture::parse(std::initializer_list<Amf> values)
{
    return parse(Message(values).bytes);
}

Parsed CommandFixture::parseEvent(const std::string &payload)
{
    return run(payload, RTMP_TYPE_USER_CONTROL);
}

std::string CommandFixture::sent()
{
    char buffer[4096];
    const ssize_t count = recv(peer, buffer, sizeof buffer, MSG_DONTWAIT);
    return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : "";
}

std::string CommandFixture::error(const std::string &text)
{
    return "3 ERROR: ParseCmdMsgReq: " + text;
}

std::string CommandFixture::info(const std::string &text)
{
    return "6 INFO: ParseCmdMsgReq: " + text;
}

} // namespace received
