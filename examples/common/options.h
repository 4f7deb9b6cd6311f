// What the command lines of the hosts say: one record for all of them.
#pragma once

#include <rtmpcast/player.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// The arguments of RtmpSenderSettings.
struct SenderOptions {
    uint32_t mode = 0; // RTMP_SENDER_THREADED, or 0 for the packet monitor
    uint32_t param = 0;
    uint32_t flag = 0;
    uint32_t encoderHandle = 1; // the packet monitor complains about 0
    uint32_t captionMode = 0;
    uint32_t statsInterval = 5; // seconds
    uint32_t audioQueue = 240;  // frames
    uint32_t videoQueue = 120;  // frames
};

// The arguments of RtmpDebugSettings.
struct TraceOptions {
    std::string directory; // empty: no trace
    uint32_t every = 30;   // video frames
    bool burnIn = false;
};

// Fields of RtmpServiceLimits that a command line names; 0 selects the library's default.
struct ServiceOptions {
    uint32_t ringMilliseconds = 0;
    uint32_t ringBytes = 0;
    uint32_t stallMilliseconds = 0;
};

// How a host makes frames itself; 0: as the input has it, or as the test pattern has it.
struct EncodeOptions {
    bool enabled = false;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t frameRate = 0;
    uint32_t audioBitrate = 96'000; // bit/s
    std::string preset = "superfast";
    const char *firstOption = nullptr; // one that was given, for the message that --encode is missing
};

// The arguments of RtmpAdaptiveBitrateSettings; 0 selects the library's default.
struct AdaptiveOptions {
    bool enabled = false;
    uint32_t reserved1 = 0;
    uint32_t reserved2 = 0;
    uint32_t minBitrate = 0;
    uint32_t startDelay = 0;
    uint32_t increaseFullness = 0;
    uint32_t increasePercent = 0;
    uint32_t increaseMinStep = 0;
    uint32_t increaseInterval = 0;
    uint32_t decreaseFullness = 0;
    uint32_t decreasePercent = 0;
    uint32_t decreaseFullnessHigh = 0;
    uint32_t decreasePercentHigh = 0;
    uint32_t decreaseInterval = 0;
    uint32_t reserved3 = 0;
};

// Where publish_host sends its stream, and whom else.
struct PublishOptions {
    std::vector<std::string> services; // rtmp[s]://[USER:PASSWORD@]HOST[:PORT]/APP/KEY
    std::string caFile;                // empty: the system's store
    bool insecure = false;             // no certificate is checked
    bool fixedBitrate = false;
    uint32_t servePort = 0; // 0: no players
};

enum class LogLevel { Quiet, Error, Info };

struct Options {
    bool help = false;
    std::string interfaceName = "any";
    uint32_t rtmpPort = 1935;
    uint32_t rtmptPort = 0;
    uint32_t dscp = 0;
    uint32_t chunkSize = 4096;
    uint32_t sendBuffer = 0;             // KiB of the kernel's for each player; 0: the kernel's choice
    uint32_t players = RTMP_PLAYERS_ALL; // the argument of RtmpPlayerSettings
    bool playersChosen = false;
    bool exact = false; // the library's default road, and its default players

    ServiceOptions service;
    std::string token;      // what viewers must bring; empty: nothing
    uint32_t rtmpsPort = 0; // of viewers over TLS; 0: none
    std::string tlsCertificate;
    std::string tlsKey;
    std::string statsFile; // empty: none

    std::vector<std::string> sessions; // of players
    std::string input;                 // empty: the clip beside the program's sources
    std::string captions;              // a file, or "-"; empty: none
    uint32_t videoBitrate = 0;         // bit/s; 0: what the file says. Never 0 when encoding
    EncodeOptions encode;
    bool zeroCopy = false;
    uint32_t zeroCopyMib = 64;

    PublishOptions publish;

    SenderOptions sender;
    uint32_t bandwidthWindow = 0; // the argument of RtmpBWMSettings, video frames; 0: no monitor
    TraceOptions trace;
    AdaptiveOptions adaptive;

    LogLevel logLevel = LogLevel::Error;
    uint32_t duration = 0; // seconds; 0: until a signal
};

// Says which option is wrong and what it takes.
class OptionError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};
