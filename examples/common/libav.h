// Owners of what libavformat and libavcodec allocate, and their error texts.
#pragma once

#include <memory>
#include <string>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;

struct FormatCloser {
    void operator()(AVFormatContext *format) const;
};
struct CodecFreer {
    void operator()(AVCodecContext *codec) const;
};
struct FrameFreer {
    void operator()(AVFrame *frame) const;
};
struct PacketFreer {
    void operator()(AVPacket *packet) const;
};
using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;

// Throw std::bad_alloc.
FramePtr makeFrame();
PacketPtr makePacket();

std::string errorText(int code);

// What goes wrong is said by live_host, once.
void quietLibav();
