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

void Company::visitOnce(std::mt19937 &random)
{
    Visit visit(ports_, tide_, random);
    ++visits[static_cast<int>(visit.manner)];
    toSteadyRoad += visit.isSteady;
    overTls += visit.overTls;
    ++present_;
    try {
        visit.make();
    } catch (
        const std::exception &) { // refused, dropped, or late: what is asked of the host is asked elsewhere
        ++endedByHost;
    }
    --present_;
    if (visit.parked != nullptr) {
        const std::lock_guard<std::mutex> held(mutex_);
        parked_.push_back(std::move(visit.parked));
    }
}

} // namespace soak
