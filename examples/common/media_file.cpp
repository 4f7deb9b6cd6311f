#include "media_file.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstdio>

namespace {

constexpr size_t kFarAhead = 1000;     // packets of one track that wait for the other
constexpr int kProbePackets = 2000;    // read at most so many for the codec configuration
constexpr int64_t kOverhang = 100'000; // microseconds that sound may outlast the picture

Bytes extradataOf(const AVStream *stream)
{
    return {stream->codecpar->extradata, static_cast<size_t>(stream->codecpar->extradata_size)};
}

Bytes bytesOf(const PacketPtr &packet)
{
    return {packet->data, static_cast<size_t>(packet->size)};
}

int64_t toMicroseconds(int64_t value, const AVStream *stream)
{
    return av_rescale_q(value, stream->time_base, AV_TIME_BASE_Q);
}

int64_t guessFrameDuration(const AVStream *stream)
{
    const AVCodecParameters *codec = stream->codecpar;
    if (codec->codec_type == AVMEDIA_TYPE_AUDIO) {
        return codec->sample_rate > 0 ? int64_t{1024} * AV_TIME_BASE / codec->sample_rate : 23'220;
    }
    const AVRational rate = stream->avg_frame_rate;
    return rate.num > 0 ? av_rescale(AV_TIME_BASE, rate.den, rate.num) : 33'333;
}

} // namespace

MediaFile::MediaFile(std::string path) : path_(std::move(path))
{
    quietLibav();
    open();
    describe();
}

// ------------------------------------------------------------------------------------ opening, describing

