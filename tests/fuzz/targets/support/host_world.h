// What the host of one input has: servers, sessions, players, clients and publishers of its own, and which
// calls the comments of the public headers allow with them. Every status is held against those that the
// comments name.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/frame_calls.h"
#include "support/fuzz_input.h"
#include "support/host_ops.h"
#include "support/host_peers.h"
#include "support/scripted_peer.h"

#include <atomic>
#include <condition_variable>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>

namespace host {

// Aborts when the status is none of those that the function's comment names.
void Expect(const char *function, int64_t status, std::initializer_list<int64_t> named);
[[noreturn]] void Break(const char *what);

// A server's logger, and what it does besides reading each line's arguments.
struct Log {
    explicit Log(uint8_t manner);
    RtmpLogger logger;
    std::atomic<bool> isServerThere = true; // no line comes once its destroy has returned
    const uint8_t manner;
    std::atomic<uint32_t> lines = 0;
};

struct Server {
    RtmpServer *server;
    Log *log;
    uint16_t port, tunnelPort, tlsPort;
    bool isSteady;
};

struct Session {
    RtmpSession *session;
    RtmpServer *server;
    uint64_t time;
};

struct Player {
    int seat;
};

// A client that the host made, and that it reads, answers and sends with itself.
struct Client {
    RtmpClient *client;
    int fd, seat;
    RtmpRecvPkt *request; // the last whole message, until the receive list changes
    uint32_t kind;
    PublishCtx *answers;
};

struct Publisher {
    RtmpPublisher *publisher = nullptr;
    int fd = -1, seat = -1;
    bool hasStarted = false; // on this thread, successfully
    bool hasLived = false;   // a thread does the rest, up to the destroy
    std::mutex lock;         // of what the thread does with the publisher, but for what waits
    bool isDestroyed = false, isSending = false;
    std::thread thread;
};

// Frames of a session on a thread of their own, which may be there while the session is destroyed.
class FrameThread {
  public:
    FrameThread();
    void send(RtmpSession *session, uint32_t frames);
    void awaitEnd(const RtmpSession *session); // null: of whichever session
    // None begins from now on, and one that has begun is under way.
    void tellToEnd(RtmpSession *session);

  private:
    [[noreturn]] void run();
    void sendFrames();

    std::mutex lock_;
    std::condition_variable changed_;
    RtmpSession *session_ = nullptr; // null: nothing to do
    uint32_t frames_ = 0;
    FrameCalls calls_;
};

class World {
  public:
    World();
    ~World(); // ends everything, and aborts when anything is left

    // The one that a byte of the input names; null when there is none.
    Server *server(uint8_t which);
    Session *session(uint8_t which);
    Player *player(uint8_t which);
    Client *client(uint8_t which);
    Publisher *publisher(uint8_t which);

    void add(Server server);
    void add(Session session);
    void destroySession(Session *session);
    void destroyServer(Server *server);
    void destroyClient(Client *client);
    void destroyPublisher(Publisher *publisher);
    void leave(Player *player, bool rudely);
    bool hasRoomForServer() const;

    // Nothing of the session's settings and frames is under way on another thread.
    void settle(const Session *session);

    // A round of a serve loop begins, or one ends, after `said`; or a moment is over.
    void awaitRound(uint32_t roundsBefore) const;
    static uint32_t rounds();

    // A folder for traces, made for this input, which goes with it.
    const std::string &traceFolder();

    FrameThread &frames();
    std::vector<std::unique_ptr<Server>> servers;
    std::vector<std::unique_ptr<Session>> sessions;
    std::vector<std::unique_ptr<Player>> players;
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::unique_ptr<Publisher>> publishers;
    std::vector<std::unique_ptr<Log>> logs;
    AmfObject built = {}, decoded = {};
    std::vector<std::unique_ptr<Bytes>> amfBytes;
    std::vector<AmfObject> arrays; // of built values, which freeing those leaves alone
    size_t hugeFrames = 0;
    size_t exactConnections = 0;
    std::atomic<bool> hasFailedMedia = false; // a registration has failed: a session may have none any more

  private:
    void leaveSession(const RtmpSession *session, const RtmpServer *server);
    void endThreads() const;
    void closeWhatIsLeft() const;
    void freeAmf();

    static constexpr int kDescriptors = 512;
    bool wasOpen_[kDescriptors]; // in front of the input, as is the next: the fuzzer has its own
    size_t threads_;
    std::string traceFolder_; // empty: none has been made
};

// One procedure for each operation.
#define HOST_OPERATION(name) void name(World &world, FuzzInput &input);
HOST_OPERATIONS(HOST_OPERATION)
#undef HOST_OPERATION

// A message as a player or a service says it.
Bytes Said(HostSaid said, uint8_t argument);
const char *NameOf(uint8_t which); // of sessions
Bytes Blob(FuzzInput &input);      // a length of one byte, and so many
void OpenFrameFiles();             // which stay open

} // namespace host
