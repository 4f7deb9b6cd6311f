// A server of the library with one session and its players.
#pragma once

#include "contender.h"

#include "rtmpcast/rtmpcast.h"

enum class Road { Exact, Steady };
enum class Source { Memory, File }; // of pictures

struct LibrarySettings {
    Road road = Road::Exact;
    uint32_t mode = 0; // RTMP_SENDER_THREADED, or the monitor
    Source source = Source::Memory;
    uint32_t rules = RTMP_PLAYERS_EXACT;
    uint32_t options = 0; // RTMP_SERVICE_...
};

class Library : public Contender {
  public:
    // Starts the server and brings what it needs once for all into memory: the session's first player is
    // gone.
    Library(PlayerProcess &process, uint32_t count, const LibrarySettings &settings);
    ~Library() override;

    void connect(); // the players
    void send(const Turn &turn) override;
    void sendFrame(const Frame &frame);
    double residentPerPlayer() const
    {
        return residentPerPlayer_;
    }
    uint16_t port() const
    {
        return port_;
    }
    bool isStandard() const // players read what RTMP 1.0 allows
    {
        return settings_.road == Road::Steady;
    }
    RtmpSession *session() const
    {
        return session_;
    }

  private:
    void startServer();
    void describeMedia() const;
    void mapFrames();
    void sendSecond();

    PlayerProcess &process_;
    const LibrarySettings settings_;
    RtmpServer *server_ = nullptr;
    RtmpSession *session_ = nullptr;
    double residentPerPlayer_ = 0;
    uint16_t port_ = 0;
    int file_ = -1;
    uint8_t *map_ = nullptr;
};
