// A storm on the exact road, in rounds of a server each: players that join, leave rudely, pause and ask for
// nonsense, while two sessions in the two sender modes are destroyed and made again, and in the end the
// server under all of them; and a player that notices nothing of it. RTMPCAST_STORM_SECONDS in the
// environment makes it longer.
#include "support/storm.h"
#include "support/wait.h"

#include <dirent.h>
#include <iostream>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace wire;

namespace {

using StormClock = std::chrono::steady_clock;

// Each connection leaves a descriptor behind, by design, and each refused one a
// thread that nobody joins, of which a sanitizer can keep eight thousand.
constexpr int kVisitsOfARound = 150;
constexpr int kRefusals = 3000;

std::set<int> OpenSockets()
{
    std::set<int> found;
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory)) {
        struct stat status = {};
        const int fd = atoi(entry->d_name);
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) {
            found.insert(fd);
        }
    }
    closedir(directory);
    return found;
}

// The descriptors of connections that have ended, which the library has left open. Nothing of it runs any
// more.
size_t CloseSocketsBut(const std::set<int> &before)
{
    size_t count = 0;
    for (const int fd : OpenSockets()) {
        if (before.count(fd) == 0) {
            close(fd);
            count++;
        }
    }
    return count;
}

// A server that goes while its players are there.
void LiveThroughARound(uint32_t seed, StormClock::time_point end, storm::Weather &weather)
{
    TestServer server(4096, storm::Silence());
    RtmpSession *quiet = server.session(storm::kQuietName);
    const int visitsBefore = weather.counts.visits;
    const auto isOver = [&](uint64_t seen) {
        const int visits = weather.counts.visits - visitsBefore;
        return visits > kVisitsOfARound ||
               (StormClock::now() > end && visits > static_cast<int>(storm::kRudePlayers) &&
                seen > storm::kQuietFrames);
    };
    storm::Storm storm(server, weather, seed);
    {
        storm::QuietPlayer player(server, quiet, false);
        EXPECT_TRUE(WaitUntil([&] { return isOver(player.seen()); }, 60000))
            << weather.counts.visits - visitsBefore << " visits, " << player.seen() << " frames";
    }
    storm.endHosts();
    EXPECT_EQ(server.destroy(), 0);
}

} // namespace

TEST(ExactStorm, EverybodyIsServedAndNothingIsLeftButTheDescriptorsOfPlayers)
{
    storm::RunFirstThread();
    const std::set<int> sockets = OpenSockets();
    const size_t descriptors = OpenDescriptors();
    const size_t threads = RunningThreads();
    storm::Weather weather;
    weather.patienceMs = 300;
    weather.refusals = kRefusals;
    const auto end = StormClock::now() + std::chrono::seconds(storm::Seconds());
    uint32_t rounds = 0;
    do {
        const int before = weather.counts.visits;
        LiveThroughARound(1000 * rounds++, end, weather);
        ASSERT_TRUE(WaitUntil([&] { return RunningThreads() == threads; })) << RunningThreads();
        const int visits = weather.counts.visits - before;
        EXPECT_LE(CloseSocketsBut(sockets), static_cast<size_t>(visits + 1)); // and the quiet player
        ASSERT_EQ(OpenDescriptors(), descriptors);
    } while (StormClock::now() < end);
    EXPECT_GT(weather.counts.undisturbed, 0);
    EXPECT_GT(weather.counts.sessions, 2);
    std::cout << "storm: " << rounds << " rounds, " << weather.counts.visits << " visits, "
              << weather.counts.undisturbed << " undisturbed, " << weather.counts.sessions << " sessions\n";
}
