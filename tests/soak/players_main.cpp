// Everybody who comes to the host of a soak, and the judge of it. scripts/soak.sh says what it does and how
// it judges.
//
//   soak_players HOST OUT MINUTES SEED PRESET [FAULT]
#include "soak/company.h"
#include "soak/growth.h"
#include "soak/host_process.h"
#include "soak/recorder.h"
#include "soak/restarting_service.h"
#include "soak/steady_player.h"
#include "soak/tide_report.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/resource.h>

namespace soak {
namespace {

constexpr int kCompany = 50;
constexpr int kPatienceSeconds = 120;     // for what has to happen sooner or later, on a machine however busy
constexpr int kPatienceWithAFault = 30;   // where it is to happen never
constexpr uint64_t kExactConnections = 4; // of steady players
using Clock = std::chrono::steady_clock;

struct Options {
    std::string host, out;
    double minutes;
    uint32_t seed;
    std::string preset, fault;
};

class Soak {
  public:
    explicit Soak(const Options &options);
    int run();

  private:
    void conduct();
    void stopWatching();
    Recording &recording(Recorder which)
    {
        return *recordings_[which];
    }
    void startRecorders();
    void startPlayer(Recorder which, uint16_t port, bool overTls = false);
    void startDump(Recorder which, uint16_t port);
    void startServices();
    void goThroughTides();
    bool isLongEnough(double length) const;
    void measureEbb();
    bool waitForWhatWasLeft();
    void awaitBase();
    void endAll();
    void judge();
    void judgeSwept();

    void watch();
    Sample takeSample(bool isEbb);
    void keep(const Sample &sample);
    double takeLagOfTide();
    void lookAtRecorders();
    void fail(const std::string &what);
    bool pause(int milliseconds); // false: something has failed
    bool waitUntil(const char *what, const std::function<bool()> &condition);
    double seconds() const
    {
        return std::chrono::duration<double>(Clock::now() - start_).count();
    }

    const Options options_;
    const Clock::time_point start_ = Clock::now();
    HostProcess host_;
    Ports ports_;
    std::unique_ptr<Recording> recordings_[kRecorders];
    std::unique_ptr<SteadyPlayer> players_[kRecorders];
    std::unique_ptr<DumpRecorder> dumps_[kRecorders];
    std::unique_ptr<RestartingService> services_[2];
    std::unique_ptr<Company> company_;
    CurveFile curve_;
    Outcome outcome_;
    double lagOfTideMs_ = 0;
    int baseDescriptors_ = 0, baseThreads_ = 0;
    uint64_t baseViewers_ = 0;

