// What a steady player has received: every frame is there, in order, and times rise.
#pragma once

#include "soak/numbered_frames.h"
#include "soak/soak_plan.h"

#include <mutex>
#include <string>

namespace soak {

class Recording {
  public:
    Recording(Recorder which, Progress &progress) : which_(which), progress_(progress) {}

    void begin(); // a connection: it may start with any frame
    // A message or tag of type 8 or 9. What is no frame (headers) is passed over.
    void take(uint8_t type, uint32_t timestamp, const uint8_t *body, size_t length);
    void end(); // from here on the host does not wait for it

    bool hasPictures() const;  // since `begin`
    std::string fault() const; // what was wrong first; empty: nothing
    uint64_t frames() const;   // in all connections
    int64_t takeLag();         // the longest way of a picture, in microseconds, since the last call
    int64_t silence() const;   // microseconds since the last picture

  private:
    void check(const FrameMark &mark, uint32_t timestamp);

    struct Line {
        bool begun = false;
        uint64_t number = 0;
        uint32_t timestamp = 0;
    };
    const Recorder which_;
    Progress &progress_;
    mutable std::mutex mutex_;
    Line lines_[2]; // pictures, sound
    std::string fault_;
    uint64_t frames_ = 0;
    int64_t lag_ = 0, lastPicture_ = MicrosNow();
};

} // namespace soak
