// latency: how long a frame takes from the host's call to the last of 200 players, and the call itself, while
// 0, 1, 5 or 100 further players take nothing; beside a floor, a plain loop of one sendmsg per player, and a
// second server without stopped players: what it differs by from the first is the machine's. And how long a
// player that joins waits for its first picture, with the burst from the last key frame and
// without it.
#include "floor.h"
#include "library.h"
#include "measure.h"
#include "support/scripted_peer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint32_t kPlayers = 200;
constexpr size_t kFrameLength = 14300;
constexpr uint64_t kFrameMs = 33;
constexpr int kFrames = 1000;      // measured of each
constexpr int kKeyDistance = 60;   // frames: about two seconds
constexpr int kFramesToStop = 600; // more than a socket's buffers hold
constexpr int kJoins = 100;
constexpr useconds_t kFrameMicros = 33333;

// Somebody who brings a frame to 200 players of a process of their own.
struct Lane {
    explicit Lane(const char *what) : name(what) {}
    const char *name;
    PlayerProcess process;
    PlayerProcess stopped;
    std::unique_ptr<Contender> contender;
    std::vector<double> calls;    // us
    std::vector<double> arrivals; // us until the last player has the frame
    uint64_t frames = 0;
};

Turn NextTurn(Lane &lane)
{
    const bool isKey = lane.frames % kKeyDistance == 0;
    return {VideoFrame(kFrameLength, isKey, lane.frames++ * kFrameMs)};
}

// The floor's turn is laid out when it is first seen: it is always the same one.
void MeasureFrame(Lane &lane, const Turn &turn)
{
    lane.process.arm(SizeOnTheWire(turn));
    const uint64_t begin = NowNanoseconds();
    lane.contender->send(turn);
    const uint64_t returned = NowNanoseconds();
    const uint64_t last = lane.process.waitForLast();
    lane.calls.push_back(static_cast<double>(returned - begin) / 1e3);
    lane.arrivals.push_back(static_cast<double>(last - begin) / 1e3);
}

std::unique_ptr<Lane> FloorLane()
{
    std::unique_ptr<Lane> lane = std::make_unique<Lane>("floor");
    lane->contender = std::make_unique<Floor>(lane->process, kPlayers, FloorWay::PerPicture);
    return lane;
}

// The stopped players' sockets are filled before anything is measured.
std::unique_ptr<Lane> SteadyLane(const char *name, uint32_t mode, uint32_t stopped)
{
    std::unique_ptr<Lane> lane = std::make_unique<Lane>(name);
    std::unique_ptr<Library> library = std::make_unique<Library>(
        lane->process, kPlayers, LibrarySettings{.road = Road::Steady, .mode = mode});
    library->connect();
    library->epoch += 1000;
    lane->stopped.connectStopped(library->port(), stopped, library->isStandard());
    for (int i = 0; stopped > 0 && i < kFramesToStop; i++) {
        library->send(NextTurn(*lane));
        lane->process.waitUntilDrained(kFrameLength * kPlayers);
    }
    lane->contender = std::move(library);
    return lane;
}

void PrintLane(const Lane &lane, const Lane &floor, const Lane &alone)
{
    const double callMedian = Percentile(lane.calls, 0.5), call99 = Percentile(lane.calls, 0.99);
    const double median = Percentile(lane.arrivals, 0.5), p99 = Percentile(lane.arrivals, 0.99);
    printf("  %-14s %8.0f %8.0f   %5.2f %5.2f   %5.2f %5.2f   %8.0f %8.0f   %5.2f %5.2f\n", lane.name, median,
           p99, median / Percentile(floor.arrivals, 0.5), p99 / Percentile(floor.arrivals, 0.99),
           median / Percentile(alone.arrivals, 0.5), p99 / Percentile(alone.arrivals, 0.99), callMedian,
           call99, callMedian / Percentile(alone.calls, 0.5), call99 / Percentile(alone.calls, 0.99));
}

