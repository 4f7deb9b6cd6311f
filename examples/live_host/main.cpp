// live_host: a reference host. It serves a media file, or what it encodes itself, as live RTMP streams.
#include "options.h"
#include "status_line.h"

#include "common/console.h"
#include "common/host.h"
#include "common/host_functions.h"
#include "common/host_main.h"
#include "common/session_watch.h"
#include "common/source.h"
#include "common/supervisor.h"
#include "common/tls_context.h"

#include <memory>
#include <string>
#include <utility>

namespace {

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
    describe(media, console);
    if (options.rtmpPort == 0 && options.rtmpsPort == 0) {
        console.warn("--rtmp-port 0: there is no RTMP listener, and nobody can watch");
    }
    for (const std::string &name : options.sessions) {
        announce(options, "rtmp", options.rtmpPort, name, console);
        announce(options, "rtmps", options.rtmpsPort, name, console);
    }
}

// What the library asked of the encoder meanwhile.
void followWishes(FrameSource &source, Counters &counters)
{
    if (const int32_t bitrate = hostFunctions.bitrates.take(); bitrate > 0) {
        source.setBitrate(bitrate);
        counters.targetBitrate = bitrate;
    }
    if (std::exchange(hostFunctions.keyFrameWanted, false)) {
        source.makeKeyFrame();
    }
}

ExitCode serve(const Options &options, Console &console)
{
    StopFlag stop;
    Counters counters;
    hostFunctions.counters = &counters;
    hostFunctions.token = options.token;
    const std::unique_ptr<TlsContext> tls = makeTls(options);
    hostFunctions.tls = tls.get();
    const std::unique_ptr<LineFile> stats = openStats(options);
    const std::unique_ptr<CaptionSource> captions = openCaptions(options);
    SessionWatch watch;
    StatusLine status(options, counters, watch, stats.get(), console);
    Supervisor supervisor(
        std::chrono::seconds(options.duration), [&status] { status.show(); }, console, stop);
    const std::unique_ptr<FrameSource> source = openSource(options, DEFAULT_CLIP);
    Host host(options, source->description(), console, counters, watch, captions.get());
    introduce(options, source->description(), console);
    const auto deliver = [&](const Frame &frame, uint64_t timestamp) {
        host.send(frame, timestamp);
        followWishes(*source, counters);
    };
    sendUntilStopped(*source, deliver, console, stop, supervisor);
    console.say("stopping: " + std::to_string(counters.sent) + " frames sent, " +
                std::to_string(counters.dropped) + " dropped, " + std::to_string(counters.unwatched) +
                " while nobody watched");
    return kOk;
}

} // namespace

int main(int argc, char **argv)
{
    return hostMain({"live_host", parseOptions, helpText, serve}, argc, argv);
}
