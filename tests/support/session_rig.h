// A server without listeners, a session with media, and clients on socket pairs: everything below the accept
// thread, with the peers' ends in the test's hands.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/bytes.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"

// 1280x720 Constrained Baseline, level 3.1, made by hand; and AAC LC, 44.1 kHz, stereo.
extern const Bytes kRigVideoConfig;
extern const Bytes kRigAudioConfig;

// Registers them, or the one of them that `media` names. As RtmpAddMediaInfo returns.
int AddRigMedia(RtmpSession *session, uint32_t media = RTMP_MEDIA_BOTH);

struct RigClient {
    RtmpClient *client;
    int peer; // the other end of client->Socket
};

// As in RtmpServerCreate and RtmpSenderSettings.
struct RigSetup {
    int32_t chunkSize = 4096;
    uint32_t media = RTMP_MEDIA_BOTH; // registered, unless RTMP_MEDIA_NONE
    uint32_t senderMode = 0;
    uint32_t interval = 5; // of the packet monitor's statistics
    uint32_t queue = 10;
    bool steady = false; // on the steady road, with the defaults of its limits
};

class SessionRig {
  public:
    explicit SessionRig(int32_t chunkSize = 4096, uint32_t media = RTMP_MEDIA_BOTH, uint32_t senderMode = 0);
    explicit SessionRig(const RigSetup &setup);
    ~SessionRig(); // destroys what is left, closes the sockets

    // A client in the given state that has joined the session; state 9 gets the chunk streams of a player.
    RigClient addClient(uint32_t state = CLIENT_STATE_PLAY_DONE);
    RigClient addClientTo(RtmpSession *to, uint32_t state = CLIENT_STATE_PLAY_DONE);
    // One more session, set up like the first.
    RtmpSession *addSession(const char *name);
    // Takes a client out as its serve thread would.
    void removeClient(RtmpClient *client);
    void dropClients(); // all of them
    void destroySession();

    RtmpServer *server = nullptr;
    RtmpSession *session = nullptr;
    CaptureLogger log;

  private:
    const RigSetup setup_;
    std::vector<RigClient> clients_;
};

// Exactly `count` bytes, or fewer when the deadline passes or the peer closes first.
Bytes ReadBytes(int fd, size_t count, int milliseconds = 10000);
// What lies in the socket now.
Bytes DrainBytes(int fd);
