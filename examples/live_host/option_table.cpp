#include "option_table.h"

#include "common/option_rows.h"
#include "common/option_setters.h"

#include <rtmpcast/types.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

using setters::file;
using setters::number;
using setters::text;
using setters::turnOn;

void addSession(Options &options, const Option &self, const std::string &value)
{
    if (value.empty()) {
        refuseOption(self, value, "a name");
    }
    if (std::ranges::find(options.sessions, value) != options.sessions.end()) {
        throw OptionError("--session: '" + value + "' is given twice");
    }
    options.sessions.push_back(value);
}

void chooseSender(Options &options, const Option &self, const std::string &value)
{
    if (value != "monitor" && value != "threaded") {
        refuseOption(self, value, "monitor or threaded");
    }
    options.sender.mode = value == "threaded" ? RTMP_SENDER_THREADED : 0;
}

struct PlayerName {
    std::string_view name;
    uint32_t flags;
};

constexpr PlayerName kPlayerNames[] = {
    {"all", RTMP_PLAYERS_ALL},
    {"none", RTMP_PLAYERS_EXACT},
    {"commands", RTMP_PLAYERS_COMMANDS},
    {"handshake", RTMP_PLAYERS_HANDSHAKE},
    {"version", RTMP_PLAYERS_VERSION},
    {"description", RTMP_PLAYERS_DESCRIPTION},
    {"timeline", RTMP_PLAYERS_TIMELINE},
    {"chunks-in", RTMP_PLAYERS_CHUNKS_IN},
    {"chunks-out", RTMP_PLAYERS_CHUNKS_OUT},
    {"connect", RTMP_PLAYERS_CONNECT},
    {"stream-name", RTMP_PLAYERS_STREAM_NAME},
    {"key-frame", RTMP_PLAYERS_KEY_FRAME},
    {"acknowledge", RTMP_PLAYERS_ACKNOWLEDGE},
};

uint32_t playerFlags(const Option &option, std::string_view name)
{
    const PlayerName *found = std::ranges::find(kPlayerNames, name, &PlayerName::name);
    if (found == std::end(kPlayerNames)) {
        refuseOption(option, std::string(name), "a rule: see live_host --help");
    }
    return found->flags;
}

// "handshake,version" as the sum of their flags.
void choosePlayers(Options &options, const Option &self, const std::string &value)
{
    options.players = 0;
    options.playersChosen = true;
    size_t begin = 0;
    for (size_t comma = 0; comma != std::string::npos; begin = comma + 1) {
        comma = value.find(',', begin);
        options.players |= playerFlags(self, std::string_view(value).substr(begin, comma - begin));
    }
}

// What stands in a URL as it is (RFC 3986, 2.3).
void setToken(Options &options, const Option &self, const std::string &value)
{
    const auto isUnreserved = [](unsigned char each) {
        return isalnum(each) != 0 ||
               std::string_view("-._~").find(static_cast<char>(each)) != std::string_view::npos;
    };
    if (value.empty() || !std::ranges::all_of(value, isUnreserved)) {
        refuseOption(self, value, "made of letters, digits and -._~");
    }
    options.token = value;
}

void setTraceDirectory(Options &options, const Option &self, const std::string &value)
{
    // The library cuts longer paths, and the name of the trace with them.
    constexpr size_t kLongest = 100;
    if (value.empty() || value.size() > kLongest) {
        refuseOption(self, value, "a directory of 1 to " + std::to_string(kLongest) + " bytes");
    }
    options.trace.directory = value;
}

using S = SenderOptions;
using V = ServiceOptions;

constexpr Option kServedRows[] = {
    {nullptr, nullptr, "What is served", nullptr},
    {"--input", "FILE", "MP4, MKV, FLV or MPEG-TS with H.264, AAC or both (a test clip)",
     text<&Options::input>},
    {"--session", "NAME", "a stream of this name; repeat it for more (stream)", addSession},
    {"--video-bitrate", "BITS", "announce this rate, bit/s (what the file says); see --encode",
     number<&Options::videoBitrate>, 0, INT32_MAX},
    {"--duration", "SECONDS", "stop after this long (0: on SIGINT or SIGTERM)", number<&Options::duration>},

};

