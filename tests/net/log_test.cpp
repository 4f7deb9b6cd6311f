#include "net/log.h"
#include "support/capture_logger.h"

TEST(LogPrint, WithoutALoggerPrintsBehindRtmpWriterOnStandardOutput)
{
    testing::internal::CaptureStdout();
    RtmpLogPrint(nullptr, RTMP_LOG_INFO, "INFO: %s: hello %d\n", "Here", 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "RTMPWriter: INFO: Here: hello 5\n");
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
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
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
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "RTMPWriter: INFO: Here: after\n");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"6 INFO: Here: before"});
}
