// publish_host and a real service that stops reading: the encoder waits at its lowest, what waits is bounded,
// the player beside misses nothing, and the stream goes on at a key frame, over the same connection or
// another.
#include "nginx_service.h"
#include "stage.h"

#include <algorithm>
#include <csignal>
#include <regex>

namespace {

constexpr int64_t kFrame = 34; // ms

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
void ExpectPictures(const std::string &recording, bool mayHaveGaps)
{
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

class StalledService : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(host.process->waitForText("publishing to ")) << host.process->output();
        player = std::make_unique<Recorder>(host.playersUrl(), work.path("player.flv"));
        ASSERT_TRUE(player->waitForSeconds(2)) << player->output() << host.process->output();
        nginx.process->signal(SIGSTOP);
        ASSERT_TRUE(host.waitFor(" target 300 kbit/s")) << host.process->output();
        ASSERT_TRUE(player->waitForSeconds(player->seconds() + 1)) << host.process->output();
    }

    void end()
    {
        player->stop();
        host.process->signal(SIGINT);
        EXPECT_EQ(host.process->wait(), (Exit{0, 0})) << host.process->output();
        EXPECT_TRUE(nginx.process->waitForText("deleteStream")) << nginx.process->output();
        nginx.process->signal(SIGINT);
        (void)nginx.process->wait();
        ExpectPictures(work.path("player.flv"), false);
        ExpectPictures(work.path("recordings/key.flv"), true);
        EXPECT_GT(host.longestQueue(), 50) << "something waited";
        EXPECT_LT(host.longestQueue(), 4096);
    }

    Directory work;
    Nginx nginx{work};
    PublishHost host{"rtmp://127.0.0.1:" + std::to_string(nginx.port) + "/live/key", GetParam()};
    std::unique_ptr<Recorder> player;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Roads, StalledService, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &info) {
                             return info.param ? "Exact" : "Steady";
                         });

TEST_P(StalledService, GoesOnOverTheSameConnection)
{
    nginx.process->signal(SIGCONT);
    EXPECT_TRUE(host.waitFor(" target (?!300 )[0-9]+ kbit/s.* out [1-9].* reconnects 0"))
        << host.process->output();
    end();
}

TEST_P(StalledService, IsConnectedAgainWhenItStallsForLong)
{
    EXPECT_TRUE(host.waitFor("the connection has ended; again in")) << host.process->output();
    nginx.process->signal(SIGCONT);
    EXPECT_TRUE(host.waitFor(" out [1-9][0-9]+ kbit/s.* reconnects 1")) << host.process->output();
    end();
}
