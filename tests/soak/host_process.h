// The host's process, seen from outside: what it says, and what the system says of it.
#pragma once

#include "soak/soak_plan.h"

#include <mutex>
#include <string>
#include <sys/types.h>

namespace soak {

// What the host says of itself.
struct Figures {
    uint64_t inUse = 0, frames = 0, sessions = 0, dropped = 0, accepted = 0, left = 0, published = 0;
};

class HostProcess {
  public:
    HostProcess(const std::string &program, uint32_t seed);
    ~HostProcess(); // kills it if it still runs
    HostProcess(const HostProcess &) = delete;
    HostProcess &operator=(const HostProcess &) = delete;

    std::string ask(const std::string &line); // throws when it is gone, or says nothing for five minutes
    Figures figures();
    Progress &progress()
    {
        return *progress_;
    }
    long residentKiB() const;
    int descriptors() const;
    int threads() const;

    // After `end`: its exit code; 256 and more: it was ended by a signal.
    int finish();

  private:
    int entries(const char *folder) const;
    std::string howItEnded(); // of one that has closed its end of the connection
    Progress *progress_ = nullptr;
    std::mutex mutex_;
    pid_t pid_ = -1;
    int control_ = -1;
};

} // namespace soak
