// The serve loop before a player that has shaken hands and then sends the input: chunk reader, dispatch,
// commands, user control, replies, frames in between, and the end of the connection. The first three bytes
// choose the rest:
//
//     RTMP_PLAYERS_...:8
//     RTMP_PLAYERS_...:3 (high)  steady road:1  how far the player is:2  session:2
//     pieces:3  frames:2  refused by the host:1  chunk size of 4096:1  TLS:1
//
// dictionary: rtmp
// max_len: 4096
#include "net/client_state.h"
#include "rtmpcast/player.h"
#include "serve/serve.h"
#include "serve/steady_serve.h"
#include "state/client.h"
#include "state/server_hold.h"
#include "steady/line.h"
#include "support/chunk_check.h"
#include "support/chunk_mutator.h"
#include "support/fuzz_session.h"
#include "support/fuzz_tls.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"

#include <cstdlib>

namespace {

struct ServeChoice {
    uint32_t flags;
    bool isSteady;
    uint32_t said; // commands of the usual dialogue that are in front of the input
    FuzzedSession session;
    size_t piece;
    uint32_t frames; // of each three reads that find nothing
    bool isRefused;
    int32_t chunkSize;
    bool isOverTls;
};

ServeChoice TakeServeChoice(FuzzInput *input)
{
    static const size_t pieces[] = {0, 1, 2, 11, 64, 128, 500, 4000};
    const uint32_t low = input->byte();
    const uint32_t middle = input->byte();
    const uint32_t high = input->byte();
    return {
        low | (middle & 7) << 8, (middle & 8) != 0, middle >> 4 & 3,  static_cast<FuzzedSession>(middle >> 6),
        pieces[high & 7],        high >> 3 & 3,     (high & 32) != 0, (high & 64) != 0 ? 4096 : 128,
        (high & 128) != 0};
}

// What a player says until its media begin, up to the command before the input.
const Bytes &Dialogue(uint32_t commands)
{
    using namespace wire;
    static const Bytes connect = Chunks({.payload = ConnectCommand("live")});
    static const Bytes create = connect + Chunks({.payload = CreateStreamCommand()});
    static const Bytes play =
        create + Chunks({.payload = PlayCommand(kFuzzedName), .chunkStream = 8, .stream = 1});
    static const Bytes dialogues[] = {{}, connect, create, play};
    return dialogues[commands];
}

// As the serve thread of the exact road, on this one.
void ServeExactly(RtmpClient *client)
{
    enum Round round;
    do {
        round = ServeRound(client);
    } while (round == ROUND_AGAIN);
    if (round == ROUND_CLOSED || DestroyRtmpClient(client) != 0) {
        FreeClientRecord(client);
    }
}

void ServeOnSteadyRoad(RtmpClient *client, FuzzPeer *peer)
{
    RtmpServer *server = client->Server;
    client->ThreadOwner = THREAD_OWNER_ITSELF;
    if (NewLine(server->Service, client, 1) != 0) {
        abort();
    }
    peer->giveSocketAway();
    HoldServer(server);
    (void)ServeSteadily(client);
}

void Serve(RtmpClient *client, FuzzPeer *peer, bool isSteady)
{
    SetClientState(client, CLIENT_STATE_HANDSHAKE_DONE);
    if (isSteady) {
        ServeOnSteadyRoad(client, peer);
    } else {
        ServeExactly(client);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput input(data, size);
    const ServeChoice choice = TakeServeChoice(&input);
    const FuzzedStage stage(FuzzedServer(choice.isSteady, choice.chunkSize, choice.flags), choice.session);
    HostFakes::get().viewer = [&](const ViewerCall &call) {
        return choice.isRefused && call.what == "plays";
    };
    FuzzPeer peer;
    FuzzTls tls(&peer);
    uint32_t reads = 0;
    uint32_t sent = 0;
    peer.beforeRead = [&] {
        if (stage.session != nullptr && reads++ % 3 < choice.frames) {
            SendFuzzedFrame(&peer, stage.session, sent++);
        }
    };
    peer.send(Dialogue(choice.said));
    peer.send(input, choice.piece);
    RtmpClient *client = CreateNewRtmpClient(stage.server, RTMP_CONN_RTMP, peer.socket(), "127.0.0.1", 0,
                                             choice.isOverTls ? tls.handle() : nullptr);
    client->PlayerFlags = choice.flags;
    Serve(client, &peer, choice.isSteady);
    if ((choice.flags & RTMP_PLAYERS_CHUNKS_OUT) != 0) {
        // Whoever asks before "connect" is answered in chunks of a size that it has not been told.
        ExpectChunks(peer.written().data(), peer.written().size(), static_cast<uint32_t>(choice.chunkSize));
    }
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t most, unsigned seed)
{
    constexpr size_t choice = 3; // bytes
    return MutateChunks(data, size, most, choice, seed);
}
