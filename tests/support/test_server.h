// A server on a free port of the loopback interface, with sessions, media and everything a host owes the
// library; taken down in order.
#pragma once

#include "rtmpcast/rtmpcast.h"
#include "support/bytes.h"
#include "support/capture_logger.h"
#include "support/players_of_this_run.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace wire {

struct SessionSetup {
    bool video = true;
    bool audio = true;
    bool media = true;   // register them
    bool sender = true;  // choose how frames leave
    uint32_t mode = 0;   // RTMP_SENDER_THREADED, or the packet monitor
    uint32_t queue = 30; // frames per queue of the threaded sender, less one
};

// What the registered media look like to a player: 1280x720 Baseline 3.1 at 2,500 kbit/s, 44,100 Hz stereo.
Bytes ParameterSets(); // Annex B
Bytes AvcHeaderBody(); // body of the AVC sequence header message
Bytes AacHeaderBody(); // body of the AAC sequence header message
Bytes MetaDataBody(const SessionSetup &setup = {});

// The NAL header of a frame that every player of this run gets: an inter frame, or a key frame where players
// wait for one.
inline uint8_t OrdinaryNal()
{
    return (PlayersOfThisRun() & RTMP_PLAYERS_KEY_FRAME) != 0 ? 0x65 : 0x41;
}

// An access unit of `length` bytes: one NAL unit behind its length, filled with a pattern.
Bytes VideoFrame(size_t length, uint8_t nalHeader = OrdinaryNal(), uint8_t fill = 0x11);

// A session of any server, set up as it says.
RtmpSession *NewSession(RtmpServer *server, const std::string &name = "cam", const SessionSetup &setup = {});

class TestServer {
  public:
    // `logger` null: lines are kept in `log`.
    explicit TestServer(int chunkSize = 4096, RtmpLogger *logger = nullptr);
    ~TestServer();
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    RtmpSession *session(const std::string &name = "cam", const SessionSetup &setup = {});
    int destroy(); // at most once; the destructor does it otherwise

    // Every serve thread that was started has written its last line.
    bool waitForClientsToEnd();

    CaptureLogger log;
    RtmpServer *server = nullptr;
    uint16_t port = 0;

  private:
    static void Relay(void *context, uint8_t level, const char *format, va_list arguments);

    RtmpLogger *logger_;
    RtmpLogger relay_;
    std::mutex mutex_; // of the two counts
    std::condition_variable ended_one_;
    size_t started_ = 0; // serve threads
    size_t ended_ = 0;
};

int SendVideo(RtmpSession *session, const Bytes &frame, uint64_t timestamp);
int SendAudio(RtmpSession *session, const Bytes &frame, uint64_t timestamp);

// For a listener: below the range that the kernel hands out to connecting sockets. Whoever else listens there
// already is told by the failing bind.
uint16_t SomePort();

// Descriptors that this process has open.
size_t OpenDescriptors();

// Threads that this process runs.
size_t RunningThreads();

// Log lines with pointers replaced by "<p>", without those of some functions (other threads' as a rule).
std::vector<std::string> Transcript(const CaptureLogger &log, const std::vector<std::string> &without);

} // namespace wire
