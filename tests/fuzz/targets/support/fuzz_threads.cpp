#include "support/fuzz_threads.h"

#include "support/wait.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <unistd.h>

namespace {

// The flags are atomic because the thread sanitizer sees no lock of a thread that was cancelled in a call
// that waits: how it was ended is written down then, under the lock all the same.
struct KnownThread {
    std::atomic<bool> isUsed, hasEnded, isReaped; // reaped: joined, being joined, or detached
    pthread_t id;
    void *(*start)(void *);
    void *argument;
};

constexpr size_t kMostThreads = 1024;
KnownThread g_threads[kMostThreads];
std::mutex g_lock;

KnownThread *NewThread(void *(*start)(void *), void *argument)
{
    const std::lock_guard<std::mutex> held(g_lock);
    for (KnownThread &each : g_threads) {
        if (!each.isUsed) {
            each.hasEnded = each.isReaped = false;
            each.isUsed = true;
            each.start = start;
            each.argument = argument;
            return &each;
        }
    }
    abort(); // no input makes so many
}

void ForgetIfGone(KnownThread *thread)
{
    thread->isUsed = !(thread->hasEnded && thread->isReaped);
}

// Also when the thread is cancelled, or calls pthread_exit.
struct EndOfThread {
    KnownThread *thread;
    ~EndOfThread()
    {
        const std::lock_guard<std::mutex> held(g_lock);
        thread->hasEnded = true;
        ForgetIfGone(thread);
    }
};

void *RunKnownThread(void *argument)
{
    KnownThread *thread = static_cast<KnownThread *>(argument);
    const EndOfThread end{thread};
    void *(*start)(void *);
    void *given;
    {
        const std::lock_guard<std::mutex> held(g_lock);
        start = thread->start;
        given = thread->argument;
    }
    return start(given);
}

// No other thread has this id before it has been joined, or has ended detached.
void Reap(pthread_t id)
{
    const std::lock_guard<std::mutex> held(g_lock);
    for (KnownThread &each : g_threads) {
        if (each.isUsed && !each.isReaped && pthread_equal(each.id, id) != 0) {
            each.isReaped = true;
            ForgetIfGone(&each);
            return;
        }
    }
}

bool IsDetached(const pthread_attr_t *attributes)
{
    int state = PTHREAD_CREATE_JOINABLE;
    return attributes != nullptr && pthread_attr_getdetachstate(attributes, &state) == 0 &&
           state == PTHREAD_CREATE_DETACHED;
}

size_t CountRunning()
{
    size_t count = 0;
    const std::lock_guard<std::mutex> held(g_lock);
    for (const KnownThread &each : g_threads) {
        count += each.isUsed && !each.hasEnded;
    }
    return count;
}

// One that has ended and is to be joined; 0: none.
pthread_t TakeUnjoined()
{
    const std::lock_guard<std::mutex> held(g_lock);
    for (KnownThread &each : g_threads) {
        if (each.isUsed && each.hasEnded && !each.isReaped) {
            each.isUsed = false;
            return each.id;
        }
    }
    return 0;
}

} // namespace

extern "C" {
int __real_pthread_create(pthread_t *id, const pthread_attr_t *attributes, void *(*start)(void *),
                          void *argument);
int __real_pthread_join(pthread_t id, void **result);
int __real_pthread_detach(pthread_t id);

int __wrap_pthread_create(pthread_t *id, const pthread_attr_t *attributes, void *(*start)(void *),
                          void *argument)
{
    KnownThread *thread = NewThread(start, argument);
    // The thread takes the lock first: its id is here before it can end.
    const std::lock_guard<std::mutex> held(g_lock);
    const int result = __real_pthread_create(id, attributes, RunKnownThread, thread);
    if (result != 0) {
        thread->isUsed = false;
        return result;
    }
    thread->id = *id;
    thread->isReaped = IsDetached(attributes);
    return 0;
}

int __wrap_pthread_join(pthread_t id, void **result)
{
    Reap(id);
    return __real_pthread_join(id, result);
}

int __wrap_pthread_detach(pthread_t id)
{
    Reap(id);
    return __real_pthread_detach(id);
}
}

namespace fuzz_threads {

size_t Running()
{
    return CountRunning();
}

bool WaitForAll(int milliseconds)
{
    return WaitUntil([] { return CountRunning() == 0; }, milliseconds);
}

size_t JoinTheRest()
{
    size_t count = 0;
    for (pthread_t id = TakeUnjoined(); id != 0; id = TakeUnjoined()) {
        (void)__real_pthread_join(id, nullptr);
        count++;
    }
    return count;
}

} // namespace fuzz_threads
