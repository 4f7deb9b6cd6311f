#include "live_host/options.h"

#include <gtest/gtest.h>

#include <rtmpcast/types.h>

namespace {

Options parse(std::vector<std::string> words)
{
    words.insert(words.begin(), "live_host");
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    return parseOptions(static_cast<int>(argv.size()), argv.data());
}

std::string refusal(const std::vector<std::string> &words)
{
    try {
        parse(words);
    } catch (const OptionError &error) {
        return error.what();
    }
    return "accepted";
}

} // namespace

TEST(Options, WithoutAnyOptionTheClipIsServedAsStream)
{
    const Options options = parse({});
    EXPECT_EQ(options.sessions, std::vector<std::string>{"stream"});
    EXPECT_EQ(options.interfaceName, "any");
    EXPECT_EQ(options.rtmpPort, 1935u);
    EXPECT_EQ(options.rtmptPort, 0u);
    EXPECT_EQ(options.input, "");
    EXPECT_EQ(options.sender.mode, 0u);
    EXPECT_NE(options.sender.encoderHandle, 0u);
}

TEST(Options, ValuesStandBehindTheOptionOrBehindAnEqualsSign)
{
    const Options options =
        parse({"--rtmp-port", "0", "--session=a", "--session", "b=c", "--sender=threaded"});
    EXPECT_EQ(options.rtmpPort, 0u);
    EXPECT_EQ(options.sessions, (std::vector<std::string>{"a", "b=c"}));
    EXPECT_EQ(options.sender.mode, uint32_t{RTMP_SENDER_THREADED});
}

TEST(Options, EveryArgumentOfTheSettingsHasItsOption)
{
    const Options options = parse({"--sender",
                                   "threaded",
                                   "--sender-param",
                                   "1",
                                   "--sender-flag",
                                   "2",
                                   "--encoder-handle",
                                   "3",
                                   "--caption-mode",
                                   "1",
                                   "--stats-interval",
                                   "4",
                                   "--audio-queue",
                                   "5",
                                   "--video-queue",
                                   "6",
                                   "--trace-dir",
                                   "t",
                                   "--trace-every",
                                   "7",
                                   "--burn-in",
                                   "--bandwidth-window",
                                   "8",
                                   "--abr-min-bitrate",
                                   "9",
                                   "--abr-start-delay",
                                   "10",
                                   "--abr-increase-fullness",
                                   "11",
                                   "--abr-increase-percent",
                                   "12",
                                   "--abr-increase-min-step",
                                   "13",
                                   "--abr-increase-interval",
                                   "14",
                                   "--abr-decrease-fullness",
                                   "15",
                                   "--abr-decrease-percent",
                                   "16",
                                   "--abr-decrease-fullness-high",
                                   "17",
                                   "--abr-decrease-percent-high",
                                   "18",
                                   "--abr-decrease-interval",
                                   "19",
                                   "--abr-reserved-1",
                                   "20",
                                   "--abr-reserved-2",
                                   "21",
                                   "--abr-reserved-3",
                                   "22"});
    EXPECT_EQ(options.sender.param, 1u);
    EXPECT_EQ(options.sender.flag, 2u);
    EXPECT_EQ(options.sender.encoderHandle, 3u);
    EXPECT_EQ(options.sender.captionMode, 1u);
    EXPECT_EQ(options.sender.statsInterval, 4u);
    EXPECT_EQ(options.sender.audioQueue, 5u);
    EXPECT_EQ(options.sender.videoQueue, 6u);
    EXPECT_EQ(options.trace.directory, "t");
    EXPECT_EQ(options.trace.every, 7u);
    EXPECT_TRUE(options.trace.burnIn);
    EXPECT_EQ(options.bandwidthWindow, 8u);
    EXPECT_TRUE(options.adaptive.enabled);
    EXPECT_EQ(options.adaptive.minBitrate, 9u);
    EXPECT_EQ(options.adaptive.startDelay, 10u);
    EXPECT_EQ(options.adaptive.increaseFullness, 11u);
    EXPECT_EQ(options.adaptive.increasePercent, 12u);
    EXPECT_EQ(options.adaptive.increaseMinStep, 13u);
    EXPECT_EQ(options.adaptive.increaseInterval, 14u);
    EXPECT_EQ(options.adaptive.decreaseFullness, 15u);
    EXPECT_EQ(options.adaptive.decreasePercent, 16u);
    EXPECT_EQ(options.adaptive.decreaseFullnessHigh, 17u);
    EXPECT_EQ(options.adaptive.decreasePercentHigh, 18u);
    EXPECT_EQ(options.adaptive.decreaseInterval, 19u);
    EXPECT_EQ(options.adaptive.reserved1, 20u);
    EXPECT_EQ(options.adaptive.reserved2, 21u);
    EXPECT_EQ(options.adaptive.reserved3, 22u);
}

