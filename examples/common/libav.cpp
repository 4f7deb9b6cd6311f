#include "libav.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <new>

void FormatCloser::operator()(AVFormatContext *format) const
{
    avformat_close_input(&format);
}

void CodecFreer::operator()(AVCodecContext *codec) const
{
    avcodec_free_context(&codec);
}

void FrameFreer::operator()(AVFrame *frame) const
{
    av_frame_free(&frame);
}

void PacketFreer::operator()(AVPacket *packet) const
{
    av_packet_free(&packet);
}

FramePtr makeFrame()
{
    FramePtr frame(av_frame_alloc());
    return frame != nullptr ? std::move(frame) : throw std::bad_alloc();
}

PacketPtr makePacket()
{
    PacketPtr packet(av_packet_alloc());
    return packet != nullptr ? std::move(packet) : throw std::bad_alloc();
}

std::string errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE];
    return av_make_error_string(text, sizeof text, code);
}

void quietLibav()
{
    av_log_set_level(AV_LOG_FATAL);
}
