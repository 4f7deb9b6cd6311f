#include "session_setup.h"

#include <filesystem>

namespace {

std::string whyNoMedia(int code)
{
    switch (code) {
    case RTMP_ERR_VIDEO_INFO:
        return "its video configuration was refused";
    case RTMP_ERR_AUDIO_INFO:
        return "its audio configuration was refused";
    default:
        return "its media were refused (code " + std::to_string(code) + ")";
    }
}

} // namespace

void configureSession(RtmpSession *session, const Options &options, const std::string &traceDirectory,
                      CaptionSource *captions)
{
    const SenderOptions &sender = options.sender;
    (void)RtmpSenderSettings(session, sender.mode, sender.param, static_cast<uint8_t>(sender.flag),
                             sender.encoderHandle, static_cast<uint8_t>(sender.captionMode),
                             sender.statsInterval, sender.audioQueue, sender.videoQueue);
    if (captions != nullptr) {
        captions->addTo(session);
    }
    if (options.bandwidthWindow != 0) {
        (void)RtmpBWMSettings(session, 1, options.bandwidthWindow);
    }
    if (!traceDirectory.empty()) {
        std::error_code reported; // when a line is missing: the library makes the last directory itself
        std::filesystem::create_directories(traceDirectory, reported);
        (void)RtmpDebugSettings(session, 1, options.trace.burnIn, 1, traceDirectory.c_str(),
                                options.trace.every);
    }
    const AdaptiveOptions &adaptive = options.adaptive;
    if (adaptive.enabled) {
        (void)RtmpAdaptiveBitrateSettings(
            session, 1, adaptive.reserved1, adaptive.reserved2, adaptive.minBitrate, adaptive.startDelay,
            adaptive.increaseFullness, adaptive.increasePercent, adaptive.increaseMinStep,
            adaptive.increaseInterval, adaptive.decreaseFullness, adaptive.decreasePercent,
            adaptive.decreaseFullnessHigh, adaptive.decreasePercentHigh, adaptive.decreaseInterval,
            adaptive.reserved3);
    }
}

void addMedia(RtmpSession *session, const Options &options, const MediaDescription &media)
{
    const VideoMediaInfo video = {.codecId = 7, // AVC
                                  .bitrate =
                                      options.videoBitrate != 0 ? options.videoBitrate : media.videoBitrate,
                                  .opaque = {},
                                  .configLen = static_cast<int32_t>(media.videoConfig.size()),
                                  .configData = media.videoConfig.data()};
    const AudioMediaInfo audio = {.codecId = 10, // AAC
                                  .opaque = 0,
                                  .configLen = static_cast<int32_t>(media.audioConfig.size()),
                                  .configData = media.audioConfig.data()};
    const int code = RtmpAddMediaInfo(session, media.videoConfig.empty() ? nullptr : &video,
                                      media.audioConfig.empty() ? nullptr : &audio);
    if (code != RTMP_OK) {
        throw HostError("session '" + std::string(session->Name) + "': " + whyNoMedia(code));
    }
}
