// A storm: players that join, leave rudely, pause and ask for nonsense, while two sessions in the two sender
// modes are destroyed and made again; and a player that notices nothing of it. RTMPCAST_STORM_SECONDS in the
// environment makes it longer.
#include "steady_server.h"
#include "support/storm.h"

#include <iostream>

using namespace steady;
using namespace wire;

TEST(Storm, EverybodyIsServedAndNothingIsLeftOver)
{
    using Clock = std::chrono::steady_clock;
    storm::RunFirstThread();
    const size_t descriptors = OpenDescriptors();
    const size_t threads = RunningThreads();
    storm::Weather weather;
    const storm::Counts &counts = weather.counts;
    {
        Server server({}, 4096, storm::Silence());
        RtmpSession *quiet = server.session(storm::kQuietName);
        storm::Storm storm(server, weather, 0);
        storm::QuietPlayer player(server, quiet, true);
        const auto end = Clock::now() + std::chrono::seconds(storm::Seconds());
        const auto isOver = [&] {
            return Clock::now() > end && counts.visits > static_cast<int>(storm::kRudePlayers) &&
                   player.seen() > storm::kQuietFrames;
        };
        EXPECT_TRUE(WaitUntil(isOver, (storm::Seconds() + 60) * 1000))
            << counts.visits << " visits, " << player.seen() << " frames";
        player.finish();
        storm.endHosts();
        EXPECT_EQ(RtmpSessionDestroy(quiet), 0);
        EXPECT_EQ(server.destroy(), 0);
    }
    std::cout << "storm: 1 rounds, " << counts.visits << " visits, " << counts.undisturbed << " undisturbed, "
              << counts.sessions << " sessions\n";
    EXPECT_GT(counts.undisturbed, 0);
    EXPECT_GT(counts.sessions, 2);
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; })) << OpenDescriptors();
    EXPECT_TRUE(WaitUntil([&] { return RunningThreads() == threads; })) << RunningThreads();
}
