// SendMsgToConnectedClients as a script: what it was given, and where it waits or fails, is in the test's
// hands. It blocks as a real send does, in a cancellation point.
#pragma once

#include "instruments/queue_records.h"
#include "net/atomic.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
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

// Allocations and threads that are refused from now on, by the library and by whoever else asks.
extern std::atomic<bool> g_refuseThreads;
extern std::atomic<int> g_reallocsUntilRefusal; // negative: none is refused
extern std::atomic<int> g_callocsUntilRefusal;

// The wall clock as the library reads it runs this far ahead of the system's: to whoever measures a wait by
// it, the system's clock seems set back.
extern std::atomic<time_t> g_secondsAhead;

// A server, a session with one playing client, and a queue. No thread but the sender's.
class SenderRig {
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

    CaptureLogger log;
    RtmpServer server = {};
    RtmpSession session = {};
    RtmpClient first = {};
    RtmpClient second = {};
    VdCodecInfo videoInfo = {};
    CodecInfo codecInfo = {};
};
