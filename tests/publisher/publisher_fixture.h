// A publisher of publish_client.h and the service that it publishes to, which is the test's script, joined by
// a TCP connection of loopback.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/amf_bytes.h"
#include "support/calls.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>

namespace publisher {

using wire::Message;

// Both ends of a new TCP connection.
struct Connection {
    Connection();
    int host;
    int service;
};

struct Setup {
    bool steady = false;
    bool threaded = false;
    bool isSigned = false;
    bool media = true;
    std::string app = "live", tcUrl = "rtmp://service.example/live", key = "key?token=1";
    uint32_t answerMs = 30000;
    void *tls = nullptr;
    std::optional<wire::Connected> plain = {}; // the service's end, where the host's is `socket`
    int socket = -1;
    uint64_t clock = 0;            // not 0: the library's clock stands there
    RtmpServiceLimits limits = {}; // of the steady road
};

// How far the service has let a publisher come.
enum class Step { Connected, Handshake, Connect, CreateStream, Publish, Frames };
constexpr Step kSteps[] = {Step::Connected,    Step::Handshake, Step::Connect,
                           Step::CreateStream, Step::Publish,   Step::Frames};

class Rig {
  public:
    explicit Rig(const Setup &setup = {});
    ~Rig();
    Rig(const Rig &) = delete;
    Rig &operator=(const Rig &) = delete;

    // RtmpPublisherStart on a thread of its own.
    void start();
    void startAndServe(); // ..., RtmpPublisherServe
    void live();          // ..., RtmpPublisherDestroy: a host's whole thread
    int32_t result();     // of the thread, which has ended then
    bool hasEnded() const
    {
        return ended_;
    }

    // The service's part, from the beginning up to a step, which is not answered yet. Frames: all is
    // answered, and metadata and headers are read.
    void serviceUpTo(Step step);
    void awaitFrames(); // until the session's frames go to the service: a moment behind the headers
    wire::HandshakeRecord handshake(int s1Scheme = 0); // S1 unsigned, or signed in one of the two places
    Message command();                                 // the next message; it must be a command
    void answer(double transaction);                   // `_result`, null, null
    void createdStream(double transaction, double id);
    void status(const std::string &level, const std::string &code, const std::string &description = "text");

    // What the service reads until a ping of its own is answered.
    std::vector<Message> settle()
    {
        return service->settle();
    }

    void destroyServer();
    void destroySession();
    void destroyPublisher();

    CaptureLogger log;
    RtmpServer *server = nullptr;
    RtmpSession *session = nullptr;
    RtmpPublisher *publisher = nullptr;
    int socket = -1;
    std::unique_ptr<wire::ScriptedPeer> service;
    std::vector<Message> headers; // metadata and sequence headers

  private:
    void launch(std::function<int32_t()> body);
    void shakeHands();
    const Setup setup_;
    std::future<int32_t> running_;
    std::atomic<bool> destroyed_ = false, ended_ = false;
};

// The whole part of a service beside that of the rig, up to the first frame.
void TakePublisher(wire::ScriptedPeer &service);

// The name in front of a command.
std::string NameOf(const Message &message);

} // namespace publisher
