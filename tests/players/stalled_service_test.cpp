// publish_host and a real service that stops reading: the encoder waits at its lowest, what waits is bounded,
// the player beside misses nothing, and the stream goes on at a key frame, over the same connection or
// another.
#include "nginx_service.h"
#include "publish_host_process.h"

#include <csignal>

namespace {

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
    EXPECT_TRUE(host.waitFor(" out [1-9][0-9]{2,} kbit/s.* reconnects 1")) << host.process->output();
    end();
}