void MediaFile::open()
{
    AVFormatContext *format = nullptr;
    int result = avformat_open_input(&format, path_.c_str(), nullptr, nullptr);
    if (result < 0) {
        throw SourceError(path_ + ": cannot be opened as media: " + errorText(result));
    }
    format_.reset(format);
    result = avformat_find_stream_info(format, nullptr);
    if (result < 0) {
        throw SourceError(path_ + ": its streams cannot be read: " + errorText(result));
    }
    video_.stream = chooseStream(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_H264);
    audio_.stream = chooseStream(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC);
    if (video_.stream == nullptr && audio_.stream == nullptr) {
        throw SourceError(path_ + ": holds neither H.264 video nor AAC audio");
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        AVStream *stream = format_->streams[i];
        stream->discard =
            stream == video_.stream || stream == audio_.stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    ended_ = false;
    anyFrame_ = false;
}

// The first stream of this codec that is no cover picture.
AVStream *MediaFile::chooseStream(int mediaType, int codec)
{
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        AVStream *stream = format_->streams[i];
        if (stream->codecpar->codec_type == mediaType && stream->codecpar->codec_id == codec &&
            (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
            return stream;
        }
    }
    return nullptr;
}

void MediaFile::describe()
{
    if (video_.stream != nullptr) {
        sets_ = parseExtradata(extradataOf(video_.stream), framing_);
    }
    // What the container does not tell is in the first packets; they stay in their queues.
    const auto enough = [this] {
        return (video_.stream == nullptr || (sets_.complete() && !video_.waiting.empty())) &&
               (audio_.stream == nullptr || !audio_.waiting.empty());
    };
    for (int i = 0; i < kProbePackets && !enough() && readPacket(); ++i) {
        if (!sets_.complete() && !video_.waiting.empty()) {
            collectParameterSets(bytesOf(video_.waiting.back().packet), framing_, sets_);
        }
    }
    description_.summary = path_ + ":";
    describeVideo();
    describeAudio();
}

void MediaFile::describeVideo()
{
    if (video_.stream == nullptr) {
        description_.warnings.push_back(path_ + " has no H.264 video");
        return;
    }
    if (!sets_.complete()) {
        throw SourceError(path_ + ": no H.264 parameter sets (SPS and PPS) found");
    }
    const AVCodecParameters *codec = video_.stream->codecpar;
    description_.videoConfig = annexBConfig(sets_);
    description_.videoBitrate = static_cast<uint32_t>(std::clamp<int64_t>(codec->bit_rate, 0, INT32_MAX));
    char text[80];
    snprintf(text, sizeof text, " H.264 %dx%d, %.4g frames/s", codec->width, codec->height,
             1e6 / static_cast<double>(guessFrameDuration(video_.stream)));
    description_.summary += text;
    warnOfReordering();
}

void MediaFile::warnOfReordering()
{
    const bool reordered =
        video_.stream->codecpar->video_delay > 0 ||
        std::ranges::any_of(video_.waiting, [](const Packet &waiting) {
            return waiting.packet->pts != AV_NOPTS_VALUE && waiting.packet->pts != waiting.packet->dts;
        });
    if (reordered) {
        description_.warnings.push_back(
            path_ +
            " has B-frames. Frames go out in decoding order with their decoding times, and the composition "
            "time that players are told is always 0, so they show frames early or judder. Nothing is "
            "reordered here: encode without B-frames (ffmpeg: -bf 0)");
    }
}

void MediaFile::describeAudio()
{
    if (audio_.stream == nullptr) {
        description_.warnings.push_back(path_ + " has no AAC audio");
        return;
    }
    if (video_.stream == nullptr) {
        description_.warnings.push_back(
            "without video no sound is sent: audio leaves in front of the next video "
            "frame, so players get the headers and then nothing");
    }
    const Bytes extradata = extradataOf(audio_.stream);
    adts_ = extradata.empty();
    description_.audioConfig = twoByteConfig(extradata);
    if (adts_ && !audio_.waiting.empty()) {
        const std::optional<AdtsFrame> frame = parseAdts(bytesOf(audio_.waiting.front().packet));
        description_.audioConfig = frame ? twoByteConfig(frame->config) : std::vector<uint8_t>();
    }
    if (description_.audioConfig.empty()) {
        throw SourceError(path_ + ": its AAC configuration does not fit the two bytes that players are told");
    }
    char text[80];
    snprintf(text, sizeof text, "%s AAC %d Hz, %d channels", video_.stream != nullptr ? "," : "",
             audio_.stream->codecpar->sample_rate, audio_.stream->codecpar->ch_layout.nb_channels);
    description_.summary += text;
}

// ------------------------------------------------------------------------------------------------ reading

bool MediaFile::readPacket()
{
    PacketPtr packet(av_packet_alloc());
    const int result = packet != nullptr ? av_read_frame(format_.get(), packet.get()) : AVERROR(ENOMEM);
    if (result == AVERROR_EOF) {
        ended_ = true;
        return false;
    }
    if (result < 0) {
        throw SourceError(path_ + ": reading failed: " + errorText(result));
    }
    constexpr int kUseless = AV_PKT_FLAG_CORRUPT | AV_PKT_FLAG_DISCARD; // discard: an encoder's priming
    if (packet->size > 0 && (packet->flags & kUseless) == 0) {
        for (Track *track : {&video_, &audio_}) {
            if (track->stream != nullptr && track->stream->index == packet->stream_index) {
                queuePacket(*track, std::move(packet));
                break;
            }
        }
    }
    return true;
}

void MediaFile::queuePacket(Track &track, PacketPtr packet)
{
    const int64_t stamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    const int64_t time = stamp != AV_NOPTS_VALUE ? toMicroseconds(stamp, track.stream) : track.end;
    if (fileStart_ == INT64_MAX) {
        fileStart_ = time;
    }
    track.first = std::min(track.first, time);
    track.frameDuration = packet->duration > 0 ? toMicroseconds(packet->duration, track.stream)
                                               : guessFrameDuration(track.stream);
    track.end = time + track.frameDuration;
    track.waiting.push_back({std::move(packet), time});
}

// Files interleave their tracks as they like: read until each has a packet, unless one is far ahead.
void MediaFile::fill()
{
    const auto enough = [](const Track &track) { return track.stream == nullptr || !track.waiting.empty(); };
    while (!ended_ && !(enough(video_) && enough(audio_)) && video_.waiting.size() < kFarAhead &&
           audio_.waiting.size() < kFarAhead) {
        readPacket();
    }
}

MediaFile::Track *MediaFile::earliest()
{
    if (video_.waiting.empty() || audio_.waiting.empty()) {
        return !video_.waiting.empty() ? &video_ : !audio_.waiting.empty() ? &audio_ : nullptr;
    }
    return audio_.waiting.front().time < video_.waiting.front().time ? &audio_ : &video_;
}

// What the file lasts: the picture, or the sound where there is no picture.
int64_t MediaFile::length() const
{
    const Track &ruler = video_.stream != nullptr ? video_ : audio_;
    return ruler.end - ruler.first;
}

// Sound that outlasts the picture would step over the start of the next round.
bool MediaFile::isTail(const Track &track) const
{
    return track.type == MediaType::Audio && video_.stream != nullptr && ended_ && video_.waiting.empty() &&
           track.waiting.front().time >= video_.end;
}

Frame MediaFile::next()
{
    for (;;) {
        fill();
        Track *track = earliest();
        if (track == nullptr) {
            startAgain();
            continue;
        }
        const bool tail = isTail(*track);
        const int64_t time = roundStart_ + track->waiting.front().time - fileStart_;
        current_ = std::move(track->waiting.front().packet);
        track->waiting.pop_front();

        // Sound that overlaps the end of the last round is left out; a picture only never steps back.
        const bool overlaps = track->type == MediaType::Audio && track->last != INT64_MIN &&
                              time < track->last + track->frameDuration / 2;
        Frame frame = {.type = track->type, .data = {}, .time = std::max(time, track->last)};
        if (tail || overlaps || !convert(*track, frame)) {
            continue;
        }
        track->last = frame.time;
        anyFrame_ = true;
        return frame;
    }
}

bool MediaFile::convert(const Track &track, Frame &frame)
{
    const Bytes bytes = bytesOf(current_);
    if (track.type == MediaType::Video) {
        toAccessUnit(bytes, framing_, sets_, accessUnit_);
        frame.data = accessUnit_;
    } else if (adts_) {
        const std::optional<AdtsFrame> adts = parseAdts(bytes);
        frame.data = adts ? adts->raw : Bytes();
    } else {
        frame.data = bytes;
    }
    return !frame.data.empty();
}

// The next round begins where this one ended. The file is opened anew: not every container can be wound
// back to its very first packet.
void MediaFile::startAgain()
{
    if (!anyFrame_) {
        throw SourceError(path_ + ": holds no frames");
    }
    const int64_t end = roundStart_ + length();
    const bool soundIsFarAhead = audio_.last > end + kOverhang;
    roundStart_ = soundIsFarAhead ? audio_.last + audio_.frameDuration : end;

    const bool hadVideo = video_.stream != nullptr;
    const bool hadAudio = audio_.stream != nullptr;
    open();
    if (hadVideo != (video_.stream != nullptr) || hadAudio != (audio_.stream != nullptr)) {
        throw SourceError(path_ + ": has changed");
    }
    video_.end = fileStart_;
    audio_.end = fileStart_;
}
