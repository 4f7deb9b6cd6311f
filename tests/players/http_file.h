// A file that can be had over HTTP: what a player hashes to sign its handshake.
#pragma once

#include <string>
#include <thread>

class HttpFile {
  public:
    explicit HttpFile(const std::string &body);
    ~HttpFile();
    HttpFile(const HttpFile &) = delete;
    HttpFile &operator=(const HttpFile &) = delete;
    std::string url() const;

  private:
    void serve();

    const std::string response_;
    int listener_ = -1;
    unsigned port_ = 0;
    std::thread thread_;
};