// Turn about, frame by frame, so that whatever else the machine does meets all of them.
void MeasureLatency(uint32_t mode, const char *title, int frames)
{
    std::vector<std::unique_ptr<Lane>> lanes;
    lanes.push_back(FloorLane());
    lanes.push_back(SteadyLane("none stopped", mode, 0));
    lanes.push_back(SteadyLane("none, again", mode, 0));
    lanes.push_back(SteadyLane("1 stopped", mode, 1));
    lanes.push_back(SteadyLane("5 stopped", mode, 5));
    lanes.push_back(SteadyLane("100 stopped", mode, 100));
    const Turn same = NextTurn(*lanes[0]);
    for (int i = 0; i < frames; i++) {
        for (std::unique_ptr<Lane> &lane : lanes) {
            MeasureFrame(*lane, lane == lanes[0] ? same : NextTurn(*lane));
        }
    }
    printf("\n%s, %u players, frames of %zu bytes\n", title, kPlayers, kFrameLength);
    printf("                 last player, us    x floor       x none stopped   host's call, us     x none "
           "stopped\n");
    printf(
        "                      p50      p99     p50   p99     p50   p99        p50      p99     p50   p99\n");
    for (const std::unique_ptr<Lane> &lane : lanes) {
        PrintLane(*lane, *lanes[0], lane == lanes[0] ? *lane : *lanes[1]);
    }
    fflush(stdout);
}

// ---------------------------------------------------------------------------------------------- joining

bool IsPicture(const wire::Message &message)
{
    return message.type == 9 && message.payload.size() > 5 && message.payload[1] == 1;
}

// Milliseconds from the connection to the first whole picture.
double TimeJoin(uint16_t port)
{
    const uint64_t begin = NowNanoseconds();
    wire::ScriptedPeer player(port);
    player.chunks.standard = true;
    player.created();
    player.command(wire::PlayCommand("live"));
    while (!IsPicture(player.read())) {
    }
    return static_cast<double>(NowNanoseconds() - begin) / 1e6;
}

struct Joins {
    std::mutex lock;
    std::vector<double> milliseconds;
    std::vector<std::thread> threads;
};

void Join(Joins &joins, uint16_t port)
{
    joins.threads.emplace_back([&joins, port] {
        const double time = TimeJoin(port);
        const std::lock_guard<std::mutex> held(joins.lock);
        joins.milliseconds.push_back(time);
    });
}

void PrintJoins(const char *name, Joins &joins)
{
    for (std::thread &thread : joins.threads) {
        thread.join();
    }
    printf("  %-16s %9.1f %9.1f\n", name, Percentile(joins.milliseconds, 0.5),
           Percentile(joins.milliseconds, 0.99));
}

// Players join at moments of their own while pictures come at their usual pace.
void MeasureJoins()
{
    PlayerProcess process;
    Library burst(process, 1, {.road = Road::Steady});
    Library patient(process, 1, {.road = Road::Steady, .options = RTMP_SERVICE_NO_BURST});
    burst.epoch = patient.epoch = 10000;
    Joins withBurst, without;
    std::minstd_rand random(1);
    int begun = 0;
    const int frames = kJoins * 4 + 2 * kKeyDistance;
    for (int i = 0; i < frames; i++) {
        const Frame frame =
            VideoFrame(kFrameLength, i % kKeyDistance == 0, static_cast<uint64_t>(i) * kFrameMs);
        burst.sendFrame(frame);
        patient.sendFrame(frame);
        const useconds_t pause = static_cast<useconds_t>(random() % kFrameMicros);
        usleep(pause);
        if (i > kKeyDistance && i % 4 == 0 && begun < kJoins) {
            begun++;
            Join(withBurst, burst.port());
            Join(without, patient.port());
        }
        usleep(kFrameMicros - pause);
    }
    printf("\nfrom the connection to the first picture, %d joins, a key frame every %d ms\n", begun,
           static_cast<int>(kKeyDistance * kFrameMs));
    printf("                    median ms    p99 ms\n");
    PrintJoins("with the burst", withBurst);
    PrintJoins("without", without);
    printf("  ratio of the medians: %.1f\n",
           Percentile(without.milliseconds, 0.5) / Percentile(withBurst.milliseconds, 0.5));
}

} // namespace

// latency [FRAMES [monitor|threaded|join]]
int main(int argc, char **argv)
{
    AllowManyDescriptors();
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const int frames = argc > 1 ? atoi(argv[1]) : kFrames;
    const std::string only = argc > 2 ? argv[2] : "";
    if (only.empty() || only == "monitor") {
        InOwnProcess([=] { MeasureLatency(0, "monitor", frames); });
    }
    if (only.empty() || only == "threaded") {
        InOwnProcess([=] { MeasureLatency(RTMP_SENDER_THREADED, "threaded", frames); });
    }
    if (only.empty() || only == "join") {
        InOwnProcess(MeasureJoins);
    }
    return 0;
}
