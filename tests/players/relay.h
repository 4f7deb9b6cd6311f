// nginx with its RTMP module: pulls the stream of a host and passes it on, over RTMP and HLS.
#pragma once

#include "stage.h"

class Relay {
  public:
    Relay(const LiveHost &host, const Directory &work);

    std::string url() const;
    bool waitForHls(); // a playlist with so much that a player begins
    std::string playlist() const
    {
        return playlist_;
    }
    bool waitForText(const std::string &text)
    {
        return process_->waitForText(text);
    }
    std::string output() const
    {
        return process_->output();
    }

  private:
    std::unique_ptr<Process> process_;
    uint16_t port_ = 0;
    std::string playlist_;
};
