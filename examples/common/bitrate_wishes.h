// What the library's controllers ask of the one encoder that feeds all sessions.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

// Used on the thread that calls RtmpSendData alone: it is the one that controllers call on.
class BitrateWishes {
  public:
    void wish(const void *session, int32_t bitrate)
    {
        wishes_[session] = bitrate;
        changed_ = true;
    }

    // The lowest of the sessions' wishes, bit/s, once after any of them changed; otherwise 0.
    int32_t take()
    {
        if (!std::exchange(changed_, false)) {
            return 0;
        }
        return std::ranges::min_element(wishes_, {}, [](const auto &wish) { return wish.second; })->second;
    }

  private:
    std::map<const void *, int32_t> wishes_;
    bool changed_ = false;
};
