// The other end of a connection, on the library's own thread: whenever the library is about to read, the peer
// takes what has been written to it and sends its next piece. So nothing waits, and nothing is left to
// chance.
#pragma once

#include "support/fuzz_input.h"

#include <functional>
#include <sys/types.h>
#include <vector>

class FuzzPeer {
  public:
    FuzzPeer();
    ~FuzzPeer(); // closes both ends
    FuzzPeer(const FuzzPeer &) = delete;
    FuzzPeer &operator=(const FuzzPeer &) = delete;

    // The library's end.
    int socket() const
    {
        return ends_[0];
    }
    // What the library's reads get, and then the end. An input comes in pieces of so many bytes, or more
    // where they would be hundreds; 0: in one.
    void send(FuzzInput input, size_t piece = 0);
    void send(const std::vector<uint8_t> &bytes);
    // Asked once, when a read finds that everything has been sent: it may send more, and set another.
    std::function<void()> whenDry;
    // Asked in front of every read that finds nothing in the socket.
    std::function<void()> beforeRead;
    // What the library has written; at most the first kKept bytes of it are kept.
    const std::vector<uint8_t> &written();

    // The library closes its end itself.
    void giveSocketAway()
    {
        isGivenAway_ = true;
    }

    // A read in which nothing is sent meanwhile, and that does not wait: the library holds a lock.
    ssize_t readAsItIs(void *bytes, size_t length);

    void libraryReads();
    void libraryWaits(short events);
    void libraryHasRead(ssize_t count);

  private:
    static constexpr size_t kKept = 65536;
    size_t nextPiece() const;
    void sendPiece();
    int ends_[2];
    std::vector<uint8_t> toSend_;
    size_t sent_ = 0, cutFrom_ = 0, piece_ = 0, unread_ = 0;
    uint32_t reads_ = 0;
    bool ended_ = false, isGivenAway_ = false;
    std::vector<uint8_t> written_;
};
