#include "options.h"

#include "service_url.h"

#include "common/option_rows.h"
#include "common/option_setters.h"

#include <rtmpcast/types.h>

namespace {

using setters::file;
using setters::number;
using setters::text;
using setters::turnOn;

using P = PublishOptions;
using S = SenderOptions;

void addService(Options &options, const Option &, const std::string &value)
{
    (void)parseServiceUrl(value); // throws for what is none
    options.publish.services.push_back(value);
}

constexpr Option kStreamRows[] = {
    {nullptr, nullptr, "Where to", nullptr},
    {"--to", "URL", "rtmp[s]://[USER:PASSWORD@]HOST[:PORT]/APP/KEY; repeat it for more services", addService},
    {"--ca", "FILE", "rtmps: who may have signed a service's certificate, PEM (the system's store)",
     file<&Options::publish, &P::caFile>},
    {"--insecure", nullptr, "rtmps: check no certificate. Whoever sits in between can then read the key and",
     turnOn<&Options::publish, &P::insecure>},
    {"", nullptr, "the stream, and take the service's place", nullptr},
    {"--serve", "PORT", "serve players too: rtmp://THIS-HOST:PORT/live/stream",
     number<&Options::publish, &P::servePort>, 1, 65535},

    {nullptr, nullptr, "What is sent", nullptr},
    {"--input", "FILE", "MP4, MKV, FLV or MPEG-TS with H.264, AAC or both, over and over (a test clip)",
     text<&Options::input>},
    {"--video-bitrate", "BITS", "announce this rate, bit/s (what the file says); see --encode",
     number<&Options::videoBitrate>, 0, INT32_MAX},
    {"--duration", "SECONDS", "stop after this long (0: on SIGINT or SIGTERM)", number<&Options::duration>},
};

constexpr Option kRows[] = {
    {nullptr, nullptr, "How frames leave", nullptr},
    {"--exact", nullptr, "the library's default road, whose writes wait for the service, instead of the",
     turnOn<&Options::exact>},
    {"", nullptr, "steady one", nullptr},
    {"--interface", "NAME", "of --serve, such as lo or eth0 (any: all of them)",
     text<&Options::interfaceName>},
    {"--dscp", "0-63", "of --serve: differentiated services code point (0)", number<&Options::dscp>, 0, 63},
    {"--chunk-size", "BYTES", "payload per outgoing chunk (4096)", number<&Options::chunkSize>, 1, 0xFFFFFF},
    {"--audio-queue", "FRAMES", "audio ring (240)", number<&Options::sender, &S::audioQueue>, 1, 1000000},
    {"--video-queue", "FRAMES", "video ring; its share that is taken is the controller's fullness (90)",
     number<&Options::sender, &S::videoQueue>, 1, 1000000},
    {"--bandwidth-window", "FRAMES", "the bandwidth monitor's, which says how far to lower (60)",
     number<&Options::bandwidthWindow>, 1, 1000000},
    {"--fixed-bitrate", nullptr, "the encoder stays at its rate, whatever the network carries",
     turnOn<&Options::publish, &P::fixedBitrate>},
};

constexpr const char *kHelpEnd = R"(
With --encode the encoder follows the slowest of the services that are connected; without --abr-... options at
settings that have proved themselves: never below 300000 bit/s, lowered to what the network carries as soon as a
tenth of the video ring waits, raised by a quarter of what is missing every second when nothing waits.

A connection that ends is made again, after 1 to 2 s the first time and up to a minute later, and begins at a key
frame; the encoder goes on meanwhile. What a service refuses for good (an application it does not have, a key it
does not take, a login, a certificate that is not trusted) is said with its own words and not tried again; when no
service is left, the program ends. "BadName" is tried again where the service says that the stream is already
being published, or has taken the key before: it has not noticed yet that the last connection is over. A service that
ends the connection without an answer is tried again, too: what it meant, nobody knows.

The status line: what the encoder makes (in), what it was told (target), and for each service what it took (out),
what waits for it (queue) and for how long (lag), frames that it did not get (dropped), and how often it was
connected again (reconnects). With --exact neither lag nor the frames of the two rings show: what waits there is not
in the queue, and what a full ring throws away is not among the dropped.

A service that takes nothing for two seconds lowers the encoder to its lowest rate, when no other takes anything.
After some ten seconds the connection is ended and made again.

A user and a password in the URL are for services that ask for the challenge login "authmod=adobe"; bytes that have
a meaning in URLs are written as %XX.

Exit code: 0 ended by a signal or --duration; 1 the source or a library call failed; 2 a wrong option; 3 a service
refused for good.

  publish_host --encode --to rtmp://127.0.0.1/live/stream --to rtmps://live.example.com/app/SECRET-KEY
)";

template <typename Number> void setDefault(Number &field, Number value)
{
    if (field == 0) {
        field = value;
    }
}

// What lowers: the library's own defaults only ever raise.
void fillAdaptive(Options &options)
{
    AdaptiveOptions &adaptive = options.adaptive;
    adaptive.enabled = true;
    setDefault(adaptive.minBitrate, 300'000U);
    setDefault(adaptive.startDelay, 3'000U);
    setDefault(adaptive.increaseFullness, 5U);
    setDefault(adaptive.increasePercent, 25U);
    setDefault(adaptive.increaseMinStep, 100'000U);
    setDefault(adaptive.increaseInterval, 1U);
    setDefault(adaptive.decreaseFullness, 10U);
    setDefault(adaptive.decreasePercent, 100U);
    setDefault(adaptive.decreaseFullnessHigh, 30U);
    setDefault(adaptive.decreasePercentHigh, 150U);
    setDefault(adaptive.decreaseInterval, 1U);
    setDefault(options.bandwidthWindow, 60U);
}

std::vector<Option> table()
{
    return joined({kStreamRows, encoderRows(), kRows, captionRows(), adaptiveRows(), saidRows()});
}

void checkTogether(Options &options)
{
    checkEncoding(options);
    if (!options.captions.empty() && options.sender.captionMode > 1) {
        throw OptionError("--captions needs --caption-mode 0 or 1");
    }
    if (options.publish.services.empty()) {
        throw OptionError("--to is missing: where to?");
    }
    if (options.publish.insecure && !options.publish.caFile.empty()) {
        throw OptionError("--insecure and --ca exclude each other");
    }
    if (options.publish.fixedBitrate && options.adaptive.enabled) {
        throw OptionError("--fixed-bitrate and --abr-... exclude each other");
    }
}

} // namespace

Options parsePublishOptions(int argc, char **argv)
{
    Options defaults;
    defaults.sender.mode = RTMP_SENDER_THREADED;
    defaults.sender.videoQueue = 90;
    Options options = readOptions(argc, argv, table(), defaults);
    if (options.help) {
        return options;
    }
    checkTogether(options);
    if (options.encode.enabled && !options.publish.fixedBitrate) {
        fillAdaptive(options);
    }
    return options;
}

std::string publishHelpText()
{
    return "publish_host publishes a media file, or what it encodes itself, to streaming services.\n\n"
           "Usage: publish_host --to URL [options]      defaults in parentheses\n" +
           optionsHelp(table()) + kHelpEnd;
}
