// A media file as a live source: read in the order of time, and from the start again at its end.
#pragma once

#include "aac.h"
#include "frame_source.h"
#include "h264.h"
#include "libav.h"

#include <deque>
#include <string>

struct AVStream;

class MediaFile : public FrameSource {
  public:
    // Opens the file and reads as far as its description needs. Throws SourceError.
    explicit MediaFile(std::string path);

    const MediaDescription &description() const override
    {
        return description_;
    }

    Frame next() override;

  private:
    struct Packet {
        PacketPtr packet;
        int64_t time; // microseconds on the file's own clock
    };

    struct Track {
        explicit Track(MediaType kind) : type(kind) {}

        MediaType type;
        AVStream *stream = nullptr; // null: the file has no such track
        std::deque<Packet> waiting;
        int64_t first = INT64_MAX; // time of the first packet, file clock
        int64_t end = 0;           // where the last packet read ends, file clock
        int64_t last = INT64_MIN;  // time of the last frame given out
        int64_t frameDuration = 0; // of the last packet read, or the best guess
    };

    void open();
    AVStream *chooseStream(int mediaType, int codec);
    void describe();
    void describeVideo();
    void describeAudio();
    void warnOfReordering();

    bool readPacket(); // false at the end of the file
    void queuePacket(Track &track, PacketPtr packet);
    void fill();
    Track *earliest();
    int64_t length() const;
    bool isTail(const Track &track) const;
    bool convert(const Track &track, Frame &frame);
    void startAgain();

    std::string path_;
    MediaDescription description_;
    FormatPtr format_;
    Track video_{MediaType::Video};
    Track audio_{MediaType::Audio};
    bool ended_ = false;            // the file has no more packets
    bool anyFrame_ = false;         // since the file was opened last
    int64_t fileStart_ = INT64_MAX; // time of the first packet read, file clock
    int64_t roundStart_ = 0;        // where that lies in this round, on the source's clock

    ParameterSets sets_;
    NalFraming framing_;
    bool adts_ = false;
    PacketPtr current_; // what Frame::data may point into
    std::vector<uint8_t> accessUnit_;
};
