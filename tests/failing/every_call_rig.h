// The host of a trial: a server without ports, a session with media, clients on socket pairs; all of it gone
// again at the end, whatever failed.
#pragma once

#include "failing/every_call.h"
#include "support/bytes.h"

#include <memory>
#include <vector>

namespace every_call {

enum class Road { Exact, Steady };

struct HostSetup {
    Road road = Road::Exact;
    uint32_t mode = 0;
    bool media = true;
    bool sender = true; // it is chosen
    uint32_t players = RTMP_PLAYERS_EXACT;
};

inline const HostSetup kThreaded = {.mode = RTMP_SENDER_THREADED};
inline const HostSetup kSteady = {.road = Road::Steady};
inline const HostSetup kSteadyThreaded = {.road = Road::Steady, .mode = RTMP_SENDER_THREADED};
inline const HostSetup kEveryRule = {.players = RTMP_PLAYERS_ALL};

struct Peer {
    RtmpClient *client; // null once a trial has ended it
    int ends[2];        // the client's, the peer's
};

class Host {
  public:
    explicit Host(Trial &trial, const HostSetup &setup = {});
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // A client that has joined the session, or that has not.
    Peer &joined(uint32_t state = CLIENT_STATE_PLAY_DONE, bool overTls = false);
    Peer &alone(uint32_t state = CLIENT_STATE_CREATESTREAM_DONE, bool overTls = false);

    // One that has joined and is served by a thread of the library's, whose the record is from now on.
    void served(uint32_t state);

    RtmpServer *server = nullptr;
    RtmpSession *session = nullptr; // null once a trial has ended it

  private:
    std::vector<std::unique_ptr<Peer>> peers_;
};

// What comes behind a failed RtmpSessionDestroy: the same again, or, where the code said that the session has
// left the list, another one of its name is made and destroyed.
int DestroySessionAgain(Host &host);

// Frees a session that is out of its server's list.
void FreeRest(RtmpSession *session);

// A message of a client's, complete and in no list.
RtmpRecvPkt *Received(uint8_t type, const Bytes &payload);

// The same, decoded: what it asks for is in `kind`.
RtmpRecvPkt *Parsed(RtmpClient *client, uint8_t type, const Bytes &payload, uint32_t *kind);

} // namespace every_call
