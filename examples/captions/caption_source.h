// Captions for the sessions of a host: cues from a file or from standard input, and a generator for each
// session, which the library asks for the bytes of each picture (caption_functions.cpp).
#pragma once

#include "cue_list.h"
#include "cue_reader.h"
#include "pop_on.h"

#include <rtmpcast/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// A file of captions that cannot be read.
class CaptionError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class CaptionSource {
  public:
    // Reads SubRip or plain text from a file to its end, or, "-", from standard input while the host runs.
    // Throws CaptionError.
    explicit CaptionSource(const std::string &file);
    ~CaptionSource();
    CaptionSource(const CaptionSource &) = delete;
    CaptionSource &operator=(const CaptionSource &) = delete;

    // Switches captions on for a session, behind its RtmpSenderSettings and in front of its first frame. Ends
    // with the session, which the source has to outlive.
    void addTo(RtmpSession *session);

    // In front of each RtmpSendData of a picture; once where several sessions get it. `timestamp` is what
    // RtmpSendData is told, milliseconds. Captions count from the first one.
    void pictureAt(uint64_t timestamp);

    // Behind an RtmpSendData that nobody watched (RTMP_ERR_NO_CLIENT).
    static void pictureWasUnwatched(RtmpSession *session);

    int64_t now() const // of the last picture
    {
        return now_;
    }
    const CueList &cues() const
    {
        return cues_;
    }

  private:
    void readFile(const std::string &file);
    void readInput();
    void take(std::optional<Cue> cue);

    CueList cues_;
    CueReader reader_; // the reading thread's, once there is one
    std::atomic<bool> begun_ = false;
    uint64_t first_ = 0;
    std::atomic<int64_t> now_ = 0;
    int wake_ = -1; // ends the reading thread
    std::thread thread_;
};

// The captions of one session: what the handle of cc_gen_init points to.
class CaptionGenerator {
  public:
    void begin(const CaptionSource &source, bool inStream);
    void wasUnwatched();

    // The SEI of the next picture as the library takes it; empty: none. Where captions are in the video, a
    // picture may have no place for them.
    std::span<uint8_t> next(uint32_t timestampDelta, bool hasPlace);

  private:
    const CaptionSource *source_ = nullptr; // null: captions are off
    std::unique_ptr<PopOn> popOn_;
    bool inStream_ = true;              // a whole NAL unit; else the message alone
    std::atomic<bool> isBehind_ = true; // pictures have passed without being asked for
    int64_t clock_ = 0;
    std::vector<uint8_t> sei_;
};
