// A session that is published to a service, whatever happens to the service: the host connects again.
#pragma once

#include "soak/busy_server.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace soak {

class Publication {
  public:
    Publication(BusyServer &server, RtmpSession *session, uint16_t servicePort);
    ~Publication(); // its thread has ended, or ends without having to be told
    Publication(const Publication &) = delete;
    Publication &operator=(const Publication &) = delete;

    void endWithSession();                 // the last connection ends with its session
    void stop();                           // ..., or says good-bye
    std::atomic<uint64_t> connections = 0; // that came as far as frames

  private:
    void run();
    void publish(int socket);
    bool mayGoOn();

    BusyServer &server_;
    RtmpSession *const session_;
    const uint16_t servicePort_;
    RtmpPublisher *current_ = nullptr;
    bool stop_ = false;
    std::mutex mutex_;
    std::condition_variable stopped_;
    std::thread thread_;
};

} // namespace soak
