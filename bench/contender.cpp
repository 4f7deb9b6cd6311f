#include "contender.h"

#include "measure.h"

namespace {

double CpuOf(const Contender &contender)
{
    return contender.worker != 0 ? CpuSecondsOf(contender.worker) : CpuSeconds();
}

void RunTurn(Contender &contender, PlayerProcess &process, const Turn &turn, size_t size)
{
    Cost &cost = contender.cost;
    const uint64_t allocations = Allocations();
    const double before = CpuOf(contender);
    contender.send(turn);
    const double waits = ThreadCpuSeconds();
    process.waitUntilDrained(turn.back().bytes.size() * contender.players); // sound may leave later
    const double waited = contender.worker != 0 ? 0 : ThreadCpuSeconds() - waits;
    cost.cpu += CpuOf(contender) - before - waited;
    cost.allocations += Allocations() - allocations;
    cost.gigabytes += static_cast<double>(size * contender.players) / 1e9;
    cost.frames += turn.size();
}

} // namespace

void RunSeconds(const std::vector<Contender *> &contenders, PlayerProcess &process, int seconds)
{
    for (int i = 0; i < seconds * kFramesPerSecond; i++) {
        const Turn &turn = OneSecond()[static_cast<size_t>(i % kFramesPerSecond)];
        const size_t size = SizeOnTheWire(turn);
        for (Contender *contender : contenders) {
            contender->epoch += i % kFramesPerSecond == 0 ? 1000 : 0;
            RunTurn(*contender, process, turn, size);
        }
    }
}