    std::mutex mutex_; // of what watcher and conductor share: failures, samples, what follows
    std::condition_variable changed_;
    bool isWatching_ = true;
    std::thread watcher_;
};

Soak::Soak(const Options &options)
    : options_(options), host_(options.host, options.seed), curve_(options.out + "/soak.csv")
{
    outcome_.minutes = options.minutes;
    outcome_.seed = options.seed;
    outcome_.preset = options.preset;
    unsigned port[5] = {};
    sscanf(host_.ask("ports").c_str(), "%u %u %u %u %u", &port[0], &port[1], &port[2], &port[3], &port[4]);
    ports_ = {static_cast<uint16_t>(port[0]), static_cast<uint16_t>(port[1]), static_cast<uint16_t>(port[2]),
              static_cast<uint16_t>(port[3]), static_cast<uint16_t>(port[4])};
    for (int each = 0; each < kRecorders; ++each) {
        recordings_[each] = std::make_unique<Recording>(static_cast<Recorder>(each), host_.progress());
    }
}

void Soak::fail(const std::string &what)
{
    const std::lock_guard<std::mutex> held(mutex_);
    const std::vector<std::string> &known = outcome_.failures;
    if (std::find(known.begin(), known.end(), what) == known.end()) {
        fprintf(stderr, "soak: %.0f s: %s\n", seconds(), what.c_str());
        outcome_.failures.push_back(what);
    }
    changed_.notify_all();
}

bool Soak::pause(int milliseconds)
{
    std::unique_lock<std::mutex> held(mutex_);
    changed_.wait_for(held, std::chrono::milliseconds(milliseconds),
                      [this] { return !outcome_.failures.empty(); });
    return outcome_.failures.empty();
}

bool Soak::waitUntil(const char *what, const std::function<bool()> &condition)
{
    const int patience = options_.fault.empty() ? kPatienceSeconds : kPatienceWithAFault;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(patience);
    while (!condition()) {
        if (Clock::now() > deadline) {
            fail(std::string("waited in vain: ") + what);
        }
        if (!pause(50)) {
            return false;
        }
    }
    return true;
}

// ----------------------------------------------------------------------------------------------------
// recorders

void Soak::startPlayer(Recorder which, uint16_t port, bool overTls)
{
    const char *session = kLasting[kSessionOf[which]].name;
    players_[which] =
        std::make_unique<SteadyPlayer>(recording(which), port, overTls, which != kExactPlayer, session);
    waitUntil(kNameOf[which], [this, which] { return recording(which).hasPictures(); });
}

void Soak::startDump(Recorder which, uint16_t port)
{
    dumps_[which] = std::make_unique<DumpRecorder>(recording(which), port, kLasting[kSessionOf[which]].name);
    waitUntil(kNameOf[which], [this, which] { return recording(which).hasPictures(); });
}

// Each the first of its session, where it stays first: whoever comes behind it cannot push it out of the
// exact road's chain of players.
void Soak::startRecorders()
{
    startPlayer(kExactPlayer, ports_.exact);
    startPlayer(kTodayPlayer, ports_.today);
    startPlayer(kPolitePlayer, ports_.today);
    startPlayer(kSteadyPlayer, ports_.steady);
    startPlayer(kTlsPlayer, ports_.tls, true);
    startDump(kTodayDump, ports_.today);
    startDump(kSteadyDump, ports_.steady);
}

void Soak::startServices()
{
    services_[0] = std::make_unique<RestartingService>(recording(kExactService), options_.seed + 7);
    services_[1] = std::make_unique<RestartingService>(recording(kSteadyService), options_.seed + 8);
    host_.ask("publish " + std::to_string(services_[0]->port()) + " " + std::to_string(services_[1]->port()));
}

void Soak::lookAtRecorders()
{
    for (int each = 0; each < kRecorders; ++each) {
        const bool isService = each == kExactService || each == kSteadyService;
        std::string fault = recordings_[each]->fault();
        fault = fault.empty() && players_[each] != nullptr ? players_[each]->fault() : fault;
        fault = fault.empty() && dumps_[each] != nullptr ? dumps_[each]->fault() : fault;
        if (fault.empty() && !isService &&
            recordings_[each]->silence() > kPatienceSeconds * int64_t{1000000}) {
            fault = "no picture for minutes";
        }
        if (!fault.empty()) {
            fail(std::string(kNameOf[each]) + ": " + fault);
        }
    }
}

// -------------------------------------------------------------------------------------------------------
// curves

Sample Soak::takeSample(bool isEbb)
{
    Sample sample;
    sample.isEbb = isEbb;
    sample.residentKiB = host_.residentKiB();
    sample.descriptors = host_.descriptors();
    sample.threads = host_.threads();
    sample.players = company_->present();
    for (const Recorder each : {kExactPlayer, kTodayPlayer, kPolitePlayer, kSteadyPlayer, kTlsPlayer}) {
        sample.lagMs = std::max(sample.lagMs, static_cast<double>(recording(each).takeLag()) / 1000);
    }
    sample.restarts = services_[0]->restarts + services_[1]->restarts;
    sample.figures = host_.figures();
    sample.seconds = seconds();
    return sample;
}

void Soak::keep(const Sample &sample)
{
    const std::lock_guard<std::mutex> held(mutex_);
    curve_.write(sample);
    outcome_.samples.push_back(sample);
    lagOfTideMs_ = std::max(lagOfTideMs_, sample.lagMs);
}

double Soak::takeLagOfTide()
{
    const std::lock_guard<std::mutex> held(mutex_);
    const double lag = lagOfTideMs_;
    lagOfTideMs_ = 0;
    return lag;
}

// Once a second.
void Soak::watch()
{
    try {
        std::unique_lock<std::mutex> held(mutex_);
        while (isWatching_) {
            held.unlock();
            keep(takeSample(false));
            lookAtRecorders();
            held.lock();
            changed_.wait_for(held, std::chrono::seconds(1), [this] { return !isWatching_; });
        }
    } catch (const std::exception &error) {
        fail(error.what());
    }
}

// --------------------------------------------------------------------------------------------------------
// tides

// Steady players, services and sessions are there, and nobody else: what the host has then, it has at every
// ebb.
void Soak::awaitBase()
{
    int same = 0;
    waitUntil("services", [this] {
        return recording(kExactService).hasPictures() && recording(kSteadyService).hasPictures();
    });
    waitUntil("a quiet host", [this, &same] {
        const int descriptors = host_.descriptors(), threads = host_.threads();
        same = descriptors == baseDescriptors_ && threads == baseThreads_ ? same + 1 : 0;
        baseDescriptors_ = descriptors;
        baseThreads_ = threads;
        return same == 20;
    });
    const Figures figures = host_.figures();
    baseViewers_ = figures.accepted - figures.left;
}

// All have left; what they had is given back sooner or later, which is waited for.
void Soak::measureEbb()
{
    services_[0]->still();
    services_[1]->still();
    company_->leave();
    host_.ask("still");
    const bool isQuiet =
        waitUntil("the services are published to again",
                  [this] {
                      return recording(kExactService).hasPictures() &&
                             recording(kSteadyService).hasPictures();
                  }) &&
        waitUntil("threads of those who left end", [this] { return host_.threads() == baseThreads_; });
    company_->closeParked();
    if (!isQuiet || !waitForWhatWasLeft()) {
        return;
    }
    const Sample sample = takeSample(true);
    keep(sample);
    outcome_.ebbs.push_back({sample.seconds, sample.residentKiB,
                             static_cast<int64_t>(sample.figures.inUse / 1024), sample.descriptors,
                             sample.threads, static_cast<int64_t>(takeLagOfTide())});
}

// Descriptors, and the calls that tell of viewers who have left.
bool Soak::waitForWhatWasLeft()
{
    return waitUntil("descriptors of those who left are closed",
                     [this] {
                         outcome_.swept += std::stoul(host_.ask("sweep"));
                         return host_.descriptors() == baseDescriptors_;
                     }) &&
           waitUntil("the host is told of all who left", [this] {
               const Figures figures = host_.figures();
               return figures.accepted - figures.left == baseViewers_;
           });
}

// On a busy machine an ebb may take its time, and then the run goes on until there are enough to compare, for
// ten minutes at most.
bool Soak::isLongEnough(double length) const
{
    constexpr double kLonger = 600;
    return seconds() >= length &&
           (seconds() >= length + kLonger || BehindWarmUp(outcome_.ebbs).size() >= kEnoughEbbs);
}

void Soak::goThroughTides()
{
    const double length = options_.minutes * 60;
    const int tide = static_cast<int>(std::clamp(length / 15, 4.0, 20.0) * 1000);
    measureEbb();
    if (!options_.fault.empty()) {
        host_.ask("fault " + options_.fault);
    }
    while (!isLongEnough(length) && pause(0)) {
        services_[0]->flow();
        services_[1]->flow();
        host_.ask("flow");
        company_->come();
        pause(tide);
        measureEbb();
    }
}

// ----------------------------------------------------------------------------------------------------------
// end

// Everything is destroyed while all are there; then nothing is left.
void Soak::endAll()
{
    if (pause(0)) {
        company_->come();
        pause(3000);
    }
    stopWatching();
    keep(takeSample(false));
    lookAtRecorders();
    outcome_.audience = company_->takeAudience(); // behind this the host ends every visit
    host_.ask("end");
    company_->leave();
    company_->closeParked();
    for (int each = 0; each < kRecorders; ++each) {
        outcome_.recordings.emplace_back(kNameOf[each], recordings_[each]->frames());
        players_[each].reset();
        dumps_[each].reset();
    }
    services_[0].reset();
    services_[1].reset();
    std::string left;
    const bool isAllGone = waitUntil("no descriptor and no thread is left", [this, &left] {
        outcome_.swept += std::stoul(host_.ask("sweep"));
        left = host_.ask("left");
        return left == "0 0";
    });
    if (!isAllGone && outcome_.failures.size() == 1) {
        fail("left at the end, descriptors and threads: " + left);
    }
    const int code = host_.finish();
    if (code != 0) {
        fail("the host's exit code is " + std::to_string(code));
    }
}

double CpuSeconds(int who)
{
    rusage usage = {};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The exact road leaves one descriptor open for each connection, and not two.
void Soak::judgeSwept()
{
    const uint64_t most = company_->visitsToExactRoad() + kExactConnections;
    if (outcome_.swept > most) {
        fail(std::to_string(outcome_.swept) + " descriptors left open by " + std::to_string(most) +
             " connections of the exact road");
    }
}

void Soak::judge()
{
    const bool isSanitized = options_.preset == "asan" || options_.preset == "tsan";
    for (const std::string &each : WhatHasGrown(outcome_.ebbs, !isSanitized)) {
        fail(each);
    }
    for (const std::string &each : WhatTheAudienceMissed(outcome_.audience)) {
        fail(each);
    }
    judgeSwept();
    outcome_.hostCpu = CpuSeconds(RUSAGE_CHILDREN);
    outcome_.playersCpu = CpuSeconds(RUSAGE_SELF);
    outcome_.minutes = options_.minutes;
    WritePage(options_.out + "/soak.md", outcome_, *company_);
}

void Soak::stopWatching()
{
    {
        const std::lock_guard<std::mutex> held(mutex_);
        isWatching_ = false;
    }
    changed_.notify_all();
    if (watcher_.joinable()) {
        watcher_.join();
    }
}

void Soak::conduct()
{
    company_ = std::make_unique<Company>(ports_, kCompany, options_.seed);
    startRecorders();
    startServices();
    awaitBase();
    watcher_ = std::thread([this] { watch(); });
    goThroughTides();
    endAll();
}

int Soak::run()
{
    try {
        conduct();
    } catch (const std::exception &error) { // the host has gone, or a recorder cannot come in
        fail(error.what());
    }
    stopWatching();
    judge();
    return outcome_.failures.empty() ? 0 : 1;
}

} // namespace
} // namespace soak

int main(int count, char **words)
{
    if (count < 6) {
        fprintf(stderr, "soak_players HOST OUT MINUTES SEED PRESET [FAULT]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    try {
        soak::Soak soak({words[1], words[2], atof(words[3]),
                         static_cast<uint32_t>(strtoul(words[4], nullptr, 10)), words[5],
                         count > 6 ? words[6] : ""});
        return soak.run();
    } catch (const std::exception &error) {
        fprintf(stderr, "soak: %s\n", error.what());
        return 1;
    }
}
