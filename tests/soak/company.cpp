#include "soak/company.h"

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

void Company::note(const Visit &visit, bool isEndedByHost)
{
    const std::lock_guard<std::mutex> held(mutex_);
    ++audience_.visits;
    audience_.endedByHost += isEndedByHost;
    if (visit.isToSeePicture) {
        (visit.isSteady ? audience_.steady : audience_.exact).add(visit.sawPicture);
    }
}

Audience Company::audience() const
{
    const std::lock_guard<std::mutex> held(mutex_);
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
    bool isEndedByHost = false;
    try {
        visit.make();
    } catch (const std::exception &) { // refused, dropped, or late
        isEndedByHost = true;
    }
    --present_;
    note(visit, isEndedByHost);
    if (visit.parked != nullptr) {
        const std::lock_guard<std::mutex> held(mutex_);
        parked_.push_back(std::move(visit.parked));
    }
}

} // namespace soak
