// What the library's controllers ask of the one encoder that feeds all sessions.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>

// Used on the thread that calls RtmpSendData alone: it is the one that controllers call on.
class BitrateWishes {
  public:
    void wish(const void *session, int32_t bitrate)
    {
        wishes_[session] = bitrate;
        changed_ = true;
    }

    // Whether that session's wish is looked at; it is, unless said otherwise. One that sends to nobody wishes
    // for nothing.
    void heed(const void *session, bool isHeeded)
    {
        if (isHeeded ? ignored_.erase(session) > 0 : ignored_.insert(session).second) {
            changed_ = true;
        }
    }

    // The lowest of the sessions' wishes, bit/s, once after any of them changed; otherwise 0: also
    // when none is left.
    int32_t take()
    {
        if (!std::exchange(changed_, false)) {
            return 0;
        }
        int32_t lowest = 0;
        for (const auto &[session, bitrate] : wishes_) {
            if (!ignored_.contains(session) && (lowest == 0 || bitrate < lowest)) {
                lowest = bitrate;
            }
        }
        return lowest;
    }

  private:
    std::map<const void *, int32_t> wishes_;
    std::set<const void *> ignored_;
    bool changed_ = false;
};
