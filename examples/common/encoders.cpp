#include "encoders.h"

#include "frame_source.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <utility>

namespace {

constexpr int32_t kLowestBitrate = 16'000; // below it x264's buffer model has no room for a picture

void check(int result, const std::string &what)
{
    if (result < 0) {
        throw SourceError(what + ": " + errorText(result));
    }
}

CodecPtr makeEncoder(const char *name)
{
    quietLibav();
    const AVCodec *codec = avcodec_find_encoder_by_name(name);
    if (codec == nullptr) {
        throw SourceError(std::string("this libavcodec has no encoder '") + name + "'");
    }
    CodecPtr context(avcodec_alloc_context3(codec));
    return context != nullptr ? std::move(context) : throw std::bad_alloc();
}

std::span<const uint8_t> extradataOf(const CodecPtr &codec)
{
    return {codec->extradata, static_cast<size_t>(codec->extradata_size)};
}

AVFrame &writable(const FramePtr &frame)
{
    check(av_frame_make_writable(frame.get()), "memory for a frame");
    return *frame;
}

std::span<const uint8_t> encodeOne(const CodecPtr &codec, const FramePtr &frame, const PacketPtr &packet)
{
    check(avcodec_send_frame(codec.get(), frame.get()), "encoding");
    av_packet_unref(packet.get());
    const int result = avcodec_receive_packet(codec.get(), packet.get());
    if (result == AVERROR(EAGAIN)) {
        return {};
    }
    check(result, "encoding");
    return {packet->data, static_cast<size_t>(packet->size)};
}

} // namespace

VideoEncoder::VideoEncoder(const RawFormat &format, int32_t bitrate, const std::string &preset)
    : codec_(makeEncoder("libx264")), frame_(makeFrame()), packet_(makePacket())
{
    codec_->width = format.width;
    codec_->height = format.height;
    codec_->pix_fmt = AV_PIX_FMT_YUV420P;
    codec_->framerate = {format.rateNumerator, format.rateDenominator};
    codec_->time_base = {format.rateDenominator, format.rateNumerator};
    codec_->gop_size = (format.rateNumerator + format.rateDenominator / 2) / format.rateDenominator;
    codec_->keyint_min = codec_->gop_size;
    codec_->max_b_frames = 0;
    codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    setBitrate(bitrate);
    check(av_opt_set(codec_->priv_data, "preset", preset.c_str(), 0), "x264's preset");
    check(av_opt_set(codec_->priv_data, "tune", "zerolatency", 0), "x264's tuning");
    check(av_opt_set(codec_->priv_data, "sc_threshold", "0", 0), "x264's scene cuts");
    check(avcodec_open2(codec_.get(), nullptr, nullptr), "x264 cannot be opened (preset '" + preset + "')");

    frame_->format = codec_->pix_fmt;
    frame_->width = format.width;
    frame_->height = format.height;
    check(av_frame_get_buffer(frame_.get(), 0), "memory for a picture");
    frame_->pts = -1;
}

std::span<const uint8_t> VideoEncoder::config() const
{
    return extradataOf(codec_);
}

AVFrame &VideoEncoder::picture()
{
    return writable(frame_);
}

std::span<const uint8_t> VideoEncoder::encode()
{
    ++frame_->pts;
    frame_->pict_type = std::exchange(keyFrameWanted_, false) ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    return encodeOne(codec_, frame_, packet_);
}

void VideoEncoder::makeKeyFrame()
{
    keyFrameWanted_ = true; // x264 makes an I picture that is asked for an IDR picture
}

// libavcodec compares these with what x264 runs at before every picture, and tells x264 of a difference.
// The ceiling is the rate itself, over half a second: a network that just carries it has no room for more,
// and with a larger buffer x264 takes longer to follow.
void VideoEncoder::setBitrate(int32_t bitrate)
{
    codec_->bit_rate = std::max(bitrate, kLowestBitrate);
    codec_->rc_max_rate = codec_->bit_rate;
    codec_->rc_buffer_size = static_cast<int>(codec_->bit_rate / 2);
}

AudioEncoder::AudioEncoder(int sampleRate, int32_t bitrate)
    : codec_(makeEncoder("aac")), frame_(makeFrame()), packet_(makePacket())
{
    codec_->sample_rate = sampleRate;
    codec_->sample_fmt = AV_SAMPLE_FMT_FLTP;
    codec_->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
    codec_->bit_rate = bitrate;
    codec_->time_base = {1, sampleRate};
    codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    check(avcodec_open2(codec_.get(), nullptr, nullptr), "the AAC encoder cannot be opened");

    frame_->format = codec_->sample_fmt;
    frame_->sample_rate = sampleRate;
    frame_->nb_samples = codec_->frame_size;
    check(av_channel_layout_copy(&frame_->ch_layout, &codec_->ch_layout), "memory for a channel layout");
    check(av_frame_get_buffer(frame_.get(), 0), "memory for samples");
    frame_->pts = -frame_->nb_samples;
}

std::span<const uint8_t> AudioEncoder::config() const
{
    return extradataOf(codec_);
}

AVFrame &AudioEncoder::samples()
{
    return writable(frame_);
}

std::span<const uint8_t> AudioEncoder::encode()
{
    frame_->pts += frame_->nb_samples;
    return encodeOne(codec_, frame_, packet_);
}
