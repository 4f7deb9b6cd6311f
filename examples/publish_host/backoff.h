// Pauses between connections: they grow from a second to a minute, and no two programs keep the same ones.
#pragma once

#include <algorithm>
#include <chrono>
#include <random>

class Backoff {
  public:
    std::chrono::milliseconds next()
    {
        const int64_t most = longest_;
        longest_ = std::min(longest_ * 2, kMost);
        return std::chrono::milliseconds(std::uniform_int_distribution<int64_t>(most / 2, most)(random_));
    }

    void reset()
    {
        longest_ = kFirst;
    }

  private:
    static constexpr int64_t kFirst = 2'000; // 1 to 2 s
    static constexpr int64_t kMost = 60'000; // 30 to 60 s
    int64_t longest_ = kFirst;
    std::mt19937 random_{std::random_device{}()};
};
