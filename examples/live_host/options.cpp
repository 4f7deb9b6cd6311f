#include "options.h"

#include "option_table.h"

#include <rtmpcast/types.h>

namespace {

constexpr const char *kHelpEnd = R"(
Lowering the bitrate: fullness is the share of the video ring that is taken, so it never exceeds 100, and the
library's defaults (lower above 500, raise below 200) only ever raise. To lower, it takes thresholds below
100 and a bandwidth monitor, which says how far. What has proved itself, with a key frame every second:
  live_host --encode --sender threaded --video-queue 90 --bandwidth-window 60 --send-buffer 16
    --abr-min-bitrate 300000 --abr-increase-fullness 5 --abr-increase-percent 25 --abr-increase-interval 1
    --abr-decrease-fullness 10 --abr-decrease-percent 100
    --abr-decrease-fullness-high 30 --abr-decrease-percent-high 150
Several sessions share one encoder: it follows the lowest of their wishes. A file cannot follow.

The status line: what the library took (in), what all viewers together were sent (out; with --exact what the
library measured), what the encoder was told (target), frames that a viewer which fell behind did not get
(dropped), how far the slowest viewer that makes progress is behind (lag). With --trace-dir also the video ring as
the last traced frame left it. With --exact every frame dropped is in the trace alone; without one the library
tells of flushed rings only in its log: they are counted as flushes.

Watch it:
  ffplay rtmp://127.0.0.1:1935/live/stream
Over TLS, with a certificate of one's own:
  openssl req -x509 -newkey rsa:2048 -nodes -days 365 -subj /CN=live -keyout key.pem -out cert.pem
  live_host --rtmps-port 4433 --tls-cert cert.pem --tls-key key.pem
  ffplay rtmps://127.0.0.1:4433/live/stream
With --exact, a player that signs its handshake:
  rtmpdump -r rtmp://127.0.0.1:1935/live/stream -w $(printf '%064d' 0) -x 1 -o - | ffplay -
)";

void checkPorts(const Options &options)
{
    if (options.rtmpPort != 0 && options.rtmpPort == options.rtmptPort) {
        throw OptionError("--rtmp-port and --rtmpt-port are the same port");
    }
    if (options.rtmpsPort != 0 &&
        (options.rtmpsPort == options.rtmpPort || options.rtmpsPort == options.rtmptPort)) {
        throw OptionError("--rtmps-port is the port of another listener");
    }
    if (options.rtmpsPort != 0 && (options.tlsCertificate.empty() || options.tlsKey.empty())) {
        throw OptionError("--rtmps-port needs --tls-cert and --tls-key");
    }
    if (options.rtmpsPort == 0 && (!options.tlsCertificate.empty() || !options.tlsKey.empty())) {
        throw OptionError("--tls-cert and --tls-key need --rtmps-port");
    }
}

bool limitsService(const ServiceOptions &service)
{
    return service.ringMilliseconds != 0 || service.ringBytes != 0 || service.stallMilliseconds != 0;
}

// What only the steady road has; and whom it serves.
void checkRoad(Options &options)
{
    if (options.exact && options.playersChosen) {
        throw OptionError("--exact and --players exclude each other");
    }
    if (options.exact && (!options.token.empty() || options.rtmpsPort != 0 || !options.statsFile.empty())) {
        throw OptionError("--token, --rtmps-port and --stats-json are not for --exact");
    }
    if (options.exact && limitsService(options.service)) {
        throw OptionError("--ring-ms, --ring-bytes and --stall-ms are not for --exact");
    }
    if (!options.token.empty() && (options.players & RTMP_PLAYERS_STREAM_NAME) == 0) {
        throw OptionError("--token needs the rule stream-name among --players");
    }
    if (options.exact) {
        options.players = RTMP_PLAYERS_EXACT;
    }
}

// What belongs together, or does not.
void checkTogether(Options &options)
{
    checkEncoding(options);
    checkPorts(options);
    checkRoad(options);
    const bool threaded = options.sender.mode == RTMP_SENDER_THREADED;
    if (!threaded && options.bandwidthWindow != 0) {
        throw OptionError("--bandwidth-window needs --sender threaded");
    }
    if (!threaded && !options.trace.directory.empty()) {
        throw OptionError("--trace-dir needs --sender threaded");
    }
    if (!options.captions.empty() && options.sender.captionMode > 1) {
        throw OptionError("--captions needs --caption-mode 0 or 1");
    }
    if (options.trace.burnIn && options.trace.directory.empty()) {
        throw OptionError("--burn-in needs --trace-dir");
    }
    if (!threaded && options.adaptive.enabled) {
        throw OptionError("--adaptive and --abr-... need --sender threaded");
    }
    if (options.sessions.empty()) {
        options.sessions.push_back("stream");
    }
}

} // namespace

Options parseOptions(int argc, char **argv)
{
    Options options = readOptions(argc, argv, optionTable());
    checkTogether(options);
    return options;
}

std::string helpText()
{
    return "live_host serves a media file, or what it encodes itself, as live RTMP streams, in real "
           "time and on and on.\n\n"
           "Usage: live_host [options]      defaults in parentheses\n" +
           optionsHelp(optionTable()) + kHelpEnd;
}
