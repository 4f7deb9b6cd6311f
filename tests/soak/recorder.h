// A real player, rtmpdump, that records from the first to the last moment.
#pragma once

#include "soak/recording.h"

#include <atomic>
#include <sys/types.h>
#include <thread>

namespace soak {

class DumpRecorder {
  public:
    DumpRecorder(Recording &recording, uint16_t port, const std::string &name);
    ~DumpRecorder();
    DumpRecorder(const DumpRecorder &) = delete;
    DumpRecorder &operator=(const DumpRecorder &) = delete;
    std::string fault() const; // why it came to an end; empty: it records

  private:
    void run();
    bool readTag();
    bool readExactly(void *to, size_t length);

    Recording &recording_;
    pid_t pid_ = -1;
    int pipe_ = -1;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

} // namespace soak
