// A process whose descriptors are used up by those who come, on both roads: players that are there lose
// nothing.
#include "steady/steady_peers.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

using namespace wire;

namespace {

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// While it lives, this process may open so many descriptors more.
class FewDescriptors {
  public:
    explicit FewDescriptors(int more)
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        for (; more > 0; end_++) {
            more -= IsOpen(end_) ? 0 : 1;
        }
        const rlimit few = {static_cast<rlim_t>(end_), before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    ~FewDescriptors()
    {
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0);
    }
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;
    bool areUsedUp() const
    {
        for (int fd = 0; fd < end_; fd++) {
            if (!IsOpen(fd)) {
                return false;
            }
        }
        return true;
    }

  private:
    rlimit before_ = {};
    int end_ = 0;
};

// Sockets of peers, which have their descriptors before they are few.
class Newcomers {
  public:
    explicit Newcomers(size_t count)
    {
        for (size_t i = 0; i < count; i++) {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            EXPECT_NE(fd, -1);
            sockets_.push_back(std::make_unique<ByteSocket>(Connected{fd}));
        }
    }
    void come(uint16_t port) const
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (const std::unique_ptr<ByteSocket> &each : sockets_) {
            EXPECT_EQ(connect(each->descriptor(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        }
    }

  private:
    std::vector<std::unique_ptr<ByteSocket>> sockets_;
};

void ExpectFrames(RtmpSession *session, ScriptedPeer &player, uint64_t time)
{
    for (const uint64_t end = time + 400; time < end; time += 40) {
        EXPECT_EQ(SendVideo(session, VideoFrame(64, kKeyNal), time), 0);
        EXPECT_EQ(player.read().payload.size(), 69U);
    }
}

// A host's sessions come and go meanwhile.
void ExpectASessionMore(TestServer &server)
{
    RtmpSession *another = server.session("another");
    EXPECT_EQ(RtmpSessionDestroy(another), 0);
}

} // namespace

TEST(DescriptorLimit, OfTheSteadyRoadIsWaitedOutAndEverybodyIsServedInTheEnd)
{
    constexpr size_t kNewcomers = 40;
    SteadyTestServer server(steady::With(&RtmpServiceLimits::MostClientsPerAddress, 2 * kNewcomers));
    RtmpSession *session = server.session("cam");
    ScriptedPeer player(server.port);
    player.chunks.standard = true;
    player.playing("cam");
    const Newcomers newcomers(kNewcomers);
    {
        const FewDescriptors few(20);
        newcomers.come(server.port);
        ASSERT_TRUE(WaitUntil([&] { return few.areUsedUp(); }));
        EXPECT_LT(server.log.count("is connected"), kNewcomers);
        ExpectFrames(session, player, 1000);
        ExpectASessionMore(server);
    }
    EXPECT_TRUE(server.log.waitForCount("is connected", 1 + kNewcomers));
    ExpectFrames(session, player, 2000);
    ScriptedPeer(server.port).playing("cam");
}

// It accepts nobody any more, by design.
TEST(DescriptorLimit, OfTheExactRoadEndsItsListeningAndNothingElse)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer player(server.port);
    player.playing("cam");
    const Newcomers newcomers(10); // as many as may wait
    {
        const FewDescriptors few(5);
        newcomers.come(server.port);
        ASSERT_TRUE(server.log.waitFor("Exiting RTMP connection accept thread"));
        ExpectFrames(session, player, 1000);
        ExpectASessionMore(server);
    }
    ExpectFrames(session, player, 2000);
}
