#include "command_fixture.h"

#include "amf/object.h"
#include "command/user_control.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace received {

bool IsZero(const PublishCtx &context)
{
    const PublishCtx zero = {};
    return memcmp(&context, &zero, sizeof zero) == 0;
}

CommandFixture::CommandFixture()
{
    calls::reset();
    server.ChunkSize = 4096;
    session.Name = strdup("live");
    session.MediaInfoAdded = 1;
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
    calls::reset();
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

Parsed CommandFixture::run(const Bytes &payload, uint32_t type)
{
    produced::Texts("sent").note(payload.data(), payload.size());
    RtmpRecvPkt pkt = {};
    pkt.MsgTypeId = type;
    pkt.ChunkStreamId = 3;
    pkt.MsgLength = static_cast<uint32_t>(payload.size());
    pkt.PayloadData = static_cast<uint8_t *>(malloc(payload.size()));
    std::copy(payload.begin(), payload.end(), pkt.PayloadData);

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

Parsed CommandFixture::parse(const Bytes &payload)
{
    return run(payload, RTMP_TYPE_AMF0_COMMAND);
}

Parsed CommandFixture::parse(std::initializer_list<amf0::Value> values)
{
    return parse(amf0::Values(values).bytes);
}

Parsed CommandFixture::parseEvent(const Bytes &payload)
{
    return run(payload, RTMP_TYPE_USER_CONTROL);
}

Bytes CommandFixture::sent()
{
    uint8_t buffer[4096];
    const ssize_t count = recv(peer, buffer, sizeof buffer, MSG_DONTWAIT);
    produced::Texts("wire").note(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    return count > 0 ? Bytes(buffer, buffer + count) : Bytes();
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
