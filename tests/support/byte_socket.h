// A connection within this machine, with a deadline on everything and a record of what came.
#pragma once

#include "support/bytes.h"
#include "support/produced.h"

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace wire {

// Thrown when the other side does not do in time what the test waits for.
struct PeerError : std::runtime_error {
    explicit PeerError(const std::string &what, int systemError = 0)
        : std::runtime_error(what), code(systemError)
    {
    }
    int code; // errno, where a system call failed
};

// `body` for a thread of a test: what a peer does not do in time fails the test, and not the whole process.
template <typename Body> auto OnAThread(Body body)
{
    return [body] {
        try {
            body();
        } catch (const PeerError &error) {
            ADD_FAILURE() << error.what();
        }
    };
}

// A connection that stands already: one end of a socket pair, or an accepted socket.
struct Connected {
    int descriptor; // taken over
};

class ByteSocket {
  public:
    explicit ByteSocket(uint16_t port, int deadlineMs = 30000);
    explicit ByteSocket(Connected connection, int deadlineMs = 30000)
        : fd_(connection.descriptor), deadlineMs_(deadlineMs)
    {
    }
    ~ByteSocket();
    ByteSocket(const ByteSocket &) = delete;
    ByteSocket &operator=(const ByteSocket &) = delete;

    void send(const Bytes &bytes);
    void sendInPieces(const Bytes &bytes, size_t pieceSize);
    Bytes receive(size_t count); // exactly `count` bytes, or PeerError

    // True when the server closes without another byte; false when a byte comes, or when nothing happens
    // until the deadline.
    bool ends(int deadlineMs = 30000);

    bool hasBytes(int milliseconds) const; // some can be received, or the end; or come in time

    void finish(); // no more bytes from this side; the other direction stays open
    void leave();  // close
    void reset();  // close with RST: nothing is waited for on either side

    bool isOpen() const
    {
        return fd_ >= 0;
    }
    // Bytes that came another way: receive hands them out behind what it has, also without a connection.
    void hold(const Bytes &more);
    bool holdsMore() const
    {
        return used_ < buffer_.size();
    }
    // Every byte that was taken by receive since the last call.
    Bytes takeRecord();
    void keepRecord(bool keep)
    {
        recording_ = keep;
    }
    void setReceiveBuffer(int bytes);
    int descriptor() const
    {
        return fd_;
    }

  private:
    using Clock = std::chrono::steady_clock;
    void waitFor(short events, Clock::time_point deadline, const char *what) const;
    size_t fill(Clock::time_point deadline); // 0: the other side has closed

    int fd_ = -1;
    int deadlineMs_;
    bool recording_ = true;
    Bytes record_;
    Bytes buffer_;
    size_t used_ = 0; // bytes of buffer_ that were handed out
    produced::Texts came_{"wire"};
    produced::Texts went_{"sent"};
};

} // namespace wire
