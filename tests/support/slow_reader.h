// A player that reads so many bytes at a time, whose script reads as it likes.
#pragma once

#include "support/byte_socket.h"

#include <memory>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace wire {

// Reads a peer's bytes as a slow player would, and hands them on at once.
class SlowReader {
  public:
    SlowReader(int from, size_t piece) : from_(from), piece_(piece)
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        to_ = ends[0];
        socket = std::make_unique<ByteSocket>(Connected{ends[1]});
        socket->keepRecord(false);
        thread_ = std::thread([this] { relay(); });
    }
    ~SlowReader()
    {
        shutdown(from_, SHUT_RDWR);
        thread_.join();
        close(to_);
    }
    SlowReader(const SlowReader &) = delete;
    SlowReader &operator=(const SlowReader &) = delete;
    std::unique_ptr<ByteSocket> socket;

  private:
    void relay()
    {
        Bytes piece(piece_);
        for (ssize_t got = recv(from_, piece.data(), piece_, 0); got > 0;
             got = recv(from_, piece.data(), piece_, 0)) {
            if (::send(to_, piece.data(), static_cast<size_t>(got), MSG_NOSIGNAL) != got) {
                return;
            }
        }
    }
    int from_, to_ = -1;
    size_t piece_;
    std::thread thread_;
};

} // namespace wire