TEST(Options, PlayersOfTodayAreServedUnlessTheDefaultOfTheLibraryIsWanted)
{
    EXPECT_EQ(parse({}).players, uint32_t{RTMP_PLAYERS_ALL});
    EXPECT_EQ(parse({"--exact"}).players, uint32_t{RTMP_PLAYERS_EXACT});
    EXPECT_EQ(parse({"--players", "all"}).players, uint32_t{RTMP_PLAYERS_ALL});
    EXPECT_EQ(parse({"--players", "none"}).players, uint32_t{RTMP_PLAYERS_EXACT});
}

TEST(Options, EveryRuleForPlayersHasItsName)
{
    const struct {
        const char *name;
        uint32_t flag;
    } rows[] = {
        {"commands", RTMP_PLAYERS_COMMANDS},       {"handshake", RTMP_PLAYERS_HANDSHAKE},
        {"version", RTMP_PLAYERS_VERSION},         {"description", RTMP_PLAYERS_DESCRIPTION},
        {"timeline", RTMP_PLAYERS_TIMELINE},       {"chunks-in", RTMP_PLAYERS_CHUNKS_IN},
        {"chunks-out", RTMP_PLAYERS_CHUNKS_OUT},   {"connect", RTMP_PLAYERS_CONNECT},
        {"stream-name", RTMP_PLAYERS_STREAM_NAME}, {"key-frame", RTMP_PLAYERS_KEY_FRAME},
        {"acknowledge", RTMP_PLAYERS_ACKNOWLEDGE},
    };
    std::string list = "none";
    uint32_t sum = 0;
    for (const auto &row : rows) {
        EXPECT_EQ(parse({"--players", row.name}).players, row.flag) << row.name;
        EXPECT_NE(helpText().find(row.name), std::string::npos) << row.name;
        list.append(",").append(row.name);
        sum |= row.flag;
        EXPECT_EQ(parse({"--players", list}).players, sum) << list;
    }
    EXPECT_EQ(sum, uint32_t{RTMP_PLAYERS_ALL});
}

TEST(Options, RulesForPlayersAreRefusedWithTheirReason)
{
    EXPECT_EQ(refusal({"--players", ""}), "--players: '' is not a rule: see live_host --help");
    EXPECT_EQ(refusal({"--players", "chunks"}), "--players: 'chunks' is not a rule: see live_host --help");
    EXPECT_EQ(refusal({"--players", "version,"}), "--players: '' is not a rule: see live_host --help");
    EXPECT_EQ(refusal({"--players", "version, connect"}),
              "--players: ' connect' is not a rule: see live_host --help");
    EXPECT_EQ(refusal({"--players"}), "--players needs a value: LIST");
    EXPECT_EQ(refusal({"--exact=yes"}), "--exact takes no value");
    EXPECT_EQ(refusal({"--exact", "--players", "none"}), "--exact and --players exclude each other");
    EXPECT_EQ(refusal({"--players", "all", "--exact"}), "--exact and --players exclude each other");
}

TEST(Options, TheSteadyRoadIsTakenUnlessTheDefaultOfTheLibraryIsWanted)
{
    EXPECT_FALSE(parse({}).exact);
    EXPECT_TRUE(parse({"--exact"}).exact);
    EXPECT_FALSE(parse({"--players", "none"}).exact) << "players are another matter";
}

