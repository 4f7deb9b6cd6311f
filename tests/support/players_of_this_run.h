// Which players the servers of a run of tests admit.
#pragma once

#include "rtmpcast/player.h"

#include <cstdlib>
#include <string_view>

namespace wire {

// All players of today when RTMPCAST_TEST_PLAYERS is "all" in the environment, else those of the default. A
// test that is about either says so itself.
inline uint32_t PlayersOfThisRun()
{
    const char *players = std::getenv("RTMPCAST_TEST_PLAYERS");
    return players != nullptr && std::string_view(players) == "all" ? RTMP_PLAYERS_ALL : RTMP_PLAYERS_EXACT;
}

} // namespace wire
