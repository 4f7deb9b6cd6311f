// A server on the steady road with its players: scripted ones over loopback, and clients that the host makes
// itself on one end of a socket pair.
#pragma once

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/scope.h"
#include "state/client.h"
#include "steady/records.h"
#include "support/test_server.h"
#include "support/wait.h"
#include "support/wire_replies.h"

#include <sys/socket.h>
#include <unistd.h>

namespace steady {

constexpr uint8_t kKey = 0x65;
constexpr uint8_t kInter = 0x41;
constexpr uint32_t kVideoStream = 28;
constexpr uint32_t kAudioStream = 29;

// The defaults but for one limit.
inline RtmpServiceLimits With(uint32_t RtmpServiceLimits::*limit, uint32_t value)
{
    RtmpServiceLimits limits = {};
    limits.*limit = value;
    return limits;
}

struct Server : wire::TestServer {
    explicit Server(const RtmpServiceLimits &limits = {}, int chunkSize = 4096, RtmpLogger *logger = nullptr)
        : TestServer(chunkSize, logger)
    {
        EXPECT_EQ(RtmpServiceSettings(server, &limits), 0);
    }
};

inline bool IsMedia(const wire::Message &message)
{
    return message.chunkStream == kVideoStream || message.chunkStream == kAudioStream;
}

// A player that reads by the book (RTMP 1.0, 5.3), whatever the library is known to choose.
struct ScriptedPlayer : wire::ScriptedPeer {
    explicit ScriptedPlayer(const Server &server) : ScriptedPeer(server.port)
    {
        chunks.standard = true;
        socket.keepRecord(false);
    }
    // The next frame; what comes in front of it is put into `replies`.
    wire::Message frame()
    {
        wire::Message message = read();
        for (; !IsMedia(message); message = read()) {
            replies.push_back(message);
        }
        return message;
    }
    std::vector<wire::Message> replies;
};

// The newest client of a session.
inline RtmpClient *NewestOf(RtmpSession *session)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
    RtmpClient *newest = session->MemberHead;
    while (newest != nullptr && newest->NextMember != nullptr) {
        newest = newest->NextMember;
    }
    return newest;
}

// The server's end of a player's connection holds little.
inline void Narrow(const RtmpClient *client, int bytes = 16384)
{
    setsockopt(client->Socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

// Whether a line is as `look` says, at a moment when nobody works with it.
template <typename Look> bool LineIs(RtmpClient *client, Look look)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    return look(*client->Line);
}

template <typename Look> bool WaitForLine(RtmpClient *client, Look look)
{
    return WaitUntil([&] { return LineIs(client, look); });
}

inline bool IsFull(const SteadyLine &line)
{
    return line.WantsRoom != 0;
}

// A client of the host's own, in the playing state, and what its peer reads.
struct HandMade {
    explicit HandMade(RtmpServer *server, void *tls = nullptr, uint32_t chunkSize = 4096)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, tls);
        socket = std::make_unique<wire::ByteSocket>(wire::Connected{ends[1]});
        socket->keepRecord(false);
        chunks = std::make_unique<wire::ChunkParser>(*socket);
        chunks->standard = true;
        chunks->chunkSize = chunkSize;
    }
    void join(RtmpSession *session)
    {
        client->StreamId = 1;
        EXPECT_EQ(AddClientInSession(session, client), 0);
        SetClientState(client, CLIENT_STATE_PLAY_DONE);
    }
    ~HandMade()
    {
        if (client != nullptr) {
            EXPECT_EQ(DestroyRtmpClient(client), 0);
        }
        close(ends[0]);
    }
    HandMade(const HandMade &) = delete;
    HandMade &operator=(const HandMade &) = delete;

    int ends[2];
    RtmpClient *client = nullptr;
    std::unique_ptr<wire::ByteSocket> socket;
    std::unique_ptr<wire::ChunkParser> chunks;
};

} // namespace steady

namespace wire {

constexpr uint8_t kKeyNal = steady::kKey;
constexpr uint8_t kInterNal = steady::kInter;
using SteadyTestServer = steady::Server;

} // namespace wire