TEST(Options, WhatOnlyTheSteadyRoadHas)
{
    const Options options = parse({"--token", "aZ0-._~", "--rtmps-port", "4433", "--tls-cert", "c.pem",
                                   "--tls-key", "k.pem", "--stats-json", "s.json"});
    EXPECT_EQ(options.token, "aZ0-._~");
    EXPECT_EQ(options.rtmpsPort, 4433u);
    EXPECT_EQ(options.tlsCertificate, "c.pem");
    EXPECT_EQ(options.tlsKey, "k.pem");
    EXPECT_EQ(options.statsFile, "s.json");
    const Options none = parse({});
    EXPECT_EQ(none.token + none.tlsCertificate + none.tlsKey + none.statsFile, "");
    EXPECT_EQ(none.rtmpsPort, 0u);
    EXPECT_EQ(parse({"--token", "x", "--players", "handshake,stream-name"}).token, "x");
}

TEST(Options, WhatOnlyTheSteadyRoadHasIsRefusedWithItsReason)
{
    const char *others = "--token, --rtmps-port and --stats-json are not for --exact";
    EXPECT_EQ(refusal({"--exact", "--token", "x"}), others);
    EXPECT_EQ(refusal({"--exact", "--stats-json", "x"}), others);
    EXPECT_EQ(refusal({"--exact", "--rtmps-port", "1", "--tls-cert", "c", "--tls-key", "k"}), others);
    EXPECT_EQ(refusal({"--token", "a b"}), "--token: 'a b' is not made of letters, digits and -._~");
    EXPECT_EQ(refusal({"--token", ""}), "--token: '' is not made of letters, digits and -._~");
    EXPECT_EQ(refusal({"--token", "x", "--players", "none"}),
              "--token needs the rule stream-name among --players");
    EXPECT_EQ(refusal({"--rtmps-port", "1", "--tls-key", "k"}),
              "--rtmps-port needs --tls-cert and --tls-key");
    EXPECT_EQ(refusal({"--rtmps-port", "1", "--tls-cert", "c"}),
              "--rtmps-port needs --tls-cert and --tls-key");
    EXPECT_EQ(refusal({"--tls-cert", "c"}), "--tls-cert and --tls-key need --rtmps-port");
    EXPECT_EQ(refusal({"--rtmps-port", "1935", "--tls-cert", "c", "--tls-key", "k"}),
              "--rtmps-port is the port of another listener");
    EXPECT_EQ(refusal({"--rtmps-port", "70000"}), "--rtmps-port: '70000' is not a number from 0 to 65535");
    EXPECT_EQ(refusal({"--stats-json", ""}), "--stats-json: '' is not a file");
}

