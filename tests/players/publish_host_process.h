// publish_host as a process, and a look into what a service recorded of it.
#pragma once

#include "stage.h"

#include <algorithm>
#include <regex>

// publish_host, which encodes and also serves players.
class PublishHost {
  public:
    PublishHost(const std::string &url, bool isExact) : playersPort(SomePort())
    {
        std::vector<std::string> words = {PUBLISH_HOST,
                                          "--encode",
                                          "--size",
                                          "320x180",
                                          "--video-bitrate",
                                          "1500000",
                                          "--interface",
                                          "lo",
                                          "--serve",
                                          std::to_string(playersPort),
                                          "--to",
                                          url};
        if (isExact) {
            words.push_back("--exact");
        }
        process = std::make_unique<Process>(words);
    }
    std::string playersUrl() const
    {
        return "rtmp://127.0.0.1:" + std::to_string(playersPort) + "/live/stream";
    }
    // Until what is said from now on holds it.
    bool waitFor(const std::string &pattern)
    {
        const size_t from = process->output().size();
        return process->waitForOutput([&](const std::string &output) {
            return std::regex_search(output.substr(from), std::regex(pattern));
        });
    }
    // The most that has waited, in KiB, by the status lines.
    long longestQueue() const
    {
        const std::string output = process->output();
        const std::regex queue("queue ([0-9]+) KiB");
        long most = -1;
        for (std::sregex_iterator at(output.begin(), output.end(), queue), end; at != end; ++at) {
            most = std::max(most, atol((*at)[1].str().c_str()));
        }
        return most;
    }
    const uint16_t playersPort;
    std::unique_ptr<Process> process;
};

// Each picture is one frame behind the other; across a gap, where there may be one, a key frame.
inline void ExpectPictures(const std::string &recording, bool mayHaveGaps)
{
    constexpr int64_t kFrame = 34; // ms
    const std::vector<Packet> pictures = PacketsOf(recording, 'v');
    ASSERT_FALSE(pictures.empty());
    EXPECT_TRUE(pictures[0].key);
    for (size_t i = 1; i < pictures.size(); i++) {
        const bool isGap = pictures[i].time - pictures[i - 1].time > kFrame;
        EXPECT_FALSE(isGap && !(mayHaveGaps && pictures[i].key))
            << recording << ": " << pictures[i - 1].time << " to " << pictures[i].time << " ms";
    }
    const Finished decoded =
        RunToEnd({"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", recording, "-f", "null", "-"});
    EXPECT_EQ(decoded.exit, (Exit{0, 0}));
    EXPECT_EQ(decoded.output, "");
}
