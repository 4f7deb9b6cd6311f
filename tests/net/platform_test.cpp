#include "net/platform.h"

#include "support/produced.h"

#include <cerrno>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

namespace {

void *SetFlag(void *flag)
{
    __atomic_store_n(static_cast<int *>(flag), 1, __ATOMIC_RELEASE);
    return nullptr;
}

void *ExitThenSetFlag(void *flag)
{
    RtmpThreadExit(0);
    return SetFlag(flag); // never
}

struct Sleeper {
    int pipe[2];
    int started = 0;
    int cleaned = 0;
};

void *SleepInRead(void *argument)
{
    Sleeper *sleeper = static_cast<Sleeper *>(argument);
    pthread_cleanup_push([](void *s) { static_cast<Sleeper *>(s)->cleaned = 1; }, sleeper);
    sleeper->started = 1;
    char byte;
    (void)!read(sleeper->pipe[0], &byte, 1);
    pthread_cleanup_pop(0);
    return nullptr;
}

} // namespace

TEST(RtmpMutex, IsAdaptiveAndNotRecursive)
{
    RtmpMutex mutex;
    ASSERT_EQ(RtmpMutexInit(&mutex), 0);
    EXPECT_EQ(mutex.__data.__kind & 3, PTHREAD_MUTEX_ADAPTIVE_NP);
    ASSERT_EQ(RtmpMutexLock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(RtmpMutexUnlock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(RtmpMutexUnlock(&mutex), 0);
    EXPECT_EQ(RtmpMutexDestroy(&mutex), 0);
}

#ifndef __SANITIZE_THREAD__ // which reports each of these misuses, rightly
TEST(RtmpMutex, EveryFailureIsMinusOne)
{
    pthread_mutexattr_t checking;
    pthread_mutexattr_init(&checking);
    pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
    RtmpMutex mutex;
    pthread_mutex_init(&mutex, &checking);
    EXPECT_EQ(RtmpMutexUnlock(&mutex), -1); // not held
    ASSERT_EQ(RtmpMutexLock(&mutex), 0);
    EXPECT_EQ(RtmpMutexLock(&mutex), -1); // held by this thread
    EXPECT_EQ(RtmpMutexDestroy(&mutex), -1);
    EXPECT_EQ(RtmpMutexUnlock(&mutex), 0);
    EXPECT_EQ(RtmpMutexDestroy(&mutex), 0);
}
#endif

TEST(RtmpThread, IsJoinableAndRunsItsStart)
{
    RtmpThread thread = 0;
    int flag = 0;
    ASSERT_EQ(RtmpThreadCreate(&thread, SetFlag, &flag), 0);
    EXPECT_EQ(RtmpWaitForThreadCompletion(thread), 0);
    EXPECT_EQ(flag, 1);
}

TEST(RtmpThread, ExitDoesNotReturn)
{
    RtmpThread thread = 0;
    int flag = 0;
    ASSERT_EQ(RtmpThreadCreate(&thread, ExitThenSetFlag, &flag), 0);
    EXPECT_EQ(RtmpWaitForThreadCompletion(thread), 0);
    EXPECT_EQ(flag, 0);
}

TEST(RtmpThread, CancelEndsABlockedThreadAndItsCleanUpRuns)
{
    Sleeper sleeper;
    ASSERT_EQ(pipe(sleeper.pipe), 0);
    RtmpThread thread = 0;
    ASSERT_EQ(RtmpThreadCreate(&thread, SleepInRead, &sleeper), 0);
    EXPECT_EQ(RtmpThreadCancel(thread), 0);
    EXPECT_EQ(RtmpWaitForThreadCompletion(thread), 0);
    EXPECT_EQ(sleeper.started, sleeper.cleaned); // also when it was cancelled before it began
    close(sleeper.pipe[0]);
    close(sleeper.pipe[1]);
}

TEST(RtmpThread, NoThreadIsWaitedForAtOnceAndNeverTouched)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(RtmpWaitForThreadCompletion(0), 0);
    EXPECT_EQ(RtmpThreadCancel(0), 0);
    EXPECT_EQ(RtmpThreadDetach(0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(RtmpThread, AJoinThatFailsIsReportedOnStandardError)
{
    testing::internal::CaptureStderr();
    const int result = RtmpWaitForThreadCompletion(pthread_self());
    const std::string said = testing::internal::GetCapturedStderr();
    produced::Note("stderr", said);
    EXPECT_EQ(said, "RtmpWaitForThreadCompletion: Resource deadlock avoided\n");
    EXPECT_EQ(result, -1);
}

TEST(RtmpThread, DetachingIsPossibleOnce)
{
    static sem_t go; // outlives the detached thread
    sem_init(&go, 0, 0);
    RtmpThread thread = 0;
    ASSERT_EQ(RtmpThreadCreate(
                  &thread,
                  [](void *semaphore) -> void * {
                      sem_wait(static_cast<sem_t *>(semaphore));
                      return nullptr;
                  },
                  &go),
              0);
    EXPECT_EQ(RtmpThreadDetach(thread), 0);
#ifndef __SANITIZE_THREAD__ // which reports the second attempt, rightly
    EXPECT_EQ(RtmpThreadDetach(thread), -1);
#endif
    sem_post(&go);
}

TEST(RtmpThread, SelfIsTheCallingThread)
{
    EXPECT_TRUE(pthread_equal(RtmpGetSelfThreadHandle(), pthread_self()));
}

TEST(RtmpClock, CountsMillisecondsOfTheMonotonicClock)
{
    timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    const uint64_t now = RtmpGetSystemTime();
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(now,
              static_cast<uint64_t>(before.tv_sec) * 1000 + static_cast<uint64_t>(before.tv_nsec) / 1000000);
    EXPECT_LE(now,
              static_cast<uint64_t>(after.tv_sec) * 1000 + static_cast<uint64_t>(after.tv_nsec) / 1000000);
}