TEST(Options, EncodingHasItsOwn)
{
    const Options options = parse({"--encode", "--size", "640x360", "--frame-rate=25", "--preset", "veryfast",
                                   "--audio-bitrate", "64000"});
    EXPECT_TRUE(options.encode.enabled);
    EXPECT_EQ(options.encode.width, 640u);
    EXPECT_EQ(options.encode.height, 360u);
    EXPECT_EQ(options.encode.frameRate, 25u);
    EXPECT_EQ(options.encode.preset, "veryfast");
    EXPECT_EQ(options.encode.audioBitrate, 64'000u);
    EXPECT_EQ(options.videoBitrate, 4'000'000u);
    EXPECT_EQ(parse({"--encode", "--video-bitrate", "500000"}).videoBitrate, 500'000u);
    EXPECT_EQ(parse({"--send-buffer", "16"}).sendBuffer, 16u);
}

TEST(Options, EncodingOptionsAreRefusedWithTheirReason)
{
    EXPECT_EQ(refusal({"--size", "640x360"}), "--size needs --encode");
    EXPECT_EQ(refusal({"--preset", "fast"}), "--preset needs --encode");
    EXPECT_EQ(refusal({"--frame-rate", "25"}), "--frame-rate needs --encode");
    EXPECT_EQ(refusal({"--audio-bitrate", "64000"}), "--audio-bitrate needs --encode");
    for (const std::string size :
         {"640", "640x", "641x360", "640x361", "8000x360", "640x360x1", "-2x360", ""}) {
        EXPECT_EQ(refusal({"--encode", "--size", size}),
                  "--size: '" + size + "' is not WxH with even numbers from 64 to 4096");
    }
    EXPECT_EQ(refusal({"--encode", "--preset", "quick"}), "--preset: 'quick' is not one of x264's presets");
    EXPECT_EQ(refusal({"--encode", "--frame-rate", "0"}), "--frame-rate: '0' is not a number from 1 to 120");
    EXPECT_EQ(refusal({"--encode", "--video-bitrate", "1000"}),
              "--video-bitrate: --encode takes from 64000 to 100000000 bit/s");
    EXPECT_EQ(refusal({"--encode=yes"}), "--encode takes no value");
}

TEST(Options, ATraceDirectoryFitsTheLibrarysPaths)
{
    EXPECT_EQ(parse({"--sender", "threaded", "--trace-dir", std::string(100, 'd')}).trace.directory,
              std::string(100, 'd'));
    EXPECT_EQ(refusal({"--sender", "threaded", "--trace-dir", std::string(101, 'd')}),
              "--trace-dir: '" + std::string(101, 'd') + "' is not a directory of 1 to 100 bytes");
    EXPECT_EQ(refusal({"--sender", "threaded", "--burn-in"}), "--burn-in needs --trace-dir");
}

TEST(Options, TheHelpSaysWhatLoweringTakes)
{
    EXPECT_NE(helpText().find("thresholds below\n100 and a bandwidth monitor"), std::string::npos);
}

TEST(Options, ARefusalNamesTheOptionTheValueAndWhatItTakes)
{
    EXPECT_EQ(refusal({"--rtmp-port", "65536"}), "--rtmp-port: '65536' is not a number from 0 to 65535");
    EXPECT_EQ(refusal({"--dscp=-1"}), "--dscp: '-1' is not a number from 0 to 63");
    EXPECT_EQ(refusal({"--duration", "5s"}), "--duration: '5s' is not a number from 0 to 4294967295");
    EXPECT_EQ(refusal({"--duration", ""}), "--duration: '' is not a number from 0 to 4294967295");
    EXPECT_EQ(refusal({"--sender", "fast"}), "--sender: 'fast' is not monitor or threaded");
    EXPECT_EQ(refusal({"--log-level", "5"}), "--log-level: '5' is not quiet, error or info");
    EXPECT_EQ(refusal({"--session", "a", "--session", "a"}), "--session: 'a' is given twice");
    EXPECT_EQ(refusal({"--input"}), "--input needs a value: FILE");
    EXPECT_EQ(refusal({"--zero-copy=yes"}), "--zero-copy takes no value");
    EXPECT_EQ(refusal({"--fast"}), "unknown option '--fast'");
    EXPECT_EQ(refusal({"clip.mp4"}), "unknown option 'clip.mp4'");
}

TEST(Options, WhatOnlyTheThreadedSenderHasIsRefusedWithoutIt)
{
    EXPECT_EQ(refusal({"--adaptive"}), "--adaptive and --abr-... need --sender threaded");
    EXPECT_EQ(refusal({"--bandwidth-window", "9"}), "--bandwidth-window needs --sender threaded");
    EXPECT_EQ(refusal({"--trace-dir", "."}), "--trace-dir needs --sender threaded");
}

TEST(Options, TheRingOfTheSteadyRoadHasItsLimits)
{
    const ServiceOptions service =
        parse({"--ring-ms", "2000", "--ring-bytes=1000000", "--stall-ms", "30000"}).service;
    EXPECT_EQ(service.ringMilliseconds, 2000u);
    EXPECT_EQ(service.ringBytes, 1'000'000u);
    EXPECT_EQ(service.stallMilliseconds, 30'000u);
    EXPECT_EQ(parse({}).service.ringMilliseconds, 0u);
    EXPECT_EQ(refusal({"--ring-ms", "0"}), "--ring-ms: '0' is not a number from 1 to 4294967295");
    for (const char *option : {"--ring-ms", "--ring-bytes", "--stall-ms"}) {
        EXPECT_EQ(refusal({"--exact", option, "9"}),
                  "--ring-ms, --ring-bytes and --stall-ms are not for --exact");
    }
}
