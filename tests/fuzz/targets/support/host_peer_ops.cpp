// Operations of players, which come over a listener or are served on one end of a socket pair, and of clients
// that the host makes, reads and answers itself.
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/server_hold.h"
#include "support/host_world.h"
#include "support/unread.h"
#include "support/wire_replies.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace host {
namespace {

constexpr size_t kMostPlayers = 3, kMostClients = 2, kMostConnections = 40;
constexpr int kHandshakeMs = 300;

using namespace amf0;

Bytes CommandOf(HostSaid said, uint8_t argument)
{
    switch (said) {
    case HostSaid::Connect:
        return wire::ConnectCommand(argument == 0 ? "live" : NameOf(argument));
    case HostSaid::CreateStream:
        return wire::CreateStreamCommand();
    case HostSaid::Play:
        return wire::PlayCommand(NameOf(argument));
    case HostSaid::Pause:
    case HostSaid::Unpause:
        return wire::PauseCommand(said == HostSaid::Pause);
    case HostSaid::DeleteStream:
        return wire::DeleteStreamCommand();
    case HostSaid::Seek:
        return Values({String("seek"), Number(9), Null(), Number(1)}).bytes;
    case HostSaid::Publish:
        return Values({String("publish"), Number(9), Null(), String("a")}).bytes;
    case HostSaid::Result:
        return Values(
                   {String(argument < 128 ? "_result" : "_error"), Number(argument & 127), Null(), Number(1)})
            .bytes;
    case HostSaid::Status:
        return wire::Status(argument == 0 ? "status" : "error", "NetStream.Publish.Start", "text");
    default:
        return Values({String("pong"), Number(argument), Null()}).bytes;
    }
}

// Control messages: type, and four bytes or six.
Bytes ControlOf(HostSaid said, uint8_t argument)
{
    const uint32_t sizes[] = {128, 1, 4096, 65536, 0, 0x7FFFFFFF};
    const uint32_t value = sizes[argument % std::size(sizes)];
    if (said == HostSaid::PingRequest) {
        Bytes event = Hex("0006");
        Append(event, BigEndian(value, 4));
        return wire::Chunks({.payload = event, .type = 4, .chunkStream = 2});
    }
    const uint8_t type = said == HostSaid::SetChunkSize ? 1 : 5;
    return wire::Chunks({.payload = BigEndian(value, 4), .type = type, .chunkStream = 2});
}

// A connection of a socket pair whose serve thread is the library's, in a state behind the handshake.
int StartPair(RtmpServer *server, uint8_t how)
{
    constexpr uint32_t states[] = {CLIENT_STATE_INIT, CLIENT_STATE_HANDSHAKE_DONE, CLIENT_STATE_CONNECT_DONE,
                                   CLIENT_STATE_CREATESTREAM_DONE};
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        Break("no socket pair");
    }
    RtmpClient *client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
    SetClientState(client, states[how % std::size(states)]);
    client->StreamId = 1;
    pthread_t thread;
    HoldServer(server);
    if (pthread_create(&thread, nullptr, ServeAcceptedClient, client) != 0) {
        Break("no thread");
    }
    return ends[1];
}

// Null: there was no connection, or it ended in front of its handshake's end.
std::unique_ptr<wire::ScriptedPeer> Connect(uint16_t port, bool isSigned, bool shakesHands)
{
    try {
        auto peer = std::make_unique<wire::ScriptedPeer>(port, kHandshakeMs);
        if (shakesHands) {
            peer->handshake(isSigned ? wire::HandshakeOptions{} : wire::kPlainHandshake);
        }
        return peer;
    } catch (const wire::PeerError &) {
        return nullptr;
    }
}

void SeatPlayer(World &world, int fd)
{
    world.players.push_back(std::make_unique<Player>(Player{HostPeers::get().sit(fd)}));
}

uint16_t PortOf(const Server &server, uint8_t which)
{
    if (which == 1) {
        return server.isSteady ? server.tunnelPort : uint16_t(0); // on the exact road its threads never end
    }
    return which == 2 ? server.tlsPort : server.port;
}

void ForgetRequest(Client *client)
{
    client->request = nullptr;
    client->kind = 0;
}

void SayTo(const Client &client, const Bytes &bytes)
{
    HostPeers::get().send(client.seat, bytes);
}

