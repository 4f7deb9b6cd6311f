#include "soak/company.h"

#include <cstdio>

namespace soak {

Company::Company(const Ports &ports, int size, uint32_t seed) : ports_(ports)
{
    for (int each = 0; each < size; ++each) {
        threads_.emplace_back([this, seed, each] { run(seed * 1000 + static_cast<uint32_t>(each)); });
    }
}

Company::~Company()
{
    tide_.over();
    for (std::thread &each : threads_) {
        each.join();
    }
}

void Company::come()
{
    tide_.in();
}

void Company::leave()
{
    tide_.out();
    std::unique_lock<std::mutex> held(mutex_);
    idle_.wait(held, [this] { return busy_ == 0; });
}

void Company::closeParked()
{
    const std::lock_guard<std::mutex> held(mutex_);
    parked_.clear();
}

void Company::run(uint32_t seed)
{
    std::mt19937 random(seed);
    while (tide_.waitUntilIn()) {
        {
            const std::lock_guard<std::mutex> held(mutex_);
            ++busy_;
        }
        while (tide_.stay(std::uniform_int_distribution<int>(0, 1000)(random))) {
            visitOnce(random);
        }
        const std::lock_guard<std::mutex> held(mutex_);
        --busy_;
        idle_.notify_all();
    }
}

// `end`: what the host did to it; empty: nothing.
void Company::note(const Visit &visit, const std::string &end)
{
    const std::lock_guard<std::mutex> held(mutex_);
    ++audience_.visits;
    audience_.endedByHost += end.empty() ? 0 : 1;
    if (!visit.isToSeePicture) {
        return;
    }
    (visit.isSteady ? audience_.steady : audience_.exact).add(visit.sawPicture);
    if (!visit.sawPicture && isJudged_) {
        fprintf(stderr, "soak: a viewer of the %s road%s saw no picture: %s\n",
                visit.isSteady ? "steady" : "exact", visit.overTls ? ", over TLS," : "",
                end.empty() ? "none came" : end.c_str());
    }
}

Audience Company::takeAudience()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isJudged_ = false;
    return audience_;
}

uint64_t Company::visitsToExactRoad() const
{
    uint64_t came = 0;
    for (const std::atomic<uint64_t> &each : visits) {
        came += each;
    }
    return came - toSteadyRoad;
}

void Company::visitOnce(std::mt19937 &random)
{
    Visit visit(ports_, tide_, random);
    ++visits[static_cast<int>(visit.manner)];
    toSteadyRoad += visit.isSteady;
    overTls += visit.overTls;
    ++present_;
    std::string end;
    try {
        visit.make();
    } catch (const std::exception &error) { // refused, dropped, or late
        end = error.what();
    }
    --present_;
    note(visit, end);
    if (visit.parked != nullptr) {
        const std::lock_guard<std::mutex> held(mutex_);
        parked_.push_back(std::move(visit.parked));
    }
}

} // namespace soak
