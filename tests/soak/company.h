// Fifty who come and go while the tide is in.
#pragma once

#include "soak/audience.h"
#include "soak/visits.h"

#include <atomic>

namespace soak {

class Company {
  public:
    Company(const Ports &ports, int size, uint32_t seed);
    ~Company();
    Company(const Company &) = delete;
    Company &operator=(const Company &) = delete;

    void come();
    void leave(); // returns when all have gone, but for those that are parked
    void closeParked();
    int present() const
    {
        return present_;
    }

    Audience takeAudience(); // so far: whoever is there still is not judged
    uint64_t visitsToExactRoad() const;

    std::atomic<uint64_t> visits[kManners] = {};
    std::atomic<uint64_t> toSteadyRoad = 0, overTls = 0;

  private:
    void run(uint32_t seed);
    void visitOnce(std::mt19937 &random);
    void note(const Visit &visit, const std::string &end);

    const Ports ports_;
    Tide tide_;
    std::mutex mutex_;
    std::condition_variable idle_;
    int busy_ = 0;
    Audience audience_;
    bool isJudged_ = true;
    std::atomic<int> present_ = 0;
    std::vector<std::unique_ptr<Visitor>> parked_;
    std::vector<std::thread> threads_;
};

} // namespace soak
