// A process of its own whose players read and discard, so that their CPU time is not the sender's.
#pragma once

#include <cstdint>
#include <sys/types.h>

class PlayerProcess {
  public:
    PlayerProcess(); // forks: make it before any thread runs
    ~PlayerProcess();

    // These return once all connections stand: players that play "live" (`standard`: they read what RTMP 1.0
    // allows, not what the exact road sends), players of another server, whose answers are not waited for,
    // and plain connections.
    void connectPlayers(uint16_t port, uint32_t count, bool standard);
    void connectRelayed(uint16_t port, uint32_t count);
    void connectPlain(uint16_t port, uint32_t count);
    // Players that play and then read nothing more.
    void connectStopped(uint16_t port, uint32_t count, bool standard);

    // Returns once at least `bytes` have come for all connections together since the last call, and no more
    // come.
    void waitUntilDrained(uint64_t bytes);
    void disconnectAll();

    // Has the process note when each of its connections has got `bytes` more; wait returns when the last one
    // had (CLOCK_MONOTONIC, ns). With only one port's players, or plain connections, in the process.
    void arm(uint64_t bytes);
    uint64_t waitForLast();

  private:
    void command(char what, uint16_t port, uint64_t count, bool standard = false);
    pid_t pid_;
    int socket_;
};
