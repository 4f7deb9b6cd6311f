#include "supervisor.h"

#include <rtmpcast/rtmpcast.h>

#include <algorithm>
#include <csignal>
#include <utility>

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

Supervisor::Supervisor(seconds duration, std::function<void()> everySecond, Console &console, StopFlag &stop)
    : duration_(duration), everySecond_(std::move(everySecond)), console_(console), stop_(stop)
{
    thread_ = std::thread([this] { run(); });
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
            everySecond_();
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

void Supervisor::leaveAtOnce(const char *why)
{
    console_.fail(why);
    _exit(1);
}
