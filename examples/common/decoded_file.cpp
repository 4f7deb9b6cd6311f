#include "decoded_file.h"

#include "frame_source.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <algorithm>

namespace {

constexpr size_t kFarAhead = 60;         // decoded pictures that wait for sound
constexpr int64_t kSoundSlack = 100'000; // microseconds that sound may stand off its time
constexpr int64_t kSecond = 1'000'000;

} // namespace

void ScalerFreer::operator()(SwsContext *scaler) const
{
    sws_freeContext(scaler);
}

void ResamplerFreer::operator()(SwrContext *resampler) const
{
    swr_free(&resampler);
}

DecodedFile::DecodedFile(std::string path, const RawFormat &wanted)
    : path_(std::move(path)), packet_(makePacket())
{
    quietLibav();
    open();
    chooseFormat(wanted);
}

// ------------------------------------------------------------------------------------------------ opening

void DecodedFile::open()
{
    AVFormatContext *file = nullptr;
    int result = avformat_open_input(&file, path_.c_str(), nullptr, nullptr);
    if (result < 0) {
        throw SourceError(path_ + ": cannot be opened as media: " + errorText(result));
    }
    file_.reset(file);
    result = avformat_find_stream_info(file, nullptr);
    if (result < 0) {
        throw SourceError(path_ + ": its streams cannot be read: " + errorText(result));
    }
    openTrack(video_, AVMEDIA_TYPE_VIDEO);
    openTrack(audio_, AVMEDIA_TYPE_AUDIO);
    if (video_.stream == nullptr) {
        throw SourceError(path_ + ": holds no video that can be decoded");
    }
    ended_ = false;
    videoEnd_ = 0;
}

void DecodedFile::openTrack(Track &track, int mediaType)
{
    track = Track();
    const AVCodec *codec = nullptr;
    const int index =
        av_find_best_stream(file_.get(), static_cast<AVMediaType>(mediaType), -1, -1, &codec, 0);
    if (index < 0) {
        return;
    }
    AVStream *stream = file_->streams[index];
    CodecPtr decoder(avcodec_alloc_context3(codec));
    if (decoder == nullptr || avcodec_parameters_to_context(decoder.get(), stream->codecpar) < 0) {
        throw std::bad_alloc();
    }
    decoder->pkt_timebase = stream->time_base;
    if (const int result = avcodec_open2(decoder.get(), codec, nullptr); result < 0) {
        throw SourceError(path_ + ": its " + codec->name + " decoder cannot be opened: " + errorText(result));
    }
    track.stream = stream;
    track.decoder = std::move(decoder);
}

void DecodedFile::chooseFormat(const RawFormat &wanted)
{
    format_ = wanted;
    format_.name = path_;
    const AVCodecParameters *codec = video_.stream->codecpar;
    if (format_.width == 0) {
        format_.width = codec->width & ~1;
        format_.height = codec->height & ~1;
    }
    if (format_.width < 16 || format_.height < 16) {
        throw SourceError(path_ + ": its pictures are too small to be encoded");
    }
    if (format_.rateNumerator == 0) {
        const AVRational rate = video_.stream->avg_frame_rate;
        const bool usable = rate.den > 0 && av_q2d(rate) >= 1 && av_q2d(rate) <= 120;
        format_.rateNumerator = usable ? rate.num : 30;
        format_.rateDenominator = usable ? rate.den : 1;
    }
    if (audio_.stream != nullptr) {
        format_.sampleRate = audio_.stream->codecpar->sample_rate == 48'000 ? 48'000 : 44'100;
    }
}

// ----------------------------------------------------------------------------------------------- decoding

bool DecodedFile::readMore()
{
    if (ended_) {
        return false;
    }
    av_packet_unref(packet_.get());
    const int result = av_read_frame(file_.get(), packet_.get());
    if (result < 0 && result != AVERROR_EOF) {
        throw SourceError(path_ + ": reading failed: " + errorText(result));
    }
    ended_ = result == AVERROR_EOF;
    for (Track *track : {&video_, &audio_}) {
        if (track->stream != nullptr && (ended_ || track->stream->index == packet_->stream_index)) {
            decode(*track, ended_ ? nullptr : packet_.get());
        }
    }
    return true;
}

// A null packet drains the decoder. What cannot be decoded is left out, as players do.
void DecodedFile::decode(Track &track, AVPacket *packet)
{
    if (avcodec_send_packet(track.decoder.get(), packet) < 0) {
        return;
    }
    for (;;) {
        FramePtr frame = makeFrame();
        if (avcodec_receive_frame(track.decoder.get(), frame.get()) < 0) {
            return;
        }
        if (&track == &video_) {
            keepPicture(std::move(frame));
        } else {
            keepSound(*frame);
        }
    }
}

int64_t DecodedFile::timeInFile(const Track &track, const AVFrame &frame) const
{
    const int64_t start = file_->start_time != AV_NOPTS_VALUE ? file_->start_time : 0;
    return av_rescale_q(frame.best_effort_timestamp, track.stream->time_base, AV_TIME_BASE_Q) - start;
}

void DecodedFile::keepPicture(FramePtr frame)
{
    const int64_t duration = av_rescale(kSecond, format_.rateDenominator, std::max(format_.rateNumerator, 1));
    const bool timed = frame->best_effort_timestamp != AV_NOPTS_VALUE;
    const int64_t time = std::max<int64_t>(timed ? timeInFile(video_, *frame) : videoEnd_, 0);
    videoEnd_ = std::max(videoEnd_, time + duration);
    upcoming_.push_back({std::move(frame), time});
}

