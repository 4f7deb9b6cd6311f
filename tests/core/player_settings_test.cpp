// Which players a server admits: what the setting stores. Who is admitted then: tests/wire.
#include "support/session_rig.h"

#include <gtest/gtest.h>

namespace {

TEST(PlayerSettings, ANewServerIsExact)
{
    SessionRig rig;
    EXPECT_EQ(rig.server->PlayerFlags, uint32_t{RTMP_PLAYERS_EXACT});
}

TEST(PlayerSettings, TheLastCallHoldsAndBitsWithoutANameAreIgnored)
{
    SessionRig rig;
    EXPECT_EQ(RtmpPlayerSettings(rig.server, 0xFFFFFFFF), 0);
    EXPECT_EQ(rig.server->PlayerFlags, uint32_t{RTMP_PLAYERS_ALL});
    EXPECT_EQ(RtmpPlayerSettings(rig.server, RTMP_PLAYERS_CONNECT | 1U << 31), 0);
    EXPECT_EQ(rig.server->PlayerFlags, uint32_t{RTMP_PLAYERS_CONNECT});
    EXPECT_EQ(RtmpPlayerSettings(rig.server, RTMP_PLAYERS_EXACT), 0);
    EXPECT_EQ(rig.server->PlayerFlags, uint32_t{RTMP_PLAYERS_EXACT});
}

TEST(PlayerSettings, OfNoServerAreNothing)
{
    EXPECT_EQ(RtmpPlayerSettings(nullptr, RTMP_PLAYERS_ALL), 0);
}

TEST(PlayerSettings, DoNotTouchClientsThatAHostMakesItself)
{
    SessionRig rig;
    RtmpPlayerSettings(rig.server, RTMP_PLAYERS_ALL);
    EXPECT_EQ(rig.addClient().client->PlayerFlags, uint32_t{RTMP_PLAYERS_EXACT});
}

} // namespace
