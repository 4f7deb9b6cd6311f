// Clients that the host has accepted itself and hands to the library: over TLS, or in the clear to compare
// with.
#pragma once

#include "../publish/publishing_host.h"
#include "support/calls.h"
#include "support/host_fakes.h"
#include "support/test_server.h"
#include "support/wire_replies.h"
#include "tls_connection.h"

#include <optional>

namespace wire {

using Lines = std::vector<std::string>;

// One client and its peer. Only one thread at a time works with a TLS handle: OpenSSL wants it so.
class HandedClient {
  public:
    HandedClient(TestServer &server, const std::optional<TlsSetup> &setup); // none: in the clear
    ~HandedClient();

    // The library's side of `messages` messages, on a thread of its own while the peer does `talk`.
    template <typename Talk> void serve(size_t messages, Talk talk)
    {
        std::thread host([this, messages] { handle(messages); });
        talk();
        host.join();
    }
    void play(const std::string &name); // from the handshake to the first frame
    void join(RtmpSession *session);    // the last step alone: in the session, in the playing state

    RtmpClient *giveAway(); // to a serve thread, which will free it

    std::optional<TlsConnection> tls;

  private:
    Connected connect(const std::optional<TlsSetup> &setup);
    void handle(size_t messages);
    int socket_ = -1;

  public:
    ScriptedPeer peer;
    RtmpClient *client;
};

// Descriptors that sendfile has written to since the last call.
std::vector<int> TakeSendfileTargets();

// A file in memory that holds frames, as zero-copy sending wants them.
class FrameFile {
  public:
    FrameFile();
    ~FrameFile();
    FrameFile(const FrameFile &) = delete;
    FrameFile &operator=(const FrameFile &) = delete;
    int sendVideo(RtmpSession *session, const Bytes &frame, uint64_t timestamp);

  private:
    int file_;
    uint8_t *map_;
};

} // namespace wire
