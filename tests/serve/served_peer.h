// A peer behind its handshake whose bytes are the test's, served on the test's own thread: what it sends is
// there before the serve loop reads, so that nothing waits.
#pragma once

#include "net/atomic.h"
#include "net/client_state.h"
#include "rtmpcast/player.h"
#include "rtmpcast/service.h"
#include "serve/serve.h"
#include "state/client.h"
#include "steady/line.h"
#include "steady/records.h"
#include "support/bytes.h"
#include "support/chunk_parser.h"
#include "support/scripted_peer.h"
#include "support/session_rig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

// By which rules a peer is read, and which road its frames take.
struct Served {
    const char *name;
    uint32_t players;
    bool steady;

    bool standard() const
    {
        return players == RTMP_PLAYERS_ALL;
    }
};

inline constexpr Served kServedExactly = {"Exact", RTMP_PLAYERS_EXACT, false};
inline constexpr Served kServedTodays = {"Todays", RTMP_PLAYERS_ALL, false};
inline constexpr Served kServedSteadily = {"Steady", RTMP_PLAYERS_ALL, true};
inline constexpr Served kEveryServed[] = {kServedExactly, kServedTodays, kServedSteadily};

inline std::string NameOfServed(const testing::TestParamInfo<Served> &row)
{
    return row.param.name;
}

class ServedPeer {
  public:
    ServedPeer(SessionRig &rig, const Served &served, uint32_t state = CLIENT_STATE_HANDSHAKE_DONE)
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
        client = CreateNewRtmpClient(rig.server, RTMP_CONN_RTMP, ends_[0], "127.0.0.1", 0, nullptr);
        client->PlayerFlags = served.players;
        if (served.steady) { // as of a connection that it has accepted
            EXPECT_EQ(NewLine(rig.server->Service, client, 1), 0);
        }
        SetClientState(client, state);
        chunks_.standard = served.standard();
        if (state > CLIENT_STATE_HANDSHAKE_DONE) { // as after the replies to "connect"
            chunks_.chunkSize = rig.server->ChunkSize;
        }
    }
    ~ServedPeer()
    {
        end();
    }
    ServedPeer(const ServedPeer &) = delete;
    ServedPeer &operator=(const ServedPeer &) = delete;

    void send(const Bytes &bytes)
    {
        EXPECT_EQ(::send(ends_[1], bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // As much as the server takes.
    void sendUntilRefused(const Bytes &bytes)
    {
        size_t done = 0;
        ssize_t sent = 0;
        while (done < bytes.size() &&
               (sent = ::send(ends_[1], bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL)) > 0) {
            done += static_cast<size_t>(sent);
        }
    }
    void stopReading() // the server's end: whoever sends to it comes back
    {
        shutdown(ends_[1], SHUT_RDWR);
    }
    void command(const Bytes &payload)
    {
        send(wire::Chunks({.payload = payload}));
    }
    void finish() // nothing more comes
    {
        shutdown(ends_[1], SHUT_WR);
    }
    // One message, or whatever ends the connection.
    Round round()
    {
        const Round was = ServeRound(client);
        const bool isSteady = client->Line != nullptr;
        return was == ROUND_AGAIN && isSteady && hasEnded() ? ROUND_ERROR : was;
    }
    // Everything that was sent, up to the end of it or of the connection.
    Round serve()
    {
        finish();
        Round was;
        do {
            was = round();
        } while (was == ROUND_AGAIN);
        return was;
    }
    // The server has ended the connection, as far as its peer can tell.
    bool hasEnded() const
    {
        return client->SocketClosed != 0 ||
               (client->Line != nullptr && LoadShared(&client->Line->End) != STEADY_GOES_ON);
    }
    // Asks for what leads to this state, and is served it.
    void advanceTo(uint32_t wanted)
    {
        const struct {
            uint32_t state;
            Bytes command;
        } steps[] = {{CLIENT_STATE_CONNECT_DONE, wire::ConnectCommand()},
                     {CLIENT_STATE_CREATESTREAM_DONE, wire::CreateStreamCommand()},
                     {CLIENT_STATE_PLAY_DONE, wire::PlayCommand("live")},
                     {CLIENT_STATE_PAUSE_DONE, wire::PauseCommand(true)}};
        for (const auto &step : steps) {
            if (step.state <= wanted) {
                command(step.command);
                EXPECT_EQ(round(), ROUND_AGAIN);
                EXPECT_EQ(state(), step.state);
            }
        }
        (void)messages();
    }
    Bytes replies()
    {
        return DrainBytes(ends_[1]);
    }
    // The same, read as a player reads them. Each message counts on those before it: use the one or the
    // other.
    std::vector<wire::Message> messages()
    {
        return messagesIn(replies());
    }
    std::vector<wire::Message> messagesIn(const Bytes &replies)
    {
        came_.hold(replies);
        std::vector<wire::Message> read;
        while (came_.holdsMore()) {
            read.push_back(chunks_.next());
        }
        return read;
    }
    int descriptor() const
    {
        return ends_[1];
    }
    uint32_t state() const
    {
        return ClientStateOf(client);
    }
    // As the serve thread takes its leave.
    void end()
    {
        if (client == nullptr) {
            return;
        }
        if (client->Line != nullptr) {
            FreeClientRecord(client); // and closes the socket
            ends_[0] = -1;
        } else {
            endExactly();
        }
        client = nullptr;
        for (const int end : ends_) {
            if (end >= 0) {
                close(end);
            }
        }
    }

    RtmpClient *client = nullptr;

  private:
    void endExactly()
    {
        if (client->SocketClosed) {
            ends_[0] = -1; // its number may be somebody else's
        }
        if (DestroyRtmpClient(client) != 0) {
            FreeClientRecord(client);
        }
    }

    int ends_[2] = {-1, -1};
    wire::ByteSocket came_{wire::Connected{-1}};
    wire::ChunkParser chunks_{came_};
};

// How often `text` stands in `bytes`.
inline size_t TimesIn(const Bytes &bytes, const std::string &text)
{
    const Bytes wanted = Text(text);
    size_t count = 0;
    auto at = std::search(bytes.begin(), bytes.end(), wanted.begin(), wanted.end());
    while (at != bytes.end()) {
        count++;
        at = std::search(at + 1, bytes.end(), wanted.begin(), wanted.end());
    }
    return count;
}

// A server with a session that somebody watches, who must miss nothing.
class ServedRig {
  public:
    explicit ServedRig(const Served &served) : rig({.steady = served.steady}), watcher_(rig.addClient()) {}

    // Lines that nobody looks at would take most of the time of ten thousand messages.
    void beQuiet()
    {
        rig.log.get()->LogFunction = [](void *, uint8_t, const char *, va_list) {};
    }
    // One more frame reaches the watcher, and nobody else is left in the session.
    void expectAlone()
    {
        EXPECT_EQ(rig.session->ClientCount, 1);
        const uint8_t nal = static_cast<uint8_t>(time_ / 40);
        const Bytes frame = Hex("00000002 65") + Bytes{nal};
        DrainBytes(watcher_.peer);
        EXPECT_EQ(RtmpSendData(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0, time_,
                               RTMP_FRAME_VIDEO),
                  0);
        const Bytes came = DrainBytes(watcher_.peer);
        ASSERT_GE(came.size(), frame.size());
        EXPECT_TRUE(Same(Slice(came, came.size() - frame.size(), frame.size()), frame));
        time_ += 40;
    }

    SessionRig rig;

  private:
    RigClient watcher_;
    uint64_t time_ = 1000;
};
