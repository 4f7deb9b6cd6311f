// The threads that the library starts, without what they are about.
#include "serve/accept.h"
#include "serve/serve.h"
#include "support/produced.h"
#include "support/wait.h"

#include <filesystem>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

size_t ThreadsOfThisProcess()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// While it is captured, which is in a file.
size_t BytesCaptured()
{
    struct stat file = {};
    fflush(stdout);
    EXPECT_EQ(fstat(STDOUT_FILENO, &file), 0);
    return static_cast<size_t>(file.st_size);
}

// What a thread says that is started with nothing. It detaches itself.
std::string SaysWithoutArgument(void *(*body)(void *))
{
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first
    const size_t threads = ThreadsOfThisProcess();
    testing::internal::CaptureStdout();
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
    EXPECT_TRUE(WaitUntil([&] { return BytesCaptured() > 0 && ThreadsOfThisProcess() <= threads; }));
    return produced::CapturedStdout();
}

} // namespace

TEST(AcceptRtmpConnectionThread, WithoutAServerEndsAtOnce)
{
    EXPECT_EQ(SaysWithoutArgument(AcceptRtmpConnectionThread),
              "RTMPWriter: ERROR: AcceptRtmpConnectionThread: Invalid thread input arguments\n");
}

TEST(ServeRtmpClient, WithoutAClientEndsAtOnce)
{
    EXPECT_EQ(SaysWithoutArgument(ServeRtmpClient),
              "RTMPWriter: ERROR: ServeRtmpClient: Invalid thread input arguments\n");
}
