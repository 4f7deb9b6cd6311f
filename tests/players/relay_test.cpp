// A server that pulls the stream to pass it on, and its players: the second hop.
#include "clients.h"
#include "relay.h"

TEST(NginxRelay, PassesThePicturesAndTheSoundOn)
{
    Directory work;
    LiveHost host;
    Relay relay(host, work);
    EXPECT_TRUE(host.waitForLog("Adding client: No. of connected clients : 1")) << relay.output();
    const Finished player = RunToEnd(Words(Ffmpeg({}, relay.url()), host, work), kPatienceMs);
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << relay.output() << host.output();
    EXPECT_TRUE(Plays(work.path("recording.mkv"), work)) << player.output << relay.output() << host.output();
}

TEST(NginxRelay, CutsItForBrowsers)
{
    Directory work;
    LiveHost host;
    Relay relay(host, work);
    ASSERT_TRUE(relay.waitForHls()) << relay.output() << host.output();
    const Finished player =
        RunToEnd(Words(Ffmpeg({"-live_start_index", "0"}, relay.playlist()), host, work), kPatienceMs);
    EXPECT_EQ(player.exit, (Exit{0, 0})) << player.output << relay.output();
    EXPECT_TRUE(Plays(work.path("recording.mkv"), work, false)) << player.output << relay.output();
}