// One whole message, or none: the input is at its end.
RtmpRecvPkt *HearMessage(Client *client)
{
    constexpr int mostChunks = 64;
    for (int i = 0; i < mostChunks && UnreadBytes(client->fd) > 0; i++) {
        RtmpRecvPkt *pkt = ReadRtmpMessage(client->client);
        if (pkt == nullptr) {
            return nullptr;
        }
        if (IsRecvStrmPktExists(client->client, pkt) != 0) {
            Expect("AddRecvPkt", AddRecvPkt(client->client, pkt), {0});
        }
        if (pkt->Complete == 1) {
            return pkt;
        }
    }
    return nullptr;
}

void HandleMessage(Client *client, RtmpRecvPkt *pkt, bool answers)
{
    uint32_t kind = 0;
    const int result = ParseRequestMsg(client->client, pkt, &kind);
    Expect("ParseRequestMsg", result, {0, -1, RTMP_ERR_STREAM_NOT_FOUND});
    if (result != 0 || kind == RTMP_MSG_UNSUPPORTED) {
        return;
    }
    client->request = pkt;
    client->kind = kind;
    if (answers) {
        Expect("ProcessSend", ProcessSend(client->client, pkt, kind), {0, -1});
    }
}

// What a message is generated from, where its kind needs it; null: there is none.
RtmpRecvPkt *RequestFor(const Client &client, uint32_t kind, bool *isNeeded)
{
    const bool isEvent = kind == RTMP_MSG_PING_RESPONSE;
    *isNeeded = isEvent || kind == RTMP_MSG_CONNECT || kind == RTMP_MSG_CREATE_STREAM ||
                kind == RTMP_MSG_ON_BW_DONE || kind == RTMP_MSG_CONNECT_REJECTED;
    const uint32_t type = isEvent ? RTMP_TYPE_USER_CONTROL : RTMP_TYPE_AMF0_COMMAND;
    return client.request != nullptr && client.request->MsgTypeId == type ? client.request : nullptr;
}

} // namespace

Bytes Said(HostSaid said, uint8_t argument)
{
    switch (said) {
    case HostSaid::PingRequest:
    case HostSaid::SetChunkSize:
    case HostSaid::WindowAckSize:
        return ControlOf(said, argument);
    case HostSaid::HalfAMessage: {
        const Bytes whole = wire::Chunks({.payload = wire::PlayCommand(NameOf(argument))});
        return Slice(whole, 0, std::min<size_t>(argument, whole.size()));
    }
    default:
        return wire::Chunks({.payload = CommandOf(said, argument)});
    }
}

// kind:2 (0: socket pair, 1: second port, 2: TLS's port, 3: RTMP)  state, or signed and whole handshake:2
void PlayerJoins(World &world, FuzzInput &input)
{
    Server *server = world.server(input.byte());
    const uint8_t how = input.byte();
    if (server == nullptr || world.players.size() >= kMostPlayers ||
        world.exactConnections >= kMostConnections) {
        return;
    }
    const uint32_t before = World::rounds();
    if ((how & 3) == 0) {
        SeatPlayer(world, StartPair(server->server, how >> 2));
        world.exactConnections++; // its descriptor stays open
        return world.awaitRound(before);
    }
    const uint16_t port = PortOf(*server, how & 3);
    std::unique_ptr<wire::ScriptedPeer> peer;
    if (port != 0) {
        world.exactConnections += !server->isSteady;
        peer = Connect(port, (how & 4) != 0, (how & 8) == 0);
    }
    if (peer != nullptr) {
        SeatPlayer(world, dup(peer->socket.descriptor()));
    }
}

// what (HostSaid), and its argument
void PlayerSays(World &world, FuzzInput &input)
{
    const Player *player = world.player(input.byte());
    const HostSaid said = HostSaid(input.byte() % uint8_t(HostSaid::Count_));
    const uint8_t argument = input.byte();
    if (player != nullptr) {
        const uint32_t before = World::rounds();
        HostPeers::get().send(player->seat, Said(said, argument));
        world.awaitRound(before);
    }
}

void PlayerSendsBytes(World &world, FuzzInput &input)
{
    const Player *player = world.player(input.byte());
    const Bytes bytes = Blob(input);
    if (player != nullptr) {
        HostPeers::get().send(player->seat, bytes);
    }
}

void PlayerStopsReading(World &world, FuzzInput &input)
{
    const Player *player = world.player(input.byte());
    if (player != nullptr) {
        HostPeers::get().stopReading(player->seat);
    }
}

