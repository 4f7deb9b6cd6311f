// The good-bye to a service that reads late and has something to say itself: it gets every frame, FCUnpublish
// and deleteStream, and then the end of the connection, no reset. The host ends the connection as the manual
// says.
#include "publisher_fixture.h"

#include "support/wait.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

struct LateReader {
    const char *name;
    bool steady, threaded;
    uint32_t frames; // of 20,000 bytes
};

class PublisherGoodBye : public testing::TestWithParam<LateReader> {
  protected:
    PublisherGoodBye()
    {
        rig.startAndServe();
        rig.serviceUpTo(Step::Frames);
    }

    // Of the last frame that was written, by whichever thread.
    uint64_t timelineTime()
    {
        RtmpClient *client = RtmpPublisherClient(rig.publisher);
        pthread_mutex_lock(&client->WriteLock);
        const uint64_t time = client->TimelineTime;
        pthread_mutex_unlock(&client->WriteLock);
        return time;
    }

    // The host's part behind RtmpPublisherServe.
    void endConnection()
    {
        EXPECT_EQ(rig.result(), 0);
        rig.destroyPublisher();
        shutdown(rig.socket, SHUT_WR);
        Bytes away(4096);
        while (recv(rig.socket, away.data(), away.size(), 0) > 0) {
        }
    }

    void notice()
    {
        rig.service->command(Values({String("onBWDone"), Number(0), Null()}).bytes);
    }

    Rig rig{{.steady = GetParam().steady, .threaded = GetParam().threaded}};
};

// However the test ends, the service leaves, and the host's thread with it.
struct HostThread {
    ~HostThread()
    {
        service.leave();
        thread.join();
    }
    ByteSocket &service;
    std::thread thread;
};

// All that this host will send is on its way.
bool HasEndedWriting(int socket)
{
    tcp_info info = {};
    socklen_t length = sizeof info;
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length);
    return info.tcpi_state == TCP_FIN_WAIT1 || info.tcpi_state == TCP_FIN_WAIT2;
}

} // namespace

// Few frames fit what the kernel keeps for a connection; of many, most wait in the ring.
INSTANTIATE_TEST_SUITE_P(Roads, PublisherGoodBye,
                         testing::Values(LateReader{"Exact", false, false, 5},
                                         LateReader{"ExactThreaded", false, true, 5},
                                         LateReader{"Steady", true, false, 5},
                                         LateReader{"SteadyThreaded", true, true, 5},
                                         LateReader{"SteadyFarBehind", true, false, 600}),
                         [](const testing::TestParamInfo<LateReader> &info) { return info.param.name; });

TEST_P(PublisherGoodBye, IsHeardBehindEveryFrameByAServiceThatReadsLate)
{
    const uint32_t frames = GetParam().frames;
    const bool fits = frames < 10;
    for (uint32_t i = 0; i < frames; i++) {
        EXPECT_EQ(SendVideo(rig.session, VideoFrame(20000, i == 0 ? 0x65 : 0x41), 1000 + 10 * i), 0);
    }
    const uint64_t last = 10 * (frames - 1);
    EXPECT_TRUE(!fits || WaitUntil([this, last] { return timelineTime() >= last; }));
    notice(); // while frames wait
    RtmpPublisherStop(rig.publisher);
    const HostThread host{rig.service->socket, std::thread([this] { endConnection(); })};
    EXPECT_TRUE(!fits || WaitUntil([this] { return HasEndedWriting(rig.socket); }));
    notice(); // behind the good-bye
    for (uint32_t i = 0; i < frames; i++) {
        const Message frame = rig.service->read();
        ASSERT_EQ(frame.type, 9) << i;
        ASSERT_EQ(frame.timestamp, 10 * i);
    }
    EXPECT_EQ(NameOf(rig.command()), "FCUnpublish");
    EXPECT_EQ(NameOf(rig.command()), "deleteStream");
    notice(); // and behind all that it has read
    EXPECT_TRUE(rig.service->socket.ends());
    notice(); // even then
}

// Nobody waits for it longer than for an answer.
TEST(PublisherGoodByeInTime, OfAServiceThatTakesNothing)
{
    Rig rig({.steady = true, .answerMs = 300});
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    for (uint32_t i = 0; i < 600; i++) {
        EXPECT_EQ(SendVideo(rig.session, VideoFrame(20000, i == 0 ? 0x65 : 0x41), 1000 + 10 * i), 0);
    }
    const uint64_t since = MonotonicMs();
    RtmpPublisherStop(rig.publisher);
    EXPECT_EQ(rig.result(), 0);
    EXPECT_GE(MonotonicMs() - since, 250U);
}
