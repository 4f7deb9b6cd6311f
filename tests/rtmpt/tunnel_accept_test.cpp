#include "rtmpt/tunnel_accept.h"

#include "rtmpcast/rtmpcast.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/produced.h"

#include <arpa/inet.h>
#include <filesystem>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using Texts = std::vector<std::string>;

size_t EntriesOf(const char *directory)
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        (void)entry;
        count++;
    }
    return count;
}

size_t Threads()
{
    return EntriesOf("/proc/self/task");
}

// While it is captured, which is in a file.
size_t BytesOnStdout()
{
    struct stat file = {};
    fflush(stdout);
    EXPECT_EQ(fstat(STDOUT_FILENO, &file), 0);
    return static_cast<size_t>(file.st_size);
}

size_t Descriptors()
{
    return EntriesOf("/proc/self/fd");
}

// A free port of the loopback interface, as of now.
uint16_t FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &length), 0);
    close(fd);
    return ntohs(address.sin_port);
}

int Connect(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when nothing arrives, and the peer stays, for that long.
bool StaysSilent(int fd, int milliseconds)
{
    struct pollfd ready = {fd, POLLIN, 0};
    return poll(&ready, 1, milliseconds) == 0;
}

class RtmptPort : public testing::Test {
  protected:
    void SetUp() override
    {
        HostFakes::get().reset();
        signal(SIGUSR1, [](int) {});
        port_ = FreePort();
        int err = 0;
        server_ = RtmpServerCreate(log_.get(), "lo", 0, port_, 0, 0, &err);
        ASSERT_NE(server_, nullptr) << err;
        ASSERT_TRUE(log_.waitFor(waiting()));
    }
    void TearDown() override
    {
        if (server_ != nullptr) {
            EXPECT_EQ(RtmpServerDestroy(server_), 0);
        }
    }
    std::string waiting() const
    {
        return "6 INFO: AcceptRtmptConnectionThread: Waiting for RTMPT client connection on " +
               std::to_string(port_);
    }
    CaptureLogger log_;
    RtmpServer *server_ = nullptr;
    uint16_t port_ = 0;
};

} // namespace

TEST_F(RtmptPort, AConnectionStaysOpenAndSilentWhateverIsSent)
{
    const int peer = Connect(port_);
    ASSERT_NE(peer, -1);
    ASSERT_TRUE(log_.waitForCount(waiting(), 2));
    const std::string request = "POST /open/1 HTTP/1.1\r\nContent-Length: 1\r\n\r\n\0";
    ASSERT_EQ(send(peer, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    EXPECT_TRUE(StaysSilent(peer, 1500));
    close(peer);
    EXPECT_EQ(log_.count("AcceptRtmptConnectionThread"), 2U);
    EXPECT_TRUE(HostFakes::get().syslog().empty()); // this listener has no line there
}

TEST_F(RtmptPort, EveryConnectionKeepsOneThreadAndOneSocket)
{
    const size_t threads = Threads();
    const size_t descriptors = Descriptors();
    constexpr size_t kConnections = 20;
    std::vector<int> peers;
    for (size_t i = 0; i < kConnections; i++) {
        peers.push_back(Connect(port_));
        ASSERT_NE(peers.back(), -1);
    }
    ASSERT_TRUE(log_.waitForCount(waiting(), 1 + kConnections));
    EXPECT_EQ(Threads(), threads + kConnections);
    EXPECT_EQ(Descriptors(), descriptors + 2 * kConnections); // both ends are ours
    for (const int peer : peers) {
        EXPECT_TRUE(StaysSilent(peer, 0));
        close(peer);
    }
    // Nobody reads: that the peers have left changes nothing.
    const int last = Connect(port_);
    ASSERT_NE(last, -1);
    ASSERT_TRUE(log_.waitForCount(waiting(), 2 + kConnections));
    EXPECT_EQ(Threads(), threads + kConnections + 1);
    EXPECT_EQ(Descriptors(), descriptors + kConnections + 2);
    close(last);
}

TEST_F(RtmptPort, ASignalWakesNoThreadForGood)
{
    const int peer = Connect(port_);
    ASSERT_NE(peer, -1);
    ASSERT_TRUE(log_.waitForCount(waiting(), 2));
    const size_t threads = Threads();
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t id = std::stoi(task.path().filename());
        if (id != getpid()) {
            tgkill(getpid(), id, SIGUSR1);
        }
    }
    EXPECT_TRUE(StaysSilent(peer, 300));
    EXPECT_GE(Threads() + 1, threads); // accept may have been interrupted and have ended its thread
    close(peer);
}

TEST_F(RtmptPort, DestroyingTheServerEndsTheAcceptThreadAndLeavesTheConnections)
{
    const int peer = Connect(port_);
    ASSERT_NE(peer, -1);
    ASSERT_TRUE(log_.waitForCount(waiting(), 2));
    EXPECT_EQ(RtmpServerDestroy(server_), 0);
    server_ = nullptr;
    EXPECT_TRUE(log_.contains("6 INFO: AcceptRtmptConnectionThread: Exiting RTMPT connection accept thread"));
    EXPECT_EQ(Connect(port_), -1);
    EXPECT_TRUE(StaysSilent(peer, 300));
    close(peer);
}

TEST(AcceptRtmptConnectionThread, WithoutAServerEndsAtOnce)
{
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first
    const size_t threads = Threads();
    testing::internal::CaptureStdout();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, AcceptRtmptConnectionThread, nullptr), 0);
    const std::string line =
        "RTMPWriter: ERROR: AcceptRtmptConnectionThread: Invalid thread input arguments\n";
    EXPECT_TRUE(WaitUntil([&] { return BytesOnStdout() >= line.size(); }));
    EXPECT_TRUE(WaitUntil([&] { return Threads() <= threads; }));
    EXPECT_EQ(produced::CapturedStdout(), line);
}

TEST(AcceptRtmptConnectionThread, WithoutASocketEndsWithItsLine)
{
    CaptureLogger log;
    RtmpServer server = {};
    server.Logger = log.get();
    server.RtmptSocket = -1;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, AcceptRtmptConnectionThread, &server), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(log.lines(),
              Texts{"6 INFO: AcceptRtmptConnectionThread: Exiting RTMPT connection accept thread"});
}

TEST(ServeRtmptClient, WithoutAClientEndsAtOnce)
{
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first
    const size_t threads = Threads();
    testing::internal::CaptureStdout();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmptClient, nullptr), 0);
    const std::string line = "RTMPWriter: ERROR: ServeRtmptClient: Invalid thread input arguments\n";
    EXPECT_TRUE(WaitUntil([&] { return BytesOnStdout() >= line.size(); }));
    EXPECT_TRUE(WaitUntil([&] { return Threads() <= threads; }));
    EXPECT_EQ(produced::CapturedStdout(), line);
}
