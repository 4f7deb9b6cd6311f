// The accept of the steady road: what passes is waited out, and the rest ends it.
#include "steady/steady_peers.h"
#include "support/calls.h"
#include "support/host_fakes.h"

#include <cerrno>

using namespace wire;

namespace {

class SteadyAccept : public testing::Test {
  protected:
    void SetUp() override
    {
        HostFakes::get().reset();
    }
    void TearDown() override
    {
        calls::reset();
    }
    // Goes over from the default road's accept, which waits when the server takes the steady one.
    void arrive(TestServer &server)
    {
        ScriptedPeer(server.port).connected();
    }
};

} // namespace

TEST_F(SteadyAccept, ItIsAnnouncedOnce)
{
    SteadyTestServer server;
    for (int i = 0; i < 5; i++) {
        arrive(server);
    }
    EXPECT_EQ(server.log.count("AcceptSteadily: Waiting for RTMP clients on"), 1u);
    EXPECT_EQ(HostFakes::get().syslog().size(), 2u); // the default road's line was the first
}

// What was accepted before keeps the rules of the default road.
TEST_F(SteadyAccept, AnEarlierConnectionStaysAsItWas)
{
    TestServer server;
    ScriptedPeer early(server.port);
    early.connected();
    RtmpServiceLimits limits = {};
    limits.PlayMilliseconds = 50;
    ASSERT_EQ(RtmpServiceSettings(server.server, &limits), 0);
    RtmpSession *session = server.session();
    ScriptedPeer late(server.port);
    late.connected();
    EXPECT_TRUE(ReadsToTheEnd(late.socket));
    EXPECT_TRUE(server.log.waitFor("leaves: it did not play in time"));
    early.command(CreateStreamCommand());
    early.read();
    early.command(PlayCommand("cam"));
    early.read(7);
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
    EXPECT_EQ(early.read().payload.size(), 105u);
    early.socket.leave();
}

// A lack that lasts is met by a nap: four attempts take three naps at least.
TEST_F(SteadyAccept, ALackOfDescriptorsIsWaitedOutAtLeisure)
{
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        SteadyTestServer server;
        arrive(server);
        calls::failWith(Call::Accept4, error);
        calls::failAlways(Call::Accept4);
        const ByteSocket waiting(server.port); // for the accept that is under way, or the next
        const uint64_t begun = MonotonicMs();
        const uint64_t made = calls::made(Call::Accept4);
        ASSERT_TRUE(WaitUntil([&] { return calls::made(Call::Accept4) >= made + 5; })) << error;
        EXPECT_GE(MonotonicMs() - begun, 100u) << error;
        calls::failNever(Call::Accept4);
        arrive(server);
        EXPECT_FALSE(server.log.contains("Exiting RTMP connection accept thread")) << error;
    }
}

TEST_F(SteadyAccept, TheEndOfTheServerEndsTheNap)
{
    int best = 1000;
    for (int attempt = 0; attempt < 5; attempt++) {
        SteadyTestServer server;
        arrive(server);
        calls::failAlways(Call::Accept4);
        const ByteSocket waiting(server.port); // for the accept that is under way, or the next
        const uint64_t made = calls::made(Call::Accept4);
        ASSERT_TRUE(WaitUntil([&] { return calls::made(Call::Accept4) > made; }));
        const uint64_t begun = MonotonicMs();
        calls::failWith(Call::Accept4, EINVAL); // what accept answers once the listener is shut down
        EXPECT_EQ(server.destroy(), 0);
        best = std::min(best, static_cast<int>(MonotonicMs() - begun));
        calls::reset();
    }
    EXPECT_LE(best, 40);
}

TEST_F(SteadyAccept, AConnectionThatBreaksAndASignalAreNothing)
{
    for (const int error : {ECONNABORTED, EINTR}) {
        SteadyTestServer server;
        arrive(server);
        calls::failWith(Call::Accept4, error);
        calls::failNext(Call::Accept4);
        arrive(server);
        ASSERT_TRUE(WaitUntil([] { return calls::hasFailed(Call::Accept4); })) << error;
        arrive(server);
        EXPECT_FALSE(server.log.contains("Exiting RTMP connection accept thread")) << error;
    }
}

TEST_F(SteadyAccept, WhateverElseFailsEndsTheThread)
{
    SteadyTestServer server;
    arrive(server);
    calls::failWith(Call::Accept4, EBADF);
    calls::failNext(Call::Accept4);
    const ByteSocket waiting(server.port);
    EXPECT_TRUE(
        server.log.waitFor("INFO: AcceptRtmpConnectionThread: Exiting RTMP connection accept thread"));
}

TEST_F(SteadyAccept, AConnectionWithoutAThreadIsClosedAndTheNextIsServed)
{
    SteadyTestServer server;
    arrive(server);
    const size_t descriptors = OpenDescriptors();
    calls::failNext(Call::ThreadCreate);
    EXPECT_TRUE(ByteSocket(server.port).ends());
    EXPECT_TRUE(server.log.waitFor("3 ERROR: AcceptSteadily: Cannot create a thread for 127.0.0.1"));
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; }));
    arrive(server);
}
