#include "rtmpcast/publish.h"

#include <csignal>

TEST(HandleSignal, IgnoresSigpipeAndReturnsWhatWasThereBefore)
{
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    EXPECT_EQ(HandleSignal(), SIG_DFL);
    EXPECT_EQ(raise(SIGPIPE), 0); // and we live on
    EXPECT_EQ(HandleSignal(), SIG_IGN);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
}
