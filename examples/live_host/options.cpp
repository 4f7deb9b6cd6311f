#include "options.h"

#include "option_table.h"

#include <rtmpcast/types.h>

#include <algorithm>
#include <span>

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

const Option &findOption(const std::string &name)
{
    const std::span<const Option> table = optionTable();
    const auto found = std::ranges::find_if(
        table, [&name](const Option &option) { return option.apply != nullptr && name == option.name; });
    if (found == table.end()) {
        throw OptionError("unknown option '" + name + "'");
    }
    return *found;
}

void checkEncoding(Options &options)
{
    constexpr uint32_t kLowest = 64'000;
    constexpr uint32_t kHighest = 100'000'000;
    if (!options.encode.enabled) {
        if (options.encode.firstOption != nullptr) {
            throw OptionError(std::string(options.encode.firstOption) + " needs --encode");
        }
        return;
    }
    if (options.videoBitrate == 0) {
        options.videoBitrate = 4'000'000;
    }
    if (options.videoBitrate < kLowest || options.videoBitrate > kHighest) {
        throw OptionError("--video-bitrate: --encode takes from " + std::to_string(kLowest) + " to " +
                          std::to_string(kHighest) + " bit/s");
    }
}

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

// What only the steady road has; and whom it serves.
void checkRoad(Options &options)
{
    if (options.exact && options.playersChosen) {
        throw OptionError("--exact and --players exclude each other");
    }
    if (options.exact && (!options.token.empty() || options.rtmpsPort != 0 || !options.statsFile.empty())) {
        throw OptionError("--token, --rtmps-port and --stats-json are not for --exact");
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
    Options options;
    const std::span<char *> words(argv, static_cast<size_t>(argc));
    for (size_t at = 1; at < words.size(); ++at) {
        const std::string word = words[at];
        const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
        const Option &option = findOption(word.substr(0, equals));
        if (option.argument == nullptr) {
            if (equals != std::string::npos) {
                throw OptionError(std::string(option.name) + " takes no value");
            }
            option.apply(options, option, "");
        } else if (equals != std::string::npos) {
            option.apply(options, option, word.substr(equals + 1));
        } else if (at + 1 < words.size()) {
            option.apply(options, option, words[++at]);
        } else {
            throw OptionError(std::string(option.name) + " needs a value: " + option.argument);
        }
    }
    checkTogether(options);
    return options;
}

std::string helpText()
{
    constexpr size_t kColumn = 40; // of the explanations
    std::string out =
        "live_host serves a media file, or what it encodes itself, as live RTMP streams, in real "
        "time and on and on.\n\n"
        "Usage: live_host [options]      defaults in parentheses\n";
    for (const Option &option : optionTable()) {
        if (option.name == nullptr) {
            out.append("\n").append(option.help).append("\n");
            continue;
        }
        std::string left(2, ' ');
        left.append(option.name);
        if (option.argument != nullptr) {
            left.append(" ").append(option.argument);
        }
        left.resize(std::max(left.size() + 2, kColumn), ' ');
        out.append(left).append(option.help).append("\n");
    }
    out.append(kHelpEnd);
    return out;
}