constexpr Option kRows[] = {
    {nullptr, nullptr, "Where", nullptr},
    {"--interface", "NAME", "network interface, such as lo or eth0 (any: all of them)",
     text<&Options::interfaceName>},
    {"--rtmp-port", "PORT", "(1935; 0: none)", number<&Options::rtmpPort>, 0, 65535},
    {"--rtmpt-port", "PORT", "(0: none) accepts connections and serves no tunnel",
     number<&Options::rtmptPort>, 0, 65535},
    {"--rtmps-port", "PORT", "(0: none) RTMP over TLS 1.2 and later, with the two files that follow",
     number<&Options::rtmpsPort>, 0, 65535},
    {"--tls-cert", "FILE", "certificate and those that signed it, PEM", file<&Options::tlsCertificate>},
    {"--tls-key", "FILE", "its private key, PEM, without a passphrase", file<&Options::tlsKey>},
    {"--dscp", "0-63", "differentiated services code point (0)", number<&Options::dscp>, 0, 63},
    {"--chunk-size", "BYTES", "payload per outgoing chunk (4096)", number<&Options::chunkSize>, 1, 0xFFFFFF},

    {nullptr, nullptr,
     "Who may watch: ffmpeg, VLC, GStreamer and every other player of today, unless said here", nullptr},
    {"--exact", nullptr, "the library's default in everything: only players which sign their handshake",
     turnOn<&Options::exact>},
    {"", nullptr, "and send nothing that it does not know; each write waits for its player.", nullptr},
    {"", nullptr, "Otherwise live_host takes the steady road: no player holds up another, and", nullptr},
    {"", nullptr, "one that falls behind goes on at a key frame", nullptr},
    {"--players", "LIST", "on the steady road, but with no other rules than these: commands,", choosePlayers},
    {"", nullptr, "handshake, version, description, timeline, chunks-in, chunks-out, connect,", nullptr},
    {"", nullptr, "stream-name, key-frame, acknowledge, all or none, commas between (all)", nullptr},
    {"--token", "TEXT", "viewers ask for rtmp://HOST/live/NAME?token=TEXT; others are refused", setToken},

    {nullptr, nullptr, "How frames leave", nullptr},
    {"--sender", "WHICH", "monitor: on the host's thread; threaded: on a sender thread (monitor)",
     chooseSender},
    {"--audio-queue", "FRAMES", "threaded sender's audio ring (240)",
     number<&Options::sender, &S::audioQueue>, 1, 1000000},
    {"--video-queue", "FRAMES", "threaded sender's video ring (120)",
     number<&Options::sender, &S::videoQueue>, 1, 1000000},
    {"--send-buffer", "KIB", "the kernel's, for each player (0: its choice, up to megabytes, which hide a",
     number<&Options::sendBuffer>, 0, 65536},
    {"", nullptr, "slow link for long: a controller sees it late)", nullptr},
    {"--ring-ms", "MS", "how far a viewer may fall behind before it goes on at a key frame (8000)",
     number<&Options::service, &V::ringMilliseconds>, 1},
    {"--ring-bytes", "BYTES", "and how far in bytes of its session (16777216)",
     number<&Options::service, &V::ringBytes>, 1},
    {"--stall-ms", "MS", "a viewer that takes nothing for so long is dropped (15000)",
     number<&Options::service, &V::stallMilliseconds>, 1},
    {"--zero-copy", nullptr, "put frames in a memory file and send them with sendfile",
     turnOn<&Options::zeroCopy>},
    {"--zero-copy-mib", "MIB", "size of that file: all that queues and sockets hold, and more (64)",
     number<&Options::zeroCopyMib>, 8, 4096},
    {"--sender-param", "N", "stored by the library (0)", number<&Options::sender, &S::param>},
    {"--sender-flag", "N", "stored by the library (0)", number<&Options::sender, &S::flag>, 0, 255},
    {"--encoder-handle", "N", "the monitor warns about 0 (1)", number<&Options::sender, &S::encoderHandle>},
};

constexpr Option kMeasureRows[] = {
    {nullptr, nullptr, "What is measured", nullptr},
    {"--stats-json", "FILE", "every second a line with a JSON object behind those that are there: rates,",
     file<&Options::statsFile>},
    {"", nullptr, "sessions and their viewers; each line is written whole", nullptr},
    {"--stats-interval", "SECONDS", "between the monitor's bandwidth reports (5)",
     number<&Options::sender, &S::statsInterval>},
    {"--bandwidth-window", "FRAMES", "threaded sender's bandwidth monitor over so many frames (0: none)",
     number<&Options::bandwidthWindow>, 0, 1000000},
    {"--trace-dir", "DIR", "threaded sender writes debug-<time>.csv here (several sessions: in",
     setTraceDirectory},
    {"", nullptr, "DIR/1, DIR/2, ...); the status line then shows the queue", nullptr},
    {"--trace-every", "FRAMES", "video frames between its lines (30)",
     number<&Options::trace, &TraceOptions::every>},
    {"--burn-in", nullptr, "format the burn-in texts too", turnOn<&Options::trace, &TraceOptions::burnIn>},

};

} // namespace

std::vector<Option> optionTable()
{
    return joined(
        {kServedRows, encoderRows(), kRows, captionRows(), kMeasureRows, adaptiveRows(), saidRows()});
}
