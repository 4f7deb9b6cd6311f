#include "failing/every_call_rig.h"

#include "delivery/steady/steady_sender.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "net/platform.h"
#include "serve/serve.h"
#include "serve/steady_serve.h"
#include "state/client.h"
#include "state/server_hold.h"
#include "steady/line.h"
#include "steady/message_ring.h"
#include "support/host_fakes.h"
#include "support/session_rig.h"
#include "support/wait.h"

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
        EXPECT_EQ(AddRigMedia(session), 0);
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

void Host::served(uint32_t state)
{
    Peer &peer = alone(state);
    RtmpClient *client = peer.client;
    peer.client = nullptr;
    if (session->Stream == nullptr) {
        EXPECT_EQ(AddClientInSession(session, client), 0);
        RtmpThread thread;
        EXPECT_EQ(RtmpThreadCreate(&thread, ServeRtmpClient, client), 0);
        EXPECT_TRUE(WaitUntil([&] { return LoadShared(&client->ServeThread) != 0; }));
        return;
    }
    client->ThreadOwner = THREAD_OWNER_ITSELF; // as of a connection that has been accepted
    peer.ends[0] = -1;                         // its thread closes it
    EXPECT_EQ(NewLine(server->Service, client, 1), 0);
    EXPECT_EQ(AddClientInSession(session, client), 0);
    HoldServer(server);
    EXPECT_EQ(RtmpDetachedThreadCreate(ServeSteadily, client), 0);
}

int DestroySessionAgain(Host &host)
{
    if (ValidateRtmpSessionHandle(host.server, host.session) == 0) {
        return RtmpSessionDestroy(host.session);
    }
    // Whoever was the last to leave may not have given its lock back yet.
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&host.server->Holders) == 1; }));
    FreeRest(host.session);
    return RtmpSessionDestroy(RtmpSessionCreate(host.server, "live", nullptr));
}

void FreeRest(RtmpSession *session)
{
    if (session->Stream != nullptr) {
        FreeSteadySender(session->Stream);
        FreeSteadyStream(session->Stream);
    }
    free(session->Pieces);
    free(session->Name);
    free(session);
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
