// An RTMP player written for tests: every byte it sends is chosen by the test, and it can misbehave.
#pragma once

#include "support/amf_bytes.h"
#include "support/byte_socket.h"
#include "support/chunk_parser.h"

#include <limits>
#include <optional>

namespace wire {

struct HandshakeOptions {
    uint8_t version = 3;     // C0
    int scheme = 1;          // where C1 carries its digest: 1 at 12 and up, 2 at 776 and up, 0 nowhere
    bool signC2 = true;      // false: C2 is random
    bool echoS1 = false;     // C2 is S1, as RTMP 1.0, 5.2.4 has it
    uint32_t seed = 1;       // of the random fill
    size_t pieceSize = 0;    // bytes per write; 0: as many as possible
    size_t stopAfter = 3073; // bytes of C0, C1 and C2 together that are sent at all
};

// The handshake of a player that knows RTMP 1.0 and no keys.
constexpr HandshakeOptions kPlainHandshake = {.scheme = 0, .signC2 = false, .echoS1 = true};

// Everything that passed.
struct HandshakeRecord {
    Bytes c1, c2, s0, s1, s2;
};

struct Outgoing {
    Bytes payload;
    uint8_t type = 20;
    uint32_t chunkStream = 3;
    uint32_t stream = 0;
    int headerType = 0;     // fmt of the first chunk
    int basicForm = 1;      // bytes of the basic header
    uint32_t timestamp = 0; // or delta; from 0xFFFFFF on in the extended form
};

// The chunks of one message, cut by `chunkSize`; continuations carry a type 3 basic header alone.
Bytes Chunks(const Outgoing &message, size_t chunkSize = 128);

// HMAC-SHA256 over C1 or S1 without its 32 bytes at `offset`.
Bytes PacketDigest(const Bytes &packet, size_t offset, std::string_view key);
size_t DigestOffset(const Bytes &packet, int scheme);
Bytes HmacSha256(const Bytes &data, std::string_view key);
std::string_view ServerKey(); // 68 bytes, the first 36 of them text
std::string_view PlayerKey(); // 62 bytes, the first 30 of them text

// Values of AMF commands as players send them.
Bytes ConnectCommand(const std::string &app = "live", double transaction = 1);
Bytes CreateStreamCommand(double transaction = 2);
Bytes PlayCommand(const std::string &name, double transaction = 3);
Bytes PauseCommand(bool pause, double transaction = 4);
Bytes DeleteStreamCommand(double transaction = 5);

class ScriptedPeer {
  public:
    explicit ScriptedPeer(uint16_t port, int deadlineMs = 30000) : socket(port, deadlineMs), chunks(socket) {}
    explicit ScriptedPeer(Connected connection, int deadlineMs = 30000)
        : socket(connection, deadlineMs), chunks(socket)
    {
    }

    // Runs the handshake as far as the options say; replies that are due by then are read and recorded. An S2
    // that does not repeat a C1 without digest is a PeerError.
    HandshakeRecord handshake(const HandshakeOptions &options = {});

    void send(const Outgoing &message)
    {
        socket.send(Chunks(message, outChunkSize));
    }
    void command(const Bytes &payload, uint32_t chunkStream = 3)
    {
        send({.payload = payload, .chunkStream = chunkStream});
    }
    void setChunkSize(uint32_t size); // announces it and cuts by it from then on
    void pingRequest(uint32_t value);

    Message read()
    {
        return chunks.next();
    }
    std::vector<Message> read(size_t count);

    // Reads until the answer to a ping has come, so that everything asked before has been done; returns
    // what came in front of the answer. Only once the player is in a session: others get no answer.
    std::vector<Message> settle();

    // Requests together with their usual replies.
    void connected(const HandshakeOptions &options = {}); // handshake, connect
    void created();                                       // ..., createStream
    std::vector<Message> playing(const std::string &name,
                                 size_t replies = 7); // ..., play; returns its replies

    ByteSocket socket;
    ChunkParser chunks;
    size_t outChunkSize = 128;

  private:
    uint32_t pings_ = 0;
};

} // namespace wire
