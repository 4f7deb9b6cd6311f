// A reader of the server's chunk stream (RTMP 1.0, 5.3). By default it is strict: it takes nothing but what
// the server is known to send, and knows which header each message must carry. In its standard mode it reads
// what RTMP 1.0 allows, and knows nothing of how the library chooses among it.
#pragma once

#include "support/byte_socket.h"
#include "support/players_of_this_run.h"

#include <map>

namespace wire {

struct Message {
    int headerType = 0; // fmt of the first chunk
    uint32_t chunkStream = 0;
    uint32_t field = 0;     // timestamp (type 0) or delta (types 1 and 2) as sent, 0 for type 3
    bool extended = false;  // the field came in its 4-byte form
    uint32_t timestamp = 0; // on the chunk stream's own clock
    uint8_t type = 0;
    uint32_t stream = 0;
    Bytes payload;
    Bytes raw; // every byte of it, chunk headers included
    size_t chunks = 0;
};

class ChunkParser {
  public:
    explicit ChunkParser(ByteSocket &socket) : socket_(socket) {}

    // The next message; PeerError when its chunks are not what they must be. Set Chunk Size is obeyed.
    Message next();

    // The server forgets its chunk streams here: the next message on each has a full header.
    void restart()
    {
        references_.clear();
    }
    uint32_t chunkSize = 128;
    // Set it before the first message: for a connection with RTMP_PLAYERS_CHUNKS_OUT.
    bool standard = (PlayersOfThisRun() & RTMP_PLAYERS_CHUNKS_OUT) != 0;

  private:
    // A chunk stream as RTMP 1.0 has it: what shorter headers inherit, and the message under way.
    struct Lane {
        uint32_t stream = 0, length = 0, delta = 0, timestamp = 0;
        uint8_t type = 0;
        bool known = false;    // a full header has come
        uint32_t field = 0;    // of the last message header
        bool extended = false; // it came in its 4-byte form, which type 3 headers repeat
        bool open = false;
        Message message;
    };
    Message nextStandard();
    Lane &takeBasicHeader(Bytes &raw, int &form);
    void beginMessage(Lane &lane, Bytes &raw, int form);
    void takeRepeatedTime(Lane &lane, Bytes &raw);
    Bytes takeInto(Bytes &raw, size_t count);
    struct Shape {
        uint32_t stream = 0, length = 0, delta = 0, timestamp = 0;
        uint8_t type = 0;
    };
    Bytes take(Message &message, size_t count);
    void readHeader(Message &message, Shape &shape);
    void readField(Message &message, const Bytes &header);
    void readPayload(Message &message, uint32_t length);
    void checkHeaderType(const Message &message, const Shape &shape);

    ByteSocket &socket_;
    std::map<uint32_t, Lane> lanes_;
    std::map<uint32_t, Shape> previous_;   // what shorter headers inherit from
    std::map<uint32_t, Shape> references_; // what the server compares with: the first of each chunk stream
};

} // namespace wire
