#include "supervisor.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>

#include <unistd.h>

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr seconds kStatusInterval(1);
constexpr milliseconds kTick(100);
constexpr seconds kStopLimit(10); // for a clean stop

sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void wakeUp(int) {}

} // namespace

void prepareSignals()
{
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    // Without SA_RESTART: the signal ends a blocked read or write of the thread that it is sent to.
    struct sigaction action = {};
    action.sa_handler = wakeUp;
    sigaction(SIGUSR1, &action, nullptr);
    (void)HandleSignal(); // returns how SIGPIPE was handled before
}

Supervisor::Supervisor(const Counters &counters, Console &console, StopFlag &stop, uint32_t duration)
    : counters_(counters), console_(console), stop_(stop), duration_(duration), thread_([this] { run(); })
{
}

Supervisor::~Supervisor()
{
    over_ = true;
    thread_.join();
}

void Supervisor::sendingIsOver()
{
    sending_ = false;
}

void Supervisor::run()
{
    const steady_clock::time_point limit =
        duration_.count() > 0 ? start_ + duration_ : steady_clock::time_point::max();
    steady_clock::time_point nextStatus = start_ + kStatusInterval;
    while (!over_) {
        const bool signalled = waitForSignal(std::min({steady_clock::now() + kTick, nextStatus, limit}));
        if (signalled && stop_.raised()) {
            leaveAtOnce("second signal: leaving at once");
        }
        if (signalled || steady_clock::now() >= limit) {
            stop_.raise();
        }
        if (stop_.raised() || !sending_) {
            finish();
        } else if (steady_clock::now() >= nextStatus) {
            showStatus();
            nextStatus += kStatusInterval;
        }
    }
}

// Hastens the end.
void Supervisor::finish()
{
    if (sending_) {
        pthread_kill(sender_, SIGUSR1); // out of a write that a player blocks
    }
    ending_ = ending_.value_or(steady_clock::now());
    if (steady_clock::now() - *ending_ > kStopLimit) {
        leaveAtOnce("the library does not let go: leaving without a clean stop");
    }
}

// True when SIGINT or SIGTERM came before `until`.
bool Supervisor::waitForSignal(steady_clock::time_point until)
{
    const sigset_t set = stopSignals();
    const int64_t left =
        std::max<int64_t>(duration_cast<std::chrono::nanoseconds>(until - steady_clock::now()).count(), 0);
    const timespec timeout = {.tv_sec = left / 1'000'000'000, .tv_nsec = left % 1'000'000'000};
    return sigtimedwait(&set, nullptr, &timeout) > 0;
}

void Supervisor::showStatus()
{
    const steady_clock::time_point now = steady_clock::now();
    const uint64_t bytes = counters_.bytes;
    const double interval = std::chrono::duration<double>(now - shown_).count();
    const double rate = static_cast<double>(bytes - bytesShown_) * 8 / 1000 / interval;
    bytesShown_ = bytes;
    shown_ = now;
    const long up = static_cast<long>(duration_cast<seconds>(now - start_).count());
    char line[160];
    snprintf(line, sizeof line,
             "viewers %d  %6.0f kbit/s  up %02ld:%02ld:%02ld  sent %llu  dropped %llu  unwatched %llu",
             counters_.viewers.load(), rate, up / 3600, up / 60 % 60, up % 60,
             static_cast<unsigned long long>(counters_.sent),
             static_cast<unsigned long long>(counters_.dropped),
             static_cast<unsigned long long>(counters_.unwatched));
    console_.status(line);
}

void Supervisor::leaveAtOnce(const char *why)
{
    console_.fail(why);
    _exit(1);
}
