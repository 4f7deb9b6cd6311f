#include "failing/every_call_rig.h"

#include "net/client_state.h"
#include "state/client.h"
#include "support/host_fakes.h"
#include "support/session_rig.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace every_call {
namespace {

// The handle is the client's end of the pair. Not through recv and send, which fail on their own account.
void ConnectTls()
{
    HostFakes::get().sslRead = [](void *handle, void *buffer, int length) {
        return static_cast<int>(
            recvfrom(*static_cast<int *>(handle), buffer, static_cast<size_t>(length), 0, nullptr, nullptr));
    };
    HostFakes::get().sslWrite = [](void *handle, const void *buffer, int length) {
        return static_cast<int>(sendto(*static_cast<int *>(handle), buffer, static_cast<size_t>(length),
                                       MSG_NOSIGNAL, nullptr, 0));
    };
}

std::unique_ptr<Peer> Connected(RtmpServer *server, bool overTls)
{
    std::unique_ptr<Peer> peer = std::make_unique<Peer>();
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, peer->ends), 0);
    peer->client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, peer->ends[0], "127.0.0.1", 0,
                                       overTls ? &peer->ends[0] : nullptr);
    return peer;
}

} // namespace

Host::Host(Trial &trial, const HostSetup &setup)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    HostFakes::get().reset();
    ConnectTls();
    server = RtmpServerCreate(trial.logger(), "ANY", 0, 0, 0, 4096, nullptr);
    EXPECT_EQ(RtmpPlayerSettings(server, setup.players), 0);
    if (setup.road == Road::Steady) {
        EXPECT_EQ(RtmpServiceSettings(server, nullptr), 0);
    }
    session = RtmpSessionCreate(server, "live", nullptr);
    if (setup.sender) {
        EXPECT_EQ(RtmpSenderSettings(session, setup.mode, 0, 0, 1, 255, 5, 10, 10), 0);
    }
    if (setup.media) {
        EXPECT_EQ(AddMedia(session), 0);
    }
}

Host::~Host()
{
    for (const std::unique_ptr<Peer> &peer : peers_) {
        close(peer->ends[1]); // first: whoever writes to it comes back
        if (peer->client != nullptr) {
            FreeClientRecord(peer->client);
        }
        close(peer->ends[0]);
    }
    if (server != nullptr) {
        testing::internal::CaptureStdout(); // where the last lines go
        EXPECT_EQ(RtmpServerDestroy(server), 0);
        (void)testing::internal::GetCapturedStdout();
    }
    HostFakes::get().reset();
}

Peer &Host::joined(uint32_t state, bool overTls)
{
    Peer &peer = alone(state, overTls);
    EXPECT_EQ(AddClientInSession(session, peer.client), 0);
    return peer;
}

Peer &Host::alone(uint32_t state, bool overTls)
{
    peers_.push_back(Connected(server, overTls));
    RtmpClient *client = peers_.back()->client;
    client->StreamId = 1;
    client->StatusChunkStreamId = 5;
    client->AudioChunkStreamId = 6;
    client->PlayerFlags = server->PlayerFlags;
    SetClientState(client, state);
    return *peers_.back();
}

int AddMedia(RtmpSession *session)
{
    const VideoMediaInfo video = {
        7, 0, {0, 0, 0}, static_cast<int32_t>(kRigVideoConfig.size()), kRigVideoConfig.data()};
    const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(kRigAudioConfig.size()),
                                  kRigAudioConfig.data()};
    return RtmpAddMediaInfo(session, &video, &audio);
}

RtmpRecvPkt *Received(uint8_t type, const Bytes &payload)
{
    RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    pkt->ChunkStreamId = 3;
    pkt->Complete = 1;
    pkt->MsgTypeId = type;
    pkt->MsgLength = pkt->ReceivedBytes = static_cast<uint32_t>(payload.size());
    pkt->PayloadData = static_cast<uint8_t *>(calloc(1, payload.size() + 1));
    memcpy(pkt->PayloadData, payload.data(), payload.size());
    return pkt;
}

RtmpRecvPkt *Parsed(RtmpClient *client, uint8_t type, const Bytes &payload, uint32_t *kind)
{
    RtmpRecvPkt *pkt = Received(type, payload);
    *kind = 0;
    EXPECT_EQ(ParseRequestMsg(client, pkt, kind), 0);
    return pkt;
}

} // namespace every_call