void PlayerReadsOn(World &world, FuzzInput &input)
{
    const Player *player = world.player(input.byte());
    if (player != nullptr) {
        HostPeers::get().readOn(player->seat);
    }
}

// 0: closes; 1: resets; 2: sends nothing more
void PlayerLeaves(World &world, FuzzInput &input)
{
    Player *player = world.player(input.byte());
    const uint8_t how = input.byte() % 3;
    if (player == nullptr) {
        return;
    }
    if (how == 2) {
        HostPeers::get().finish(player->seat);
    } else {
        world.leave(player, how == 1);
    }
}

void AwaitPlaying(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    if (session != nullptr) {
        const uint32_t before = World::rounds();
        world.awaitRound(IsAnyClientConnected(session->session) == 0 ? before - 1 : before);
    }
}

// kind of connection; whether it has what a publishing host gives it
void ClientCreate(World &world, FuzzInput &input)
{
    Server *server = world.server(input.byte());
    const uint8_t how = input.byte();
    int ends[2];
    if (server == nullptr || world.clients.size() >= kMostClients ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return;
    }
    RtmpClient *client = CreateNewRtmpClient(server->server, how & 1, ends[0], "10.0.0.1", 7, nullptr);
    if (client == nullptr) {
        Break("CreateNewRtmpClient");
    }
    PublishCtx *answers = nullptr;
    if ((how & 2) != 0) {
        answers = static_cast<PublishCtx *>(calloc(1, sizeof *answers));
        client->PublishCtx = answers;
    }
    world.clients.push_back(std::make_unique<Client>(
        Client{client, ends[0], HostPeers::get().sit(ends[1]), nullptr, 0U, answers}));
}

void ClientDestroy(World &world, FuzzInput &input)
{
    Client *client = world.client(input.byte());
    if (client == nullptr) {
        Expect("DestroyRtmpClient of null", DestroyRtmpClient(nullptr), {0});
        return;
    }
    world.destroyClient(client);
}

// the session; whether frames are to go to it
void ClientJoins(World &world, FuzzInput &input)
{
    const Client *client = world.client(input.byte());
    const Session *session = world.session(input.byte());
    const uint8_t plays = input.byte();
    if (client == nullptr || session == nullptr || client->client->Server != session->server ||
        (client->client->Session != nullptr && client->client->Session != session->session)) {
        return;
    }
    const HostPeers::Call waits;
    Expect("AddClientInSession", AddClientInSession(session->session, client->client), {0});
    client->client->StreamId = 1;
    client->client->AudioChunkStreamId = 6;
    if ((plays & 1) != 0) {
        SetClientState(client->client, CLIENT_STATE_PLAY_DONE);
    }
}

// 0: what HostSaid is, with its argument; 1: bytes, and nothing behind them; 2: answered, too
void ClientHears(World &world, FuzzInput &input)
{
    Client *client = world.client(input.byte());
    const uint8_t how = input.byte();
    const HostSaid said = HostSaid(input.byte() % uint8_t(HostSaid::Count_));
    const uint8_t argument = input.byte();
    const Bytes bytes = (how & 1) != 0 ? Blob(input) : Said(said, argument);
    if (client == nullptr) {
        return;
    }
    SayTo(*client, bytes);
    if ((how & 1) != 0 || said == HostSaid::HalfAMessage) {
        HostPeers::get().finish(client->seat);
    }
    ForgetRequest(client);
    const HostPeers::Call waits;
    constexpr int mostMessages = 8;
    RtmpRecvPkt *pkt = HearMessage(client);
    for (int i = 0; i < mostMessages && pkt != nullptr; i++) {
        HandleMessage(client, pkt, (how & 2) != 0);
        pkt = HearMessage(client);
    }
}

