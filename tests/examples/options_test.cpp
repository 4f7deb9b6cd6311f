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
                                   "9"});
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
