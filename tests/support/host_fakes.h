// Recording fakes of every host function. Tests set what they answer and read what they were called with.
#pragma once

#include "rtmpcast/host.h"

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// A call of rtmpViewer...: the texts outlive it.
struct ViewerCall {
    std::string what;  // "accepted", "connects", "plays", "left"
    RtmpViewer viewer; // the texts are the three below
    std::string app, tcUrl, stream;
    pthread_t thread;
};

struct StatusReport {
    void *context;
    std::string key, value, description;
    bool operator==(const StatusReport &) const = default;
};

// What was recorded, in the order in which it came; any thread may add, and a reader gets a copy.
template <typename Item> class Recorded {
  public:
    void add(Item item)
    {
        const std::lock_guard<std::mutex> held(mutex_);
        items_.push_back(std::move(item));
    }
    std::vector<Item> operator()() const
    {
        const std::lock_guard<std::mutex> held(mutex_);
        return items_;
    }
    void clear()
    {
        const std::lock_guard<std::mutex> held(mutex_);
        items_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Item> items_;
};

class HostFakes {
  public:
    static HostFakes &get(); // one for the process: host functions are plain C
    void reset();

    // Answers; set before the threads that use them start.
    uint64_t captionHandle = 0xCC;
    std::function<int32_t(const uint8_t *, int32_t, int32_t *)> findCaptionPlace;
    std::function<void(uint64_t, uint8_t **, int32_t *, uint32_t)> getSei;
    std::function<void(uint8_t *, int32_t, int32_t)> increaseNalSize;
    std::function<RtmpSendPkt *(RtmpClient *, uint32_t, uint64_t)> captionMessage;
    std::function<void()> status;                    // runs inside rtmpStatusMessage
    std::function<int(void *, void *, int)> sslRead; // only where libssl is not linked
    std::function<int(void *, const void *, int)> sslWrite;
    std::function<struct ssl_st *(int, const std::string &)> tlsAccept; // the socket, the peer's address
    std::function<void(struct ssl_st *)> tlsEnd;

    std::function<int32_t(const ViewerCall &)> viewer; // what rtmpViewer... answers; runs inside

    // What the host was told.
    Recorded<StatusReport> statusReports;
    Recorded<std::pair<void *, int32_t>> bitrates;
    Recorded<RtmpSession *> keyFramesWanted;
    Recorded<std::string> syslog; // "tag|text"
    Recorded<uint64_t> closedCaptionHandles;
    Recorded<std::pair<RtmpClient *, int32_t>> publishStates;
    Recorded<std::pair<RtmpClient *, std::string>> recordActions;
    Recorded<std::pair<void *, int>> tlsErrors;
    Recorded<ViewerCall> viewers;
};
