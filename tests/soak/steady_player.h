// A scripted player that stays from the first to the last moment and records.
#pragma once

#include "soak/recording.h"
#include "steady_tls/tls_peer.h"
#include "support/scripted_peer.h"

#include <atomic>
#include <memory>
#include <thread>

namespace soak {

// A connection of a scripted player, over TLS or not.
struct Visitor {
    Visitor(uint16_t port, bool overTls, int deadlineMs);
    std::unique_ptr<wire::TlsPeer> tls; // goes last
    std::unique_ptr<wire::ScriptedPeer> peer;

    // Handshake, connect, createStream and play, one behind the other; answers are for the caller to read.
    void play(const std::string &name, const wire::HandshakeOptions &handshake = {});
};

class SteadyPlayer {
  public:
    SteadyPlayer(Recording &recording, uint16_t port, bool overTls, bool readsStandard, const char *name);
    ~SteadyPlayer();
    SteadyPlayer(const SteadyPlayer &) = delete;
    SteadyPlayer &operator=(const SteadyPlayer &) = delete;
    std::string fault() const; // why it came to an end; empty: it plays

  private:
    void run();
    Recording &recording_;
    Visitor visitor_;
    std::atomic<bool> ended_ = false;
    std::string why_;
    std::thread thread_;
};

} // namespace soak