// 0: one is found; 1: it is removed; 2: all are; 3: one of the host's own is added
void ClientReceiveList(World &world, FuzzInput &input)
{
    Client *client = world.client(input.byte());
    const uint8_t how = input.byte() % 4;
    const int chunkStream = input.byte();
    if (client == nullptr) {
        return;
    }
    RtmpRecvPkt *stored = GetRecvPktFromList(client->client, chunkStream);
    RtmpRecvPkt stranger = {};
    Expect("IsRecvStrmPktExists", IsRecvStrmPktExists(client->client, &stranger), {-1});
    Expect("RemoveRecvPkt of a stranger", RemoveRecvPkt(client->client, &stranger), {-1});
    if (stored != nullptr) {
        Expect("IsRecvStrmPktExists", IsRecvStrmPktExists(client->client, stored), {0});
    }
    if (how == 0) {
        return;
    }
    ForgetRequest(client);
    if (how == 1 && stored != nullptr) {
        Expect("RemoveRecvPkt", RemoveRecvPkt(client->client, stored), {0});
    } else if (how == 2) {
        const int64_t named = client->client->RecvPktCount > 0 ? 0 : -1;
        Expect("RemoveRecvPkt of all", RemoveRecvPkt(client->client, nullptr), {named});
    } else if (how == 3) {
        RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof *pkt));
        pkt->ChunkStreamId = static_cast<uint32_t>(chunkStream);
        pkt->Complete = 1;
        pkt->MsgTypeId = RTMP_TYPE_ACKNOWLEDGEMENT;
        Expect("AddRecvPkt", AddRecvPkt(client->client, pkt), {0});
        Expect("AddRecvPkt of one that is there", AddRecvPkt(client->client, pkt), {0});
    }
}

// the kind; whether it is only stored
void ClientSends(World &world, FuzzInput &input)
{
    const Client *client = world.client(input.byte());
    const uint32_t kind = input.byte() % 60;
    const bool isStored = (input.byte() & 1) != 0;
    Expect("GenerateRtmpMsg without a client", GenerateRtmpMsg(nullptr, nullptr, kind) == nullptr, {1});
    if (client == nullptr) {
        return;
    }
    Expect("SendMsgToClient of nothing", SendMsgToClient(client->client, nullptr, kind), {-1});
    bool isNeeded = false;
    RtmpRecvPkt *request = RequestFor(*client, kind, &isNeeded);
    if (isNeeded && request == nullptr) {
        return;
    }
    const HostPeers::Call waits;
    RtmpSendPkt *message = GenerateRtmpMsg(client->client, isNeeded ? request : nullptr, kind);
    if (message == nullptr) {
        return;
    }
    if (isStored && ClientStateOf(client->client) != CLIENT_STATE_PLAY_DONE) {
        Expect("AddSendPkt", AddSendPkt(client->client, message), {0});
        Expect("AddSendPkt of one that is there", AddSendPkt(client->client, message), {0});
        return;
    }
    Expect("SendMsgToClient", SendMsgToClient(client->client, message, kind), {0, -1});
}

// the kind; the length, by 256; the time behind the one before
void ClientSendsMedia(World &world, FuzzInput &input)
{
    static const uint8_t body[70000] = {};
    const Client *client = world.client(input.byte());
    const int kind = input.byte() % 4 == 0 ? input.byte() : RTMP_MSG_VIDEO + input.byte() % 2;
    const uint32_t length = input.byte() * 256U;
    const uint64_t delta = uint64_t{1} << input.byte() % 64;
    if (client == nullptr) {
        return;
    }
    const HostPeers::Call waits;
    RtmpSendPkt *message = GenerateRtmpMediaMsg(client->client, kind, length, body, delta);
    if (kind != RTMP_MSG_VIDEO && kind != RTMP_MSG_AUDIO) {
        Expect("GenerateRtmpMediaMsg of another kind", message == nullptr, {1});
        return;
    }
    Expect("SendMsgToClient", SendMsgToClient(client->client, message, static_cast<uint32_t>(kind)), {0, -1});
}

// 0: one is found; 1: it is removed; 2: all are
void ClientSendList(World &world, FuzzInput &input)
{
    const Client *client = world.client(input.byte());
    const uint8_t how = input.byte() % 3;
    const int chunkStream = input.byte() % 64;
    if (client == nullptr || ClientStateOf(client->client) == CLIENT_STATE_PLAY_DONE) {
        return;
    }
    RtmpSendPkt stranger = {};
    Expect("RemoveSendPkt of a stranger", RemoveSendPkt(client->client, &stranger), {-1});
    RtmpSendPkt *stored = GetSendPktFromList(client->client, chunkStream);
    if (how == 1 && stored != nullptr) {
        Expect("RemoveSendPkt", RemoveSendPkt(client->client, stored), {0});
    } else if (how == 2) {
        const int64_t named = client->client->SendPktCount > 0 ? 0 : -1;
        Expect("RemoveSendPkt of all", RemoveSendPkt(client->client, nullptr), {named});
    }
}

} // namespace host
