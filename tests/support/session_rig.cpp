#include "support/session_rig.h"

#include "net/client_state.h"
#include "state/client.h"
#include "support/produced.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

const Bytes kRigVideoConfig = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40,
                               0x16, 0xE8, 0x40, 0, 0,    0,    1,    0x68, 0xCE, 0x3C, 0x80};
const Bytes kRigAudioConfig = {0x12, 0x10};

int AddRigMedia(RtmpSession *session, uint32_t media)
{
    const VideoMediaInfo video = {
        7, 0, {0, 0, 0}, static_cast<int32_t>(kRigVideoConfig.size()), kRigVideoConfig.data()};
    const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(kRigAudioConfig.size()),
                                  kRigAudioConfig.data()};
    return RtmpAddMediaInfo(session, media != RTMP_MEDIA_AUDIO ? &video : nullptr,
                            media != RTMP_MEDIA_VIDEO ? &audio : nullptr);
}

SessionRig::SessionRig(int32_t chunkSize, uint32_t media, uint32_t senderMode)
    : SessionRig(RigSetup{.chunkSize = chunkSize, .media = media, .senderMode = senderMode})
{
}

SessionRig::SessionRig(const RigSetup &setup) : setup_(setup)
{
    HostFakes::get().reset();
    int err = 0;
    server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, setup.chunkSize, &err);
    if (server == nullptr) {
        throw std::runtime_error("no server: " + std::to_string(err));
    }
    server->ChunkSize = static_cast<uint32_t>(setup.chunkSize);
    if (setup.steady && RtmpServiceSettings(server, nullptr) != 0) {
        throw std::runtime_error("no steady road");
    }
    session = addSession("live");
}

RtmpSession *SessionRig::addSession(const char *name)
{
    int err = 0;
    RtmpSession *made = RtmpSessionCreate(server, name, &err);
    if (made == nullptr) {
        throw std::runtime_error("no session: " + std::to_string(err));
    }
    RtmpSenderSettings(made, setup_.senderMode, 0, 0, 1, 255, setup_.interval, setup_.queue, setup_.queue);
    if (setup_.media != RTMP_MEDIA_NONE && AddRigMedia(made, setup_.media) != 0) {
        throw std::runtime_error("no media");
    }
    return made;
}

SessionRig::~SessionRig()
{
    destroySession();
    if (server != nullptr) {
        RtmpServerDestroy(server);
    }
}

RigClient SessionRig::addClient(uint32_t state)
{
    return addClientTo(session, state);
}

RigClient SessionRig::addClientTo(RtmpSession *to, uint32_t state)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        throw std::runtime_error("no socket pair");
    }
    RtmpClient *client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
    if (client == nullptr || AddClientInSession(to, client) != 0) {
        throw std::runtime_error("no client");
    }
    client->StreamId = 1;
    client->StatusChunkStreamId = 5;
    client->AudioChunkStreamId = 6;
    SetClientState(client, state);
    clients_.push_back({client, ends[1]});
    return clients_.back();
}

void SessionRig::removeClient(RtmpClient *client)
{
    const auto found = std::find_if(clients_.begin(), clients_.end(),
                                    [&](const RigClient &each) { return each.client == client; });
    const int socket = client->SocketClosed ? -1 : client->Socket;
    close(found->peer); // first: whoever writes to it comes back
    clients_.erase(found);
    FreeClientRecord(client);
    if (socket != -1) {
        close(socket);
    }
}

void SessionRig::dropClients()
{
    while (!clients_.empty()) {
        removeClient(clients_.back().client);
    }
}

void SessionRig::destroySession()
{
    dropClients();
    if (session != nullptr) {
        RtmpSessionDestroy(session);
        session = nullptr;
    }
}

Bytes ReadBytes(int fd, size_t count, int milliseconds)
{
    Bytes out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (out.size() < count) {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready = {fd, POLLIN, 0};
        if (rest.count() <= 0 || poll(&ready, 1, static_cast<int>(rest.count())) <= 0) {
            break;
        }
        uint8_t buffer[65536];
        const ssize_t got = recv(fd, buffer, std::min(sizeof buffer, count - out.size()), 0);
        if (got <= 0) {
            break;
        }
        out.insert(out.end(), buffer, buffer + got);
    }
    produced::Texts("wire").note(out.data(), out.size());
    return out;
}

Bytes DrainBytes(int fd)
{
    Bytes out;
    uint8_t buffer[65536];
    ssize_t got;
    while ((got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
        out.insert(out.end(), buffer, buffer + got);
    }
    produced::Texts("wire").note(out.data(), out.size());
    return out;
}
