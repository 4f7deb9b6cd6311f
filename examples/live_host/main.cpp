// live_host: a reference host. It serves a media file, or what it encodes itself, as live RTMP streams.
#include "console.h"
#include "decoded_file.h"
#include "encoded_source.h"
#include "host.h"
#include "host_functions.h"
#include "media_file.h"
#include "options.h"
#include "pacer.h"
#include "session_watch.h"
#include "supervisor.h"
#include "test_pattern.h"
#include "tls_context.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <utility>

namespace {

enum ExitCode { kOk = 0, kFailed = 1, kBadUsage = 2 };

int logLevelOf(const Options &options)
{
    switch (options.logLevel) {
    case LogLevel::Quiet:
        return -1;
    case LogLevel::Error:
        return RTMP_LOG_ERROR;
    default:
        return RTMP_LOG_INFO;
    }
}

std::unique_ptr<RawSource> openRawSource(const Options &options)
{
    const EncodeOptions &encode = options.encode;
    RawFormat format = {.width = static_cast<int>(encode.width),
                        .height = static_cast<int>(encode.height),
                        .rateNumerator = static_cast<int>(encode.frameRate),
                        .rateDenominator = 1,
                        .sampleRate = 0,
                        .name = ""};
    if (!options.input.empty()) {
        return std::make_unique<DecodedFile>(options.input, format);
    }
    if (format.width == 0) {
        format.width = 1280;
        format.height = 720;
    }
    if (format.rateNumerator == 0) {
        format.rateNumerator = 30;
    }
    format.sampleRate = 44'100;
    format.name = "test pattern";
    return std::make_unique<TestPattern>(format);
}

std::unique_ptr<FrameSource> openSource(const Options &options)
{
    if (options.encode.enabled) {
        const EncoderSettings settings = {.videoBitrate = static_cast<int32_t>(options.videoBitrate),
                                          .audioBitrate = static_cast<int32_t>(options.encode.audioBitrate),
                                          .preset = options.encode.preset};
        return std::make_unique<EncodedSource>(openRawSource(options), settings);
    }
    return std::make_unique<MediaFile>(options.input.empty() ? LIVE_HOST_CLIP : options.input);
}

std::unique_ptr<TlsContext> makeTls(const Options &options)
{
    return options.rtmpsPort != 0 ? std::make_unique<TlsContext>(options.tlsCertificate, options.tlsKey)
                                  : nullptr;
}

std::unique_ptr<LineFile> openStats(const Options &options)
{
    return options.statsFile.empty() ? nullptr : std::make_unique<LineFile>(options.statsFile);
}

void announce(const Options &options, const std::string &scheme, uint32_t port, const std::string &session,
              Console &console)
{
    if (port == 0) {
        return;
    }
    const std::string where = options.interfaceName == "lo" ? "127.0.0.1" : "HOST";
    const std::string query = options.token.empty() ? "" : "?token=" + options.token;
    console.say("serving " + scheme + "://" + where + ":" + std::to_string(port) + "/live/" + session +
                query);
}

void introduce(const Options &options, const MediaDescription &media, Console &console)
{
    console.say(media.summary);
    for (const std::string &warning : media.warnings) {
        console.warn(warning);
    }
    if (options.rtmpPort == 0 && options.rtmpsPort == 0) {
        console.warn("--rtmp-port 0: there is no RTMP listener, and nobody can watch");
    }
    for (const std::string &name : options.sessions) {
        announce(options, "rtmp", options.rtmpPort, name, console);
        announce(options, "rtmps", options.rtmpsPort, name, console);
    }
}

// Frames from the source to the host, each at its time, until the flag is raised.
void sendFrames(FrameSource &source, Host &host, Console &console, Counters &counters, const StopFlag &stop)
{
    Pacer pacer;
    while (!stop.raised()) {
        const Frame frame = source.next();
        if (!pacer.waitFor(frame.time, stop)) {
            return;
        }
        if (const std::chrono::milliseconds delay = pacer.takeDelay(); delay.count() > 0) {
            console.warn("sending was held up for " + std::to_string(delay.count()) +
                         " ms; going on from there");
        }
        host.send(frame, pacer.timestamp(frame.time));
        if (const int32_t bitrate = hostFunctions.bitrates.take(); bitrate > 0) {
            source.setBitrate(bitrate);
            counters.targetBitrate = bitrate;
        }
        if (std::exchange(hostFunctions.keyFrameWanted, false)) {
            source.makeKeyFrame();
        }
    }
}

void serve(const Options &options, Console &console)
{
    StopFlag stop;
    Counters counters;
    hostFunctions.counters = &counters;
    hostFunctions.token = options.token;
    const std::unique_ptr<TlsContext> tls = makeTls(options);
    hostFunctions.tls = tls.get();
    const std::unique_ptr<LineFile> stats = openStats(options);
    SessionWatch watch;
    Supervisor supervisor(options, counters, watch, stats.get(), console, stop);
    const std::unique_ptr<FrameSource> source = openSource(options);
    Host host(options, source->description(), console, counters, watch);
    introduce(options, source->description(), console);
    try {
        sendFrames(*source, host, console, counters, stop);
    } catch (const SourceError &) {
        supervisor.sendingIsOver();
        if (!stop.raised()) {
            throw; // else a read was interrupted, as it should be
        }
    }
    supervisor.sendingIsOver();
    console.endStatus();
    console.say("stopping: " + std::to_string(counters.sent) + " frames sent, " +
                std::to_string(counters.dropped) + " dropped, " + std::to_string(counters.unwatched) +
                " while nobody watched");
}

} // namespace

int main(int argc, char **argv)
{
    prepareSignals();
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (const OptionError &error) {
        fprintf(stderr, "live_host: %s\nlive_host --help shows all options.\n", error.what());
        return kBadUsage;
    }
    if (options.help) {
        fputs(helpText().c_str(), stdout);
        return kOk;
    }
    Console console(logLevelOf(options));
    hostFunctions.console = &console;
    try {
        serve(options, console);
    } catch (const std::exception &error) {
        console.fail(error.what());
        return kFailed;
    }
    return kOk;
}
