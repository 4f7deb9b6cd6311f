// fan_out: what it costs to bring frames to N players, against two floors of the same run, plain loops over
// as many sockets: `call` makes one sendmsg per message, `turn` one for the sound that is due and the picture
// behind it.
//
// Prints, for each N and sender: CPU seconds per delivered GB, their ratio to each floor's, resident memory
// per player, and heap allocations per frame and player.
#include "floor.h"
#include "library.h"
#include "measure.h"
#include "relay.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

// With few players there are more seconds: a delivered GB takes longer.
int SecondsFor(uint32_t count)
{
    return count < 50 ? 50 : 10;
}

void PrintRow(const char *name, const Contender &contender, const Floor &perCall, const Floor &perTurn)
{
    const double cost = contender.cost.perGb();
    printf("%6u  %-20s %8.3f %8.2f %8.2f", contender.players, name, cost, cost / perCall.cost.perGb(),
           cost / perTurn.cost.perGb());
}

void Measure(uint32_t count, const LibrarySettings &settings, const char *name)
{
    PlayerProcess process;
    Library library(process, count, settings);
    library.connect();
    Floor perCall(process, count, FloorWay::PerMessage);
    Floor perTurn(process, count, FloorWay::PerPicture);
    RunSeconds({&perCall, &library, &perTurn}, process, SecondsFor(count));
    PrintRow(name, library, perCall, perTurn);
    const Cost &cost = library.cost;
    printf(" %10.1f %12.4f\n", library.residentPerPlayer(),
           static_cast<double>(cost.allocations) / static_cast<double>(cost.frames) / count);
}

void MeasureRelay(uint32_t count)
{
    PlayerProcess process;
    Library monitor(process, count, {.road = Road::Steady});
    Library threaded(process, count, {.road = Road::Steady, .mode = RTMP_SENDER_THREADED});
    monitor.connect();
    threaded.connect();
    Floor perCall(process, count, FloorWay::PerMessage);
    Floor perTurn(process, count, FloorWay::PerPicture);
    Relay relay(process, count);
    RunSeconds({&perCall, &monitor, &perTurn, &threaded, &relay}, process, SecondsFor(count));
    PrintRow("nginx", relay, perCall, perTurn);
    printf("   steady: monitor %.2f, threaded %.2f x nginx\n", monitor.cost.perGb() / relay.cost.perGb(),
           threaded.cost.perGb() / relay.cost.perGb());
}

// Would a frame that stands in a file reach the sockets for less? Two cuts: as the library cuts, and one
// chunk per frame.
void MeasureFile(uint32_t count)
{
    PlayerProcess process;
    Floor copying(process, count, FloorWay::PerPicture);
    Floor chunked(process, count, FloorWay::File);
    Floor whole(process, count, FloorWay::File, 1 << 20);
    RunSeconds({&copying, &chunked, &whole}, process, SecondsFor(count));
    printf("\nsendfile against the floor per turn, %u players: %.2f by chunks of %d, %.2f a frame in one\n",
           count, chunked.cost.perGb() / copying.cost.perGb(), kChunkSize,
           whole.cost.perGb() / copying.cost.perGb());
}

// Microseconds within which 99.9 % of the calls of RtmpSendData return.
double SlowestCalls(Library &library, int frames)
{
    std::vector<double> calls;
    for (int i = 0; i < frames; i++) {
        const Turn &turn = OneSecond()[static_cast<size_t>(i % kFramesPerSecond)];
        library.epoch += 10;
        const uint64_t before = NowNanoseconds();
        library.sendFrame(turn.back());
        calls.push_back(static_cast<double>(NowNanoseconds() - before) / 1e3);
        usleep(500);
    }
    return Percentile(calls, 0.999);
}

// Does the threaded sender of the exact road keep a player that takes nothing off the producer's thread?
void MeasureProducer()
{
    constexpr int kFrames = 4000;
    PlayerProcess players;
    Library library(players, 10, {.mode = RTMP_SENDER_THREADED});
    library.connect();
    const double without = SlowestCalls(library, kFrames);
    players.connectStopped(library.port(), 1, library.isStandard());
    const double with = SlowestCalls(library, kFrames);
    printf("\nRtmpSendData, threaded sender, 10 players: 99.9 %% of %d calls within %.0f us; with a stopped "
           "player beside them %.0f us (ratio %.2f)\n",
           kFrames, without, with, with / without);
}

struct Row {
    const char *name;
    LibrarySettings settings;
};

constexpr uint32_t kThreaded = RTMP_SENDER_THREADED;

const Row kRows[] = {{"exact, monitor", {}},
                     {"exact, all rules", {.rules = RTMP_PLAYERS_ALL}},
                     {"exact, threaded", {.mode = kThreaded}},
                     {"steady, monitor", {.road = Road::Steady}},
                     {"steady, threaded", {.road = Road::Steady, .mode = kThreaded}}};

struct Wish {
    std::vector<uint32_t> counts;
    std::string rows; // those with this in their name

    bool wants(const char *name) const
    {
        return strstr(name, rows.c_str()) != nullptr;
    }
};

void MeasureAll(const Wish &wish, uint32_t count)
{
    for (const Row &row : kRows) {
        if (wish.wants(row.name)) {
            InOwnProcess([&] { Measure(count, row.settings, row.name); });
        }
    }
    if (wish.wants("nginx") && IsRelayInstalled()) {
        InOwnProcess([=] { MeasureRelay(count); });
    }
}

Wish Parse(int argc, char **argv)
{
    Wish wish;
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--rows" && i + 1 < argc) {
            wish.rows = argv[++i];
        } else if (const unsigned long count = strtoul(argv[i], nullptr, 10); count > 0) {
            wish.counts.push_back(static_cast<uint32_t>(count));
        } else {
            fprintf(stderr, "usage: fan_out [--rows TEXT-IN-THEIR-NAME] [PLAYERS...]\n");
            exit(2);
        }
    }
    if (wish.counts.empty()) {
        wish.counts = {1, 50, 200, 1000};
    }
    return wish;
}

} // namespace

int main(int argc, char **argv)
{
    AllowManyDescriptors();
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);

    const Wish wish = Parse(argc, argv);
    printf("players  sender              CPU s/GB  x call  x turn  KiB/player  allocations/frame/player\n");
    for (const uint32_t count : wish.counts) {
        MeasureAll(wish, count);
    }
    const uint32_t fromFile = std::min(200U, wish.counts.back());
    if (wish.wants("exact, from file")) {
        InOwnProcess([=] { Measure(fromFile, {.source = Source::File}, "exact, from file"); });
    }
    if (wish.wants("sendfile")) {
        InOwnProcess([=] { MeasureFile(fromFile); });
    }
    if (wish.wants("producer")) {
        InOwnProcess(MeasureProducer);
    }
    return 0;
}
