// What RtmpPublisherServe says when the library ends the connection itself, on the steady road: the service
// is to blame, and the host has to connect again.
#include "publisher_fixture.h"

#include <sys/socket.h>

using namespace publisher;
using namespace wire;

namespace {

// Frames go on until the publisher's thread is back.
int32_t ResultUnderFrames(Rig &rig)
{
    uint64_t time = 1000;
    while (!rig.hasEnded()) {
        (void)SendVideo(rig.session, VideoFrame(100000, 0x65), time);
        time += 40;
    }
    return rig.result();
}

} // namespace

TEST(PublisherBrokenOff, AWriteThatFailsIsNoStop)
{
    for (const bool threaded : {false, true}) {
        Rig rig({.steady = true, .threaded = threaded});
        rig.startAndServe();
        rig.serviceUpTo(Step::Frames);
        shutdown(rig.socket, SHUT_WR); // what is written fails, and nothing is there to be read
        EXPECT_EQ(ResultUnderFrames(rig), RTMP_ERR_CONNECTION);
    }
}
