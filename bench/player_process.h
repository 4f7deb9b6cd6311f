// A process of its own whose players read and discard, so that their CPU time is not the sender's.
#pragma once

#include <cstdint>
#include <sys/types.h>

class PlayerProcess {
  public:
    PlayerProcess(); // forks: make it before any thread runs
    ~PlayerProcess();

    // Both return once all connections stand: players that play "live", or plain connections.
    void connectPlayers(uint16_t port, uint32_t count);
    void connectPlain(uint16_t port, uint32_t count);
    // A player that plays and then reads nothing more.
    void connectStalled(uint16_t port);

    // Returns once every connection has read all of what will come without further writes.
    void waitUntilDrained();
    void disconnectAll();

  private:
    void command(char what, uint16_t port, uint32_t count);
    pid_t pid_;
    int socket_;
};
