// SendMsgToConnectedClients as a script: what it was given, and where it waits or fails, is in the test's
// hands. It blocks as a real send does, in a cancellation point.
#pragma once

#include "instruments/queue_records.h"
#include "net/atomic.h"
#include "support/calls.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/records.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct SentFrame {
    uint32_t kind;
    std::string data;
    uint64_t delta;
    int32_t fd;
    uint64_t mapBase;
};

class FanOut {
  public:
    static FanOut &get();
    void reset();

    // Frames that carry this text are not sent; the call fails.
    void failOn(const std::string &text);
    // Every call waits inside until it is let through.
    void hold();
    void let(int calls);
    void release(); // all of them, from now on
    bool waitForCallInside() const;
    bool waitForSent(size_t count) const;

    std::vector<SentFrame> sent() const;
    std::vector<std::string> texts() const; // "V one 33": kind, data, delta
    size_t count() const;

    int call(RtmpSession *session, SentFrame frame, const uint8_t *data);

  private:
    void waitInside();
    mutable std::mutex mutex_;
    std::vector<SentFrame> sent_;
    std::set<std::string> failing_;
    std::atomic<bool> holding_{false};
    std::atomic<int> inside_{0};
    int gate_[2] = {-1, -1};
};

// A server, a session with one playing client, and a queue. No thread but the sender's.
class SenderRig : public Records {
  public:
    explicit SenderRig(uint32_t audioQueueSize = 10, uint32_t videoQueueSize = 10);
    ~SenderRig();
    SenderRig(const SenderRig &) = delete;

    RtmpThreadedQueue *queue()
    {
        return session.Queue;
    }
    int send(const std::string &text, uint64_t timestamp, int64_t mediaType);
    int video(const std::string &text, uint64_t timestamp);
    int audio(const std::string &text, uint64_t timestamp);
    // Ring locks and session list lock are free.
    testing::AssertionResult locksAreFree();
    bool waitForEnd(); // of the sender thread

    RtmpClient first = {};
    RtmpClient second = {};
    VdCodecInfo videoInfo = {};
    CodecInfo codecInfo = {};
};
