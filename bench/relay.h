// nginx with its RTMP module, where it is installed, as another way to bring the same clip to players.
#pragma once

#include "contender.h"

#include <memory>
#include <string>

bool IsRelayInstalled();

class Relay : public Contender {
  public:
    Relay(PlayerProcess &process, uint32_t count); // starts it, publishes to it, connects the players
    ~Relay() override;
    void send(const Turn &turn) override;

  private:
    void start();
    void publish();

    struct Publisher;
    std::unique_ptr<Publisher> publisher_;
    std::string directory_;
    uint16_t port_ = 0;
};
