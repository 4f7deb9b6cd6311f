// A session and the host's thread that hands its frames over, one after the other, as an encoder does.
#pragma once

#include "soak/busy_server.h"
#include "soak/numbered_frames.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace soak {

// What all feeders share: figures, and who must not be left behind.
struct Feed {
    Progress *progress = nullptr;
    std::atomic<uint64_t> frames = 0;   // that were handed over
    std::atomic<uint64_t> sessions = 0; // that were made
    std::atomic<uint64_t> dropped = 0;  // frames that slow players of sessions that are gone did not get
    std::atomic<bool> waitsForRecorders = true;
    std::atomic<int64_t> lostPicture = -1; // a fault: this number is left out
    std::atomic<int64_t> heldMs = 0;       // a fault: so long ago the pictures were made
};

class FrameFeeder {
  public:
    // `lasting`: which of kLasting it is, -1: none.
    FrameFeeder(BusyServer &server, const SessionPlan &plan, int lasting, Feed &feed);
    ~FrameFeeder(); // ends the thread, then the session
    FrameFeeder(const FrameFeeder &) = delete;
    FrameFeeder &operator=(const FrameFeeder &) = delete;

    RtmpSession *session = nullptr;
    uint64_t droppedFrames() const; // as the library counts them; 0 on the exact road

  private:
    void describe() const;
    void run();
    bool waitForTurn(int64_t &due);
    bool isAheadOfRecorders() const;
    void sendTurn();
    void offer(const FrameMark &mark, uint64_t timestamp);
    void mendSender(int32_t result);

    BusyServer &server_;
    const SessionPlan plan_;
    const int lasting_;
    Feed &feed_;
    uint64_t picture_ = 0, sound_ = 0;
    uint32_t mendedFailures_;
    bool isFresh_ = true; // the threaded sender has had no frame since its last reset
    bool stop_ = false;
    std::mutex mutex_;
    std::condition_variable stopped_;
    std::thread thread_;
};

} // namespace soak