// Silence where the file leaves a gap. False: the frame is of a time that has been filled already.
bool DecodedFile::alignSound(const AVFrame &frame)
{
    if (frame.best_effort_timestamp == AV_NOPTS_VALUE) {
        return true;
    }
    const int64_t early = samplesAt(roundStart_ + timeInFile(audio_, frame)) - samplesEver_;
    const int64_t slack = samplesAt(kSoundSlack);
    if (early > slack) {
        addSilence(early);
    }
    return early >= -slack;
}

void DecodedFile::openResampler(const AVFrame &frame)
{
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    AVChannelLayout layout = frame.ch_layout;
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        av_channel_layout_default(&layout, frame.ch_layout.nb_channels);
    }
    SwrContext *resampler = nullptr;
    int result =
        swr_alloc_set_opts2(&resampler, &stereo, AV_SAMPLE_FMT_FLTP, format_.sampleRate, &layout,
                            static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
    resampler_.reset(resampler);
    result = result < 0 ? result : swr_init(resampler);
    if (result < 0) {
        throw SourceError(path_ + ": its sound cannot be resampled: " + errorText(result));
    }
}

void DecodedFile::keepSound(const AVFrame &frame)
{
    if (!alignSound(frame)) {
        return;
    }
    if (resampler_ == nullptr) {
        openResampler(frame);
    }
    const int room = std::max(swr_get_out_samples(resampler_.get(), frame.nb_samples), 0);
    std::array<std::vector<float>, 2> converted;
    uint8_t *out[2];
    for (size_t i = 0; i < converted.size(); ++i) {
        converted[i].resize(static_cast<size_t>(room));
        out[i] = reinterpret_cast<uint8_t *>(converted[i].data());
    }
    const int count = swr_convert(resampler_.get(), out, room,
                                  const_cast<const uint8_t **>(frame.extended_data), frame.nb_samples);
    if (count <= 0) {
        return;
    }
    for (size_t i = 0; i < converted.size(); ++i) {
        samples_[i].insert(samples_[i].end(), converted[i].begin(), converted[i].begin() + count);
    }
    samplesEver_ += count;
}

void DecodedFile::addSilence(int64_t samples)
{
    for (std::deque<float> &channel : samples_) {
        channel.insert(channel.end(), static_cast<size_t>(samples), 0.0f);
    }
    samplesEver_ += samples;
}

int64_t DecodedFile::samplesAt(int64_t time) const
{
    return av_rescale(time, format_.sampleRate, kSecond);
}

// ------------------------------------------------------------------------------------------------- giving

// The latest picture of the file that is due: some are shown twice, others never, when the rates differ.
void DecodedFile::picture(AVFrame &frame)
{
    const int64_t due = av_rescale(pictures_++, kSecond * format_.rateDenominator, format_.rateNumerator);
    for (;;) {
        while (upcoming_.empty() && readMore()) {
        }
        if (upcoming_.empty() && due - roundStart_ >= videoEnd_) {
            startAgain();
        } else if (!upcoming_.empty() && (shown_ == nullptr || roundStart_ + upcoming_.front().time <= due)) {
            shown_ = std::move(upcoming_.front().frame);
            upcoming_.pop_front();
        } else {
            break;
        }
    }
    scale(*shown_, frame);
}

void DecodedFile::scale(const AVFrame &from, AVFrame &to)
{
    scaler_.reset(sws_getCachedContext(scaler_.release(), from.width, from.height,
                                       static_cast<AVPixelFormat>(from.format), to.width, to.height,
                                       AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (scaler_ == nullptr) {
        throw SourceError(path_ + ": its pictures cannot be converted");
    }
    sws_scale(scaler_.get(), from.data, from.linesize, 0, from.height, to.data, to.linesize);
}

// Where the file has no sound (any more) there is silence.
void DecodedFile::sound(AVFrame &frame)
{
    const size_t wanted = static_cast<size_t>(frame.nb_samples);
    while (samples_[0].size() < wanted && upcoming_.size() < kFarAhead && readMore()) {
    }
    if (samples_[0].size() < wanted) {
        addSilence(static_cast<int64_t>(wanted - samples_[0].size()));
    }
    for (size_t i = 0; i < samples_.size(); ++i) {
        const std::deque<float>::iterator end = samples_[i].begin() + frame.nb_samples;
        std::copy(samples_[i].begin(), end, reinterpret_cast<float *>(frame.data[i]));
        samples_[i].erase(samples_[i].begin(), end);
    }
}

// The next round begins where the pictures of this one ended, and its sound with it.
void DecodedFile::startAgain()
{
    if (videoEnd_ == 0) {
        throw SourceError(path_ + ": holds no pictures that can be decoded");
    }
    roundStart_ += videoEnd_;
    const bool hadSound = audio_.stream != nullptr;
    resampler_.reset();
    open();
    if (hadSound != (audio_.stream != nullptr)) {
        throw SourceError(path_ + ": has changed");
    }
    if (!hadSound) {
        return;
    }
    const int64_t missing = samplesAt(roundStart_) - samplesEver_;
    if (missing > 0) {
        addSilence(missing);
        return;
    }
    const int64_t surplus = std::min(-missing, static_cast<int64_t>(samples_[0].size()));
    for (std::deque<float> &channel : samples_) {
        channel.erase(channel.end() - surplus, channel.end());
    }
    samplesEver_ -= surplus;
}
