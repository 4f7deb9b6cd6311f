// The cues of a source, which grow while it is read. Any thread.
#pragma once

#include "cue.h"

#include <mutex>
#include <optional>
#include <vector>

class CueList {
  public:
    void add(Cue cue)
    {
        const std::lock_guard<std::mutex> held(mutex_);
        cues_.push_back(std::move(cue));
    }

    std::optional<Cue> at(size_t index) const
    {
        const std::lock_guard<std::mutex> held(mutex_);
        return index < cues_.size() ? std::optional<Cue>(cues_[index]) : std::nullopt;
    }

    size_t size() const
    {
        const std::lock_guard<std::mutex> held(mutex_);
        return cues_.size();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Cue> cues_;
};
