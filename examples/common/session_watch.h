// A look at the sessions of the steady road, once a second.
#pragma once

#include <rtmpcast/service.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct SessionLook {
    std::string name;
    RtmpSessionFigures figures;
    std::vector<RtmpClientFigures> viewers;
};

// All sessions at one moment.
struct Look {
    std::vector<SessionLook> sessions;
    uint32_t viewers() const;
    uint64_t bytes() const;
    uint64_t droppedFrames() const;
    uint32_t slowestMilliseconds() const;
};

// Sessions are added and taken away by the thread that makes and ends them; any thread may look.
class SessionWatch {
  public:
    void add(const std::string &name, RtmpSession *session);
    void clear();                    // before the sessions end
    Look look(bool atViewers) const; // false: at sessions alone, which costs less

  private:
    struct Watched {
        std::string name;
        RtmpSession *session;
    };
    mutable std::mutex mutex_;
    std::vector<Watched> sessions_;
};

// What a second was like, beside the look.
struct Second {
    int64_t unixTime; // seconds
    long uptime;      // seconds
    double inKbps;    // from the source
    double outKbps;   // to all viewers
};

// One line of JSON, with its end.
std::string jsonLine(const Second &second, const Look &look);

// A file that grows by a line at a time, each in one write: whoever reads whole lines never reads half of
// one.
class LineFile {
  public:
    explicit LineFile(const std::string &path); // throws std::runtime_error
    ~LineFile();
    LineFile(const LineFile &) = delete;
    LineFile &operator=(const LineFile &) = delete;
    bool append(const std::string &line); // false: it could not be written

  private:
    int file_;
};
