// The other ends of the connections that a host state has: a thread that reads whatever the library writes,
// so that the host's calls come back. A peer may stop reading: then a call that waits for it is let go after
// a while.
#pragma once

#include "support/bytes.h"

#include <atomic>
#include <cstdint>
#include <mutex>

class HostPeers {
  public:
    static HostPeers &get(); // its thread is there for good

    // A descriptor that is read until `leave`, and closed by it. A service answers the first 1537 bytes with
    // a handshake, if it is to, and `script`.
    int sit(int fd);
    int sitAsService(int fd, bool shakesHands, Bytes script);
    void send(int seat, const Bytes &bytes); // as much as fits
    void stopReading(int seat);
    void readOn(int seat);
    void finish(int seat); // nothing more comes from it
    void leave(int seat, bool rudely);

    // While one lives, the host's thread is in a call of the library that may wait for a peer.
    class Call {
      public:
        Call();
        ~Call();
        Call(const Call &) = delete;
        Call &operator=(const Call &) = delete;

      private:
        const bool isOutermost_;
    };

  private:
    static constexpr int kSeats = 12;
    static constexpr size_t kFirstPacket = 1537; // C0 and C1
    struct Seat {
        int fd = -1;
        bool isStopped = false, isOver = false, shakesHands = false;
        Bytes first, script;
    };
    HostPeers();
    [[noreturn]] void run();
    void waitForBytes();
    void readAll();
    void readSeat(Seat &seat);
    void hearFirstPacket(Seat &seat, const uint8_t *bytes, size_t count);
    void shutAllIfStuck();
    uint64_t stuckFor() const;
    void wake() const;
    int take(Seat seat);

    std::mutex lock_; // of the seats
    Seat seats_[kSeats];
    std::atomic<uint64_t> callSince_ = 0; // ms; 0: in none
    int bell_;
};
