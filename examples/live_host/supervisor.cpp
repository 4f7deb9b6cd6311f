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

Supervisor::Supervisor(const Options &options, const Counters &counters, const SessionWatch &watch,
                       LineFile *stats, Console &console, StopFlag &stop)
    : options_(options), counters_(counters), watch_(watch), stats_(stats), console_(console), stop_(stop),
      duration_(options.duration)
{
    if (!options.trace.directory.empty()) {
        for (const std::string &directory : traceDirectories(options)) {
            traces_.emplace_back(directory);
        }
    }
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

// What went in and out since the last time.
Second Supervisor::sinceShown(const Look &look)
{
    const steady_clock::time_point now = steady_clock::now();
    const double kilobits = 8.0 / 1000 / std::chrono::duration<double>(now - shown_).count();
    const uint64_t bytes = counters_.bytes;
    const uint64_t sent = std::max(look.bytes(), sentShown_);
    const Second second = {.unixTime = time(nullptr),
                           .uptime = static_cast<long>(duration_cast<seconds>(now - start_).count()),
                           .inKbps = static_cast<double>(bytes - bytesShown_) * kilobits,
                           .outKbps = static_cast<double>(sent - sentShown_) * kilobits};
    bytesShown_ = bytes;
    sentShown_ = sent;
    shown_ = now;
    return second;
}

// In: what the library took. Out: what viewers were sent, or with --exact what the library measured. Target:
// what the encoder was told.
void Supervisor::showStatus()
{
    const Look look = watch_.look(stats_ != nullptr); // nothing with --exact
    const Second second = sinceShown(look);
    const long up = second.uptime;
    const uint32_t viewers =
        options_.exact ? static_cast<uint32_t>(counters_.viewers.load()) : look.viewers();
    char line[80];
    snprintf(line, sizeof line, "viewers %u  up %02ld:%02ld:%02ld  in %4.0f", viewers, up / 3600,
             up / 60 % 60, up % 60, second.inKbps);
    console_.status(line + rates(second) + (options_.exact ? losses() : lag(look)));
    writeStats(second, look);
}

void Supervisor::writeStats(const Second &second, const Look &look)
{
    if (stats_ != nullptr && !stats_->append(jsonLine(second, look))) {
        console_.warn("--stats-json: a line could not be written");
    }
}

std::string Supervisor::rates(const Second &second) const
{
    std::string text;
    const int32_t measured = counters_.measuredKbps;
    if (!options_.exact) {
        text += " out " + std::to_string(static_cast<long>(second.outKbps));
    } else if (measured >= 0) {
        text += " out " + std::to_string(measured);
    }
    if (const int32_t target = counters_.targetBitrate; target >= 0) {
        text += " target " + std::to_string(target / 1000);
    }
    return text + " kbit/s";
}

// Of several sessions the one with the fullest ring; what they dropped is summed up.
std::optional<TraceLine> Supervisor::fullest(uint64_t &dropped) const
{
    std::optional<TraceLine> found;
    for (const TraceTail &trace : traces_) {
        const std::optional<TraceLine> line = trace.newest();
        dropped += line ? static_cast<uint64_t>(line->dropped) : 0;
        if (line && (!found || line->queued > found->queued)) {
            found = line;
        }
    }
    return found;
}

std::string Supervisor::queue(const TraceLine &line) const
{
    const uint32_t slots = options_.sender.videoQueue + 1;
    const uint32_t queued = static_cast<uint32_t>(std::max(line.queued, 0));
    return "  queue " + std::to_string((queued * 100 + slots / 2) / slots) + "% (" + std::to_string(queued) +
           "/" + std::to_string(slots) + ")";
}

std::string Supervisor::sent() const
{
    return "  sent " + std::to_string(counters_.sent) + "  unwatched " + std::to_string(counters_.unwatched);
}

/*
 * The library tells how full a ring is in its trace alone. The trace also counts the frames of a flushed
 * ring; the one that found it full is not among them. Without a trace only the flushes can be counted.
 */
std::string Supervisor::losses() const
{
    const uint64_t flushes = counters_.flushes;
    uint64_t dropped = counters_.dropped;
    std::string text;
    if (const std::optional<TraceLine> line = fullest(dropped)) {
        text += queue(*line);
        dropped += flushes;
    } else if (flushes > 0) {
        text += "  flushes " + std::to_string(flushes);
    }
    return text + "  dropped " + std::to_string(dropped) + sent();
}

// The same of the steady road, where each viewer has losses of its own.
std::string Supervisor::lag(const Look &look) const
{
    uint64_t traced = 0;
    const std::optional<TraceLine> line = fullest(traced);
    return (line ? queue(*line) : std::string()) + "  dropped " +
           std::to_string(counters_.dropped + look.droppedFrames()) + "  lag " +
           std::to_string(look.slowestMilliseconds()) + " ms" + sent();
}

void Supervisor::leaveAtOnce(const char *why)
{
    console_.fail(why);
    _exit(1);
}
