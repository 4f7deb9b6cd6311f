// Who comes for a while: in which manner, by which road, to which session. All is drawn from a seed.
#pragma once

#include "soak/steady_player.h"

#include <condition_variable>
#include <mutex>
#include <random>
#include <vector>

namespace soak {

struct Ports {
    uint16_t exact = 0, today = 0, steady = 0, tls = 0, tunnel = 0;
};

// While it is in, players come and go; when it goes out, all leave.
class Tide {
  public:
    void in();
    void out();
    bool isIn() const;
    bool stay(int milliseconds); // false: it has gone out
    bool waitUntilIn();          // false: it is over
    void over();

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool isIn_ = false, isOver_ = false;
};

enum class Manner {
    Viewer,        // watches, a picture at least, says deleteStream and goes
    Leaver,        // goes in the middle of a frame
    Resetter,      // the same with a reset
    Slow,          // reads two kilobytes a second
    Stopped,       // reads nothing any more, then resets
    Wanderer,      // commands in any order
    HalfHandshake, // of any length, then stays, goes or resets
    Garbage,       // at any moment
    Drip,          // one byte a second
    Silent,        // connects
    Tunnel,        // connects to the second port
    Manners
};
constexpr int kManners = static_cast<int>(Manner::Manners);
extern const char *const kNameOfManner[kManners];

class Visit {
  public:
    Visit(const Ports &ports, Tide &tide, std::mt19937 &random);
    ~Visit();

    // What it is throws PeerError where the host ends it first.
    void make();

    Manner manner = Manner::Viewer;
    bool isSteady = false, overTls = false, isPolite = false;
    // Viewers of a session that stays and has a steady player of its own: nobody can push them out of the
    // exact road's chain of players behind that one.
    bool isToSeePicture = false, sawPicture = false;
    // One that has said deleteStream to a threaded sender of the exact road, which any failed write ends: to
    // be closed when the host has let go of it.
    std::unique_ptr<Visitor> parked;

  private:
    void choose();
    uint16_t port() const;
    void come(int deadlineMs = 5000);
    void joinIn();
    bool waitForPicture();          // false: none came in a minute
    bool readFor(int milliseconds); // false: tide or connection have ended
    bool readSome(size_t most);
    void watchAndGo();
    void readSlowly();
    void stopReading();
    void wander();
    void shakeHalfAHand();
    void talkGarbage();
    void drip();
    void beSilent();
    void goSomehow();
    Bytes noise(size_t most);
    int draw(int from, int to);

    const Ports &ports_;
    Tide &tide_;
    std::mt19937 &random_;
    uint16_t port_ = 0;
    std::string session_;
    bool isStandard_ = false;
    std::unique_ptr<Visitor> visitor_;
};

} // namespace soak
