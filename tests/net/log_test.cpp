#include "net/log.h"
#include "support/capture_logger.h"
#include "support/produced.h"
#include "support/wait.h"

#include <atomic>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

TEST(LogPrint, WithoutALoggerPrintsBehindRtmpWriterOnStandardOutput)
{
    testing::internal::CaptureStdout();
    RtmpLogPrint(nullptr, RTMP_LOG_INFO, "INFO: %s: hello %d\n", "Here", 5);
    EXPECT_EQ(produced::CapturedStdout(), "RTMPWriter: INFO: Here: hello 5\n");
}

TEST(LogPrint, WithALoggerPassesContextLevelFormatAndArguments)
{
    CaptureLogger log;
    RtmpLogPrint(log.get(), RTMP_LOG_ERROR, "ERROR: %s: n=%u\n", "There", 7U);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"3 ERROR: There: n=7"});
}

TEST(LogPrint, AHalfFilledLoggerIsSilent)
{
    CaptureLogger log;
    RtmpLogger noContext = {log.get()->LogFunction, nullptr};
    RtmpLogger noFunction = {nullptr, &log};
    testing::internal::CaptureStdout();
    RtmpLogPrint(&noContext, RTMP_LOG_ERROR, "ERROR: %s: lost\n", "Here");
    RtmpLogPrint(&noFunction, RTMP_LOG_ERROR, "ERROR: %s: lost\n", "Here");
    EXPECT_EQ(produced::CapturedStdout(), "");
    EXPECT_TRUE(log.lines().empty());
}

TEST(LogGate, LinesGoToStandardOutputOnceTheLoggerIsLetGo)
{
    CaptureLogger log;
    RtmpServer server = {};
    server.Logger = log.get();
    OpenLogGate(&server);
    RtmpLogger *logger = LoggerOf(&server);
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: before\n", "Here");
    CloseLogGate(&server);
    testing::internal::CaptureStdout();
    RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: after\n", "Here");
    EXPECT_EQ(produced::CapturedStdout(), "RTMPWriter: INFO: Here: after\n");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"6 INFO: Here: before"});
}

namespace {

// Standard output as a pipe that is full: whoever writes to it waits until it is drained.
class BlockedStdout {
  public:
    BlockedStdout()
    {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        EXPECT_EQ(pipe(ends_), 0);
        EXPECT_EQ(fcntl(ends_[1], F_SETFL, O_NONBLOCK), 0);
        const std::string block(4096, ' ');
        while (write(ends_[1], block.data(), block.size()) > 0) {
        }
        EXPECT_EQ(fcntl(ends_[1], F_SETFL, 0), 0);
        dup2(ends_[1], STDOUT_FILENO);
        close(ends_[1]);
    }
    // Whoever waits goes on; `writer` has then written all it has to.
    void drainUntilEndOf(std::thread &writer)
    {
        std::thread reader([this] {
            char block[4096];
            while (read(ends_[0], block, sizeof block) > 0) {
            }
        });
        writer.join();
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO); // the last writing end
        reader.join();
        close(saved_);
        close(ends_[0]);
    }

  private:
    int saved_;
    int ends_[2];
};

bool StdoutIsInUse()
{
    if (ftrylockfile(stdout) != 0) {
        return true;
    }
    funlockfile(stdout);
    return false;
}

} // namespace

TEST(LogGate, DoesNotWaitForThreadsThatWriteToStandardOutput)
{
    RtmpServer server = {};
    OpenLogGate(&server);
    RtmpLogger *logger = LoggerOf(&server);
    BlockedStdout out;
    std::thread writer([&] {
        RtmpLogPrint(logger, RTMP_LOG_INFO, "INFO: %s: %s\n", "Here", std::string(100000, '.').c_str());
    });
    const bool waits = WaitUntil(StdoutIsInUse);
    std::atomic<bool> closed = false;
    std::thread closer([&] {
        CloseLogGate(&server);
        closed = true;
    });
    const bool returned = WaitUntil([&] { return closed.load(); }, 2000);
    out.drainUntilEndOf(writer);
    closer.join();
    EXPECT_TRUE(waits);
    EXPECT_TRUE(returned);
}
