// publish_host and ffmpeg as a service, on both roads: its status line, a service that is killed, and the
// end.
#include "publish_host_process.h"

#include <csignal>

namespace {

// ffmpeg, which serves one publisher and ends with it.
class Listener {
  public:
    Listener(uint16_t port, const std::string &recording)
        : process({"ffmpeg", "-nostdin", "-y", "-v", "error", "-listen", "1", "-i",
                   "rtmp://127.0.0.1:" + std::to_string(port) + "/live/key", "-c", "copy", recording})
    {
    }
    Process process;
};

class PublishHostWalk : public testing::TestWithParam<bool> {
  protected:
    bool publishes(int reconnects)
    {
        const std::string figures = GetParam() ? "" : " lag [0-9]+ ms";
        return host.waitFor(
            "up 00:[0-9:]{5}  in +[0-9]+ target [0-9]+ kbit/s  \\| rtmp://127.0.0.1:[0-9]+/live out "
            "[1-9][0-9]{2,} kbit/s queue [0-9]+ KiB" +
            figures + " dropped 0 reconnects " + std::to_string(reconnects) + "\n");
    }

    Directory work;
    const uint16_t port = SomePort();
    PublishHost host{"rtmp://127.0.0.1:" + std::to_string(port) + "/live/key", GetParam()};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Roads, PublishHostWalk, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &info) {
                             return info.param ? "Exact" : "Steady";
                         });

// The service reads the end late: it is stopped while the host says good-bye.
TEST_P(PublishHostWalk, ConnectsAgainToAServiceThatWasKilledAndEndsCleanly)
{
    {
        Listener killed(port, work.path("killed.flv"));
        EXPECT_TRUE(publishes(0)) << host.process->output();
        killed.process.signal(SIGKILL);
        (void)killed.process.wait();
    }
    EXPECT_TRUE(host.process->waitForText("the connection has ended; again in ")) << host.process->output();
    Listener second(port, work.path("second.flv"));
    EXPECT_TRUE(publishes(1)) << host.process->output();
    second.process.signal(SIGSTOP);
    host.process->signal(SIGINT);
    EXPECT_TRUE(host.process->waitForText("stopping\n"));
    second.process.signal(SIGCONT);
    EXPECT_EQ(host.process->wait(), (Exit{0, 0})) << host.process->output();
    EXPECT_EQ(second.process.wait(), (Exit{0, 0})) << second.process.output();
    ExpectPictures(work.path("second.flv"), false);
}
