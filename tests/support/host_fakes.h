// Recording fakes of every host function. Tests set what they answer and read what they were called with.
#pragma once

#include "rtmpcast/host.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct StatusReport {
    void *context;
    std::string key, value, description;
    bool operator==(const StatusReport &) const = default;
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

    // Records, copied out under the lock.
    std::vector<StatusReport> statusReports() const;
    std::vector<std::pair<void *, int32_t>> bitrates() const;
    std::vector<std::string> syslog() const; // "tag|text"
    std::vector<uint64_t> closedCaptionHandles() const;
    std::vector<std::pair<RtmpClient *, int32_t>> publishStates() const;
    std::vector<std::pair<RtmpClient *, std::string>> recordActions() const;
    std::vector<std::pair<void *, int>> tlsErrors() const;

    void recordStatus(StatusReport report);
    void recordBitrate(void *context, int32_t bitrate);
    void recordSyslog(std::string line);
    void recordClosedCaption(uint64_t handle);
    void recordPublishState(RtmpClient *client, int32_t state);
    void recordAction(RtmpClient *client, std::string action);
    void recordTlsError(void *tls, int result);

  private:
    mutable std::mutex mutex_;
    std::vector<StatusReport> status_;
    std::vector<std::pair<void *, int32_t>> bitrates_;
    std::vector<std::string> syslog_;
    std::vector<uint64_t> closed_;
    std::vector<std::pair<RtmpClient *, int32_t>> states_;
    std::vector<std::pair<RtmpClient *, std::string>> actions_;
    std::vector<std::pair<void *, int>> tlsErrors_;
};
