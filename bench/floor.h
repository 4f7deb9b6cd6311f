// The floors: plain loops over connected sockets that send the very bytes which players get, and nothing
// else.
#pragma once

#include "contender.h"

#include <memory>
#include <sys/uio.h>

enum class FloorWay {
    PerMessage, // a sendmsg per message and socket, its pieces side by side where the frame stands
    PerPicture, // one for the sound that is due and the picture behind it, each finished in one piece; on
                // sockets with the options that the steady road sets
    File        // the picture's bytes by sendfile, what is between them by send: two calls per chunk
};

class Floor : public Contender {
  public:
    // Connects `count` plain sockets. `chunkSize` is what the file way cuts by.
    Floor(PlayerProcess &process, uint32_t count, FloorWay way, size_t chunkSize = kChunkSize);
    ~Floor() override;
    void send(const Turn &turn) override;

  private:
    struct Laid; // a turn, laid out for sending
    const Laid &laidOut(const Turn &turn);
    void layOutPieces(const Frame &frame, Laid &laid) const;
    void sendCalls(const Laid &laid, int socket) const;
    void sendFromFile(const Turn &turn, int socket) const;
    void writeFile();

    const FloorWay way_;
    const size_t chunkSize_;
    int file_ = -1;
    std::vector<int> sockets_;
    std::vector<std::unique_ptr<Laid>> laid_;
};
