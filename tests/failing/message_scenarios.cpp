// The ways of messages: read, parsed, answered, made, sent.
#include "failing/every_call_rig.h"
#include "message/recv_packet.h"
#include "net/client_state.h"
#include "support/amf_bytes.h"
#include "support/scripted_peer.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>

namespace every_call {
namespace {

using namespace amf0;

void FreeMessage(RtmpSendPkt *message)
{
    if (message == nullptr) {
        return;
    }
    const uint32_t kind = message->MsgKind;
    if (kind != RTMP_MSG_META_DATA && kind != RTMP_MSG_VIDEO && kind != RTMP_MSG_AUDIO) {
        free(message->PayloadData);
    }
    free(message);
}

// ------------------------------------------------------------------------------------------------- reading

struct ReadSetup {
    uint32_t players = RTMP_PLAYERS_EXACT;
    bool overTls = false;
    bool isLater = false; // the second chunk of its message
};

// What a client reads from its peer next.
void Read(Trial &trial, const ReadSetup &setup)
{
    Host host(trial, {.players = setup.players});
    std::vector<RtmpRecvPkt *> loose;
    Peer *peer = nullptr;
    const auto arrive = [&] {
        peer = &host.alone(CLIENT_STATE_CREATESTREAM_DONE, setup.overTls);
        const Bytes bytes = Hex("03 000000 000082 05 00000000") + Counting(128) + Hex("C3") + Counting(2);
        EXPECT_EQ(send(peer->ends[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(shutdown(peer->ends[1], SHUT_WR), 0); // whoever reads more than that finds the end
        if (setup.isLater) {
            EXPECT_EQ(AddRecvPkt(peer->client, ReadRtmpMessage(peer->client)), 0);
        }
    };
    const auto read = [&] {
        RtmpRecvPkt *pkt = ReadRtmpMessage(peer->client);
        if (pkt != nullptr && !setup.isLater) {
            loose.push_back(pkt);
        }
        return pkt != nullptr ? 0 : kNull;
    };
    arrive();
    trial.run(read, [&] {
        arrive();
        return read();
    });
    for (RtmpRecvPkt *pkt : loose) {
        EXPECT_EQ(FreeRecvPkt(host.server, pkt), 0);
    }
}

// ---------------------------------------------------------------------------------- parsing and answering

struct Message {
    uint8_t type;
    Bytes payload;
};

Message Command(const Bytes &values)
{
    return {RTMP_TYPE_AMF0_COMMAND, values};
}

Message StatusCommand(const char *name)
{
    return Command(Values({String(name), Number(0), Null(),
                           Object({{"level", String("status")},
                                   {"code", String("a.code")},
                                   {"description", String("a text")}})})
                       .bytes);
}

const Message kPingRequest = {RTMP_TYPE_USER_CONTROL, Hex("0006 00000001")};
const Message kBufferLength = {RTMP_TYPE_USER_CONTROL, Hex("0003 00000001 00000064")};
const Message kChunkSize = {RTMP_TYPE_SET_CHUNK_SIZE, Hex("00001000")};
const Message kWindow = {RTMP_TYPE_WINDOW_ACK_SIZE, Hex("00100000")};
const Message kAbort = {RTMP_TYPE_ABORT, Hex("00000003")};

// Clients that have something to say, each with its message.
class Talk {
  public:
    Talk(Trial &trial, const HostSetup &setup) : host(trial, setup) {}
    ~Talk()
    {
        for (RtmpRecvPkt *pkt : packets_) {
            EXPECT_EQ(FreeRecvPkt(host.server, pkt), 0);
        }
    }
    Talk(const Talk &) = delete;
    Talk &operator=(const Talk &) = delete;

    // A client in this state, in the session from playing on, and its message.
    void begin(const Message &message, uint32_t state, bool overTls = false)
    {
        const bool joins = state >= CLIENT_STATE_PLAY_DONE;
        client = (joins ? host.joined(state, overTls) : host.alone(state, overTls)).client;
        client->PublishCtx = &answers_;
        packet = Received(message.type, message.payload);
        packets_.push_back(packet);
    }
    int parse()
    {
        return ParseRequestMsg(client, packet, &kind);
    }

    Host host;
    RtmpClient *client = nullptr;
    RtmpRecvPkt *packet = nullptr;
    uint32_t kind = 0;

  private:
    PublishCtx answers_ = {};
    std::vector<RtmpRecvPkt *> packets_;
};

void Parse(Trial &trial, const Message &message, uint32_t state, const HostSetup &setup = {})
{
    Talk talk(trial, setup);
    talk.begin(message, state);
    trial.run([&] { return talk.parse(); },
              [&] {
                  talk.begin(message, state);
                  return talk.parse();
              });
}

struct Answered {
    Message message;
    uint32_t state;
    HostSetup setup = {};
    bool overTls = false;
    uint8_t pauseFlag = 0;
};

void Answer(Trial &trial, const Answered &answered)
{
    Talk talk(trial, answered.setup);
    const auto begin = [&] {
        talk.begin(answered.message, answered.state, answered.overTls);
        talk.kind = 0;
        EXPECT_EQ(talk.parse(), 0);
    };
    const auto answer = [&] { return ProcessSend(talk.client, talk.packet, talk.kind); };
    begin();
    trial.run(answer, [&] {
        begin();
        return answer();
    });
}

// ------------------------------------------------------------------------------------- making and sending

// The message in which the request for a kind comes, where it is needed.
Message RequestFor(uint32_t kind)
{
    if (kind == RTMP_MSG_CREATE_STREAM) {
        return Command(wire::CreateStreamCommand());
    }
    return kind == RTMP_MSG_PING_RESPONSE ? kPingRequest : Command(wire::ConnectCommand());
}

void Generate(Trial &trial, uint32_t kind)
{
    Talk talk(trial, {});
    talk.begin(RequestFor(kind), CLIENT_STATE_PLAY_DONE);
    EXPECT_EQ(talk.parse(), 0);
    RtmpSendPkt *message = nullptr;
    trial.run([&] {
        message = GenerateRtmpMsg(talk.client, talk.packet, kind);
        return message != nullptr ? 0 : kNull;
    });
    FreeMessage(message);
}

// A message of its own bytes on chunk stream 2.
RtmpSendPkt *OwnMessage(uint32_t length)
{
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = 2;
    message->MsgKind = RTMP_MSG_STREAM_BEGIN;
    message->PayloadLength = length;
    message->PayloadData = static_cast<uint8_t *>(calloc(1, length));
    return message;
}

void GenerateMedia(Trial &trial, int kind, bool isLater)
{
    Host host(trial);
    const Bytes body = Counting(105);
    RtmpClient *client = host.joined().client;
    const auto generate = [&] { return GenerateRtmpMediaMsg(client, kind, 100, body.data(), 40); };
    if (isLater) {
        EXPECT_EQ(SendMsgToClient(client, generate(), static_cast<uint32_t>(kind)), 0);
    }
    RtmpSendPkt *message = nullptr;
    trial.run([&] {
        message = generate();
        return message != nullptr ? 0 : kNull;
    });
    FreeMessage(message);
}

struct Sent {
    uint32_t length = 6;
    HostSetup setup = {};
    bool overTls = false;
    bool isLater = false;
};

void Send(Trial &trial, const Sent &sent)
{
    Host host(trial, sent.setup);
    RtmpClient *client = nullptr;
    RtmpSendPkt *message = nullptr;
    const auto begin = [&] {
        client = host.joined(CLIENT_STATE_PLAY_DONE, sent.overTls).client;
        message = OwnMessage(sent.length);
        if (sent.isLater) {
            EXPECT_EQ(SendMsgToClient(client, OwnMessage(6), RTMP_MSG_STREAM_BEGIN), 0);
        }
    };
    const auto send = [&] { return SendMsgToClient(client, message, RTMP_MSG_STREAM_BEGIN); };
    begin();
    trial.run(send, [&] {
        begin();
        return send();
    });
}

// ------------------------------------------------------------------------------------------------ the table

constexpr uint32_t kAnsweredKinds[] = {2,  4,  9,  10, 11, 12, 13, 14, 15, 16, 23, 36, 39, 41,
                                       42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 55, 56, 57};

void AddReading(std::vector<Scenario> *to)
{
    const auto add = [&](const char *way, const ReadSetup &setup) {
        to->push_back({"ReadRtmpMessage", way, {kNull}, [setup](Trial &trial) { Read(trial, setup); }});
    };
    add("a message begins", {});
    add("a message goes on", {.isLater = true});
    add("a message begins, as RTMP 1.0 has it", {.players = RTMP_PLAYERS_ALL});
    add("a message goes on, as RTMP 1.0 has it", {.players = RTMP_PLAYERS_ALL, .isLater = true});
    add("a message begins, over TLS", {.overTls = true});
}

void AddParsing(std::vector<Scenario> *to)
{
    const auto add = [&](const char *way, const Message &message, uint32_t state,
                         const HostSetup &setup = {}) {
        to->push_back({"ParseRequestMsg", way, {-1, RTMP_ERR_STREAM_NOT_FOUND}, [=](Trial &trial) {
                           Parse(trial, message, state, setup);
                       }});
    };
    const auto answer = [](const char *name) {
        return Command(Values({String(name), Number(1), Null(),
                               Object({{"code", String("a.code")}, {"description", String("a text")}})})
                           .bytes);
    };
    add("connect", Command(wire::ConnectCommand()), CLIENT_STATE_HANDSHAKE_DONE);
    add("connect, every rule", Command(wire::ConnectCommand()), CLIENT_STATE_HANDSHAKE_DONE, kEveryRule);
    add("createStream", Command(wire::CreateStreamCommand()), CLIENT_STATE_CONNECT_DONE);
    add("play", Command(wire::PlayCommand("live")), CLIENT_STATE_CREATESTREAM_DONE);
    add("play, steady road", Command(wire::PlayCommand("live")), CLIENT_STATE_CREATESTREAM_DONE, kSteady);
    add("play again", Command(wire::PlayCommand("live")), CLIENT_STATE_PLAY_DONE);
    add("pause", Command(wire::PauseCommand(true)), CLIENT_STATE_PLAY_DONE);
    add("deleteStream", Command(wire::DeleteStreamCommand()), CLIENT_STATE_PLAY_DONE);
    add("a service's result", answer("_result"), CLIENT_STATE_PLAY_DONE);
    add("a service's error", answer("_error"), CLIENT_STATE_PLAY_DONE);
    add("a service's status", StatusCommand("onStatus"), CLIENT_STATE_PLAY_DONE);
    add("a service's login status", StatusCommand("onClientLogin"), CLIENT_STATE_PLAY_DONE);
    add("a service's ping", Command(Values({String("ping"), Number(0), Null()}).bytes),
        CLIENT_STATE_PLAY_DONE);
    add("ping request", kPingRequest, CLIENT_STATE_PLAY_DONE);
    add("ping request, steady road", kPingRequest, CLIENT_STATE_PLAY_DONE, kSteady);
    add("set buffer length", kBufferLength, CLIENT_STATE_PLAY_DONE);
    add("set chunk size", kChunkSize, CLIENT_STATE_PLAY_DONE);
    add("window acknowledgement size", kWindow, CLIENT_STATE_PLAY_DONE);
    add("abort, every rule", kAbort, CLIENT_STATE_PLAY_DONE, kEveryRule);
}

void AddAnswering(std::vector<Scenario> *to)
{
    const auto add = [&](const char *way, const Answered &answered) {
        to->push_back(
            {"ProcessSend", way, {-1}, [answered](Trial &trial) { Answer(trial, answered); }, {}, true});
    };
    const Message connect = Command(wire::ConnectCommand());
    const Message createStream = Command(wire::CreateStreamCommand());
    const Message play = Command(wire::PlayCommand("live"));
    const Message pause = Command(wire::PauseCommand(true));
    const Message unpause = Command(wire::PauseCommand(false));
    const Message deleteStream = Command(wire::DeleteStreamCommand());
    add("connect", {connect, CLIENT_STATE_HANDSHAKE_DONE});
    add("connect, over TLS", {connect, CLIENT_STATE_HANDSHAKE_DONE, {}, true});
    add("createStream", {createStream, CLIENT_STATE_CONNECT_DONE});
    add("play", {play, CLIENT_STATE_CREATESTREAM_DONE});
    add("play, every rule", {play, CLIENT_STATE_CREATESTREAM_DONE, kEveryRule});
    add("play, steady road", {play, CLIENT_STATE_CREATESTREAM_DONE, kSteady});
    add("play again", {play, CLIENT_STATE_PLAY_DONE});
    add("pause", {pause, CLIENT_STATE_PLAY_DONE});
    add("unpause", {unpause, CLIENT_STATE_PAUSE_DONE});
    add("unpause of a player that plays", {unpause, CLIENT_STATE_PLAY_DONE});
    add("unpause, steady road", {unpause, CLIENT_STATE_PAUSE_DONE, kSteady});
    add("deleteStream", {deleteStream, CLIENT_STATE_PLAY_DONE});
}

void AddSending(std::vector<Scenario> *to)
{
    const auto add = [&](const char *way, const Sent &sent) {
        to->push_back({"SendMsgToClient", way, {-1}, [sent](Trial &trial) { Send(trial, sent); }});
    };
    add("the first of its chunk stream", {});
    add("a later one", {.isLater = true});
    add("in 30 chunks", {.length = 30 * 4096});
    add("over TLS", {.overTls = true});
    add("steady road", {.setup = kSteady});
    add("every rule, a later one", {.setup = kEveryRule, .isLater = true});
}

} // namespace

std::vector<Scenario> MessageScenarios()
{
    std::vector<Scenario> all;
    AddReading(&all);
    AddParsing(&all);
    AddAnswering(&all);
    for (const uint32_t kind : kAnsweredKinds) {
        all.push_back({"GenerateRtmpMsg", "kind " + std::to_string(kind), {kNull}, [kind](Trial &trial) {
                           Generate(trial, kind);
                       }});
    }
    for (const int kind : {RTMP_MSG_VIDEO, RTMP_MSG_AUDIO}) {
        const std::string name = kind == RTMP_MSG_VIDEO ? "video" : "audio";
        all.push_back({"GenerateRtmpMediaMsg", name + ", the first", {kNull}, [kind](Trial &trial) {
                           GenerateMedia(trial, kind, false);
                       }});
        all.push_back({"GenerateRtmpMediaMsg", name + ", a later one", {kNull}, [kind](Trial &trial) {
                           GenerateMedia(trial, kind, true);
                       }});
    }
    AddSending(&all);
    return all;
}

} // namespace every_call
