// The library as live_host uses it: one server, its sessions, and every frame to all of them.
#pragma once

#include "captions/caption_source.h"
#include "console.h"
#include "frame_source.h"
#include "memory_file.h"
#include "options.h"
#include "session_setup.h"
#include "session_watch.h"

#include <rtmpcast/rtmpcast.h>

#include <atomic>
#include <memory>
#include <vector>

// What went out so far; written by the sending thread, read by any.
struct Counters {
    std::atomic<uint64_t> sent = 0;      // frames the library took, counted once per session
    std::atomic<uint64_t> dropped = 0;   // frames that some player missed, or nobody could be sent
    std::atomic<uint64_t> unwatched = 0; // frames offered while nobody was connected
    std::atomic<uint64_t> bytes = 0;     // of the frames sent
    std::atomic<int32_t> viewers = 0;
    std::atomic<int32_t> targetBitrate = -1; // bit/s, what the encoder was told last; -1: nothing
    std::atomic<int32_t> measuredKbps = -1;  // the library's last "rtmpBandwidth"; -1: none
    std::atomic<uint32_t> flushes = 0;       // full video rings that the library threw away
};

// The directories for --trace-dir, one a session: traces of the same second have the same name.
std::vector<std::string> traceDirectories(const Options &options);

class Host {
  public:
    // Opens the listeners and makes every session. Throws HostError.
    Host(const Options &options, const MediaDescription &media, Console &console, Counters &counters,
         SessionWatch &watch, CaptionSource *captions = nullptr);

    // Ends the sessions, then the server.
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // Offers one frame to every session; `timestamp` in milliseconds.
    void send(const Frame &frame, uint64_t timestamp);

  private:
    static void writeLine(void *host, uint8_t level, const char *format, va_list arguments);
    void prepareServer(const Options &options);
    void takeSteadyRoad(const Options &options);
    void setSendBuffer(uint32_t kib);
    void addSession(const std::string &name, const Options &options, const MediaDescription &media);
    void reopenSenders();
    void count(int32_t status, size_t bytes);
    void destroyAll();

    Console &console_;
    RtmpLogger logger_;
    RtmpServer *server_ = nullptr;
    std::vector<RtmpSession *> sessions_;
    std::unique_ptr<MemoryFile> memory_; // null: frames are copied
    Counters &counters_;
    CaptionSource *captions_;               // null: none
    SessionWatch &watch_;                   // of the sessions that are on the steady road
    std::atomic<bool> senderEnded_ = false; // set on the sender thread, seen on the sending one
};
