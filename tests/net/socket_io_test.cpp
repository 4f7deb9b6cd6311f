#include "net/socket_io.h"
#include "support/bytes.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <thread>

namespace {

using Lines = std::vector<std::string>;

struct Pair {
    int ours = -1, theirs = -1;
    Pair()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ours = ends[0];
        theirs = ends[1];
        const timeval deadline = {20, 0};
        setsockopt(ours, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    }
    ~Pair()
    {
        close(ours);
        closeTheirs();
    }
    void closeTheirs()
    {
        if (theirs >= 0) {
            close(theirs);
            theirs = -1;
        }
    }
    void feed(const Bytes &bytes) const
    {
        ASSERT_EQ(send(theirs, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
};

int LowestClosedDescriptor()
{
    const int fd = dup(0);
    close(fd);
    return fd;
}

} // namespace

// --------------------------------------------------------------------------------------- RtmpCloseSocket

TEST(RtmpCloseSocket, NoSocketIsClosedAlready)
{
    CaptureLogger log;
    int fd = -1;
    EXPECT_EQ(RtmpCloseSocket(log.get(), &fd), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpCloseSocket, ShutsDownAndClosesAndLeavesTheNumber)
{
    CaptureLogger log;
    Pair pair;
    const int copy = dup(pair.ours); // keeps the connection open: the shutdown is what the peer sees
    int fd = pair.ours;
    EXPECT_EQ(RtmpCloseSocket(log.get(), &fd), 0);
    EXPECT_EQ(fd, pair.ours);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    uint8_t byte;
    EXPECT_EQ(recv(pair.theirs, &byte, 1, 0), 0);
    close(copy);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpCloseSocket, OnAClosedDescriptorBothFailuresAreLogged)
{
    CaptureLogger log;
    int fd = LowestClosedDescriptor();
    const std::string number = std::to_string(fd);
    EXPECT_EQ(RtmpCloseSocket(log.get(), &fd), -1);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: RtmpCloseSocket: Shutdown of " + number + " failed: Bad file descriptor",
                     "3 ERROR: RtmpCloseSocket: Close of " + number + " failed: Bad file descriptor"}));
}

TEST(RtmpCloseSocket, AFailedShutdownDoesNotKeepItFromClosing)
{
    CaptureLogger log;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(RtmpCloseSocket(log.get(), &fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpCloseSocket: Shutdown of " + std::to_string(fd) +
                                 " failed: Transport endpoint is not connected"});
}

// --------------------------------------------------------------------------------------------- RtmpGetIP

TEST(RtmpGetIP, FindsTheLoopbackAddress)
{
    CaptureLogger log;
    char address[16] = "";
    EXPECT_EQ(RtmpGetIP(log.get(), "lo", address), 0);
    EXPECT_STREQ(address, "127.0.0.1");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpGetIP, AnInterfaceThatDoesNotExistIsAFailure)
{
    for (const std::string &name : {std::string("nosuch0"), std::string(), std::string(15, 'x'),
                                    std::string(16, 'x'), std::string(17, 'x'), std::string(5000, 'x')}) {
        SCOPED_TRACE(name.size());
        CaptureLogger log;
        char address[16] = "untouched";
        EXPECT_EQ(RtmpGetIP(log.get(), name.c_str(), address), -1);
        EXPECT_STREQ(address, "untouched");
        EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpGetIP: Failed in ioctl"});
    }
}

TEST(RtmpGetIP, WithoutADescriptorToSpareItFails)
{
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {static_cast<rlim_t>(LowestClosedDescriptor()), before.rlim_max};
    CaptureLogger log;
    char address[16] = "untouched";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = RtmpGetIP(log.get(), "lo", address);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(result, -1);
    EXPECT_STREQ(address, "untouched");
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpGetIP: Can not create socket to get IP address"});
}

TEST(RtmpGetIP, LeavesNoDescriptorBehind)
{
    const int lowest = LowestClosedDescriptor();
    CaptureLogger log;
    char address[16];
    (void)RtmpGetIP(log.get(), "lo", address);
    (void)RtmpGetIP(log.get(), "nosuch0", address);
    EXPECT_EQ(LowestClosedDescriptor(), lowest);
}

// ----------------------------------------------------------------------------------------- RtmpReadBytes

TEST(RtmpReadBytes, WaitsForEveryByte)
{
    CaptureLogger log;
    Pair pair;
    const Bytes sent = Counting(100000);
    std::thread peer([&] {
        for (size_t at = 0; at < sent.size(); at += 1000) {
            pair.feed(Slice(sent, at, 1000));
        }
    });
    Bytes got(sent.size());
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, got.data(), static_cast<uint32_t>(got.size()), nullptr), 0);
    peer.join();
    EXPECT_EQ(got, sent);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpReadBytes, TakesNoByteMoreThanAskedFor)
{
    CaptureLogger log;
    Pair pair;
    pair.feed(Hex("AA BB CC"));
    Bytes got(3, 0x11);
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, got.data(), 2, nullptr), 0);
    EXPECT_EQ(got, Hex("AA BB 11"));
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, got.data(), 1, nullptr), 0);
    EXPECT_EQ(got, Hex("CC BB 11"));
}

TEST(RtmpReadBytes, APeerThatClosesMidMessageIsAFailureThoughBytesArrived)
{
    CaptureLogger log;
    Pair pair;
    pair.feed(Hex("AA BB"));
    pair.closeTheirs();
    Bytes got(3);
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, got.data(), 3, nullptr), -1);
    EXPECT_EQ(got, Hex("AA BB 00"));
    EXPECT_EQ(log.lines(), Lines{"6 INFO: RtmpReadBytes: Connection was closed by peer"});
    EXPECT_TRUE(HostFakes::get().tlsErrors().empty());
}

TEST(RtmpReadBytes, AReadOfNothingCountsAsThePeerClosing)
{
    CaptureLogger log;
    Pair pair;
    uint8_t byte = 0x11;
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, &byte, 0, nullptr), -1); // the peer is silent
    pair.feed(Hex("AA"));
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, &byte, 0, nullptr), -1); // it has sent something
    EXPECT_EQ(byte, 0x11);
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, &byte, 1, nullptr), 0); // which is still there
    pair.closeTheirs();
    EXPECT_EQ(RtmpReadBytes(log.get(), pair.ours, &byte, 0, nullptr), -1); // it is gone
    EXPECT_EQ(log.lines(), Lines(3, "6 INFO: RtmpReadBytes: Connection was closed by peer"));
}

TEST(RtmpReadBytes, AReadOfNothingAnswersAtOnceOnTcpToo)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(peer, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    const int ours = accept(listener, nullptr, nullptr);
    ASSERT_GE(ours, 0);
    CaptureLogger log;
    uint8_t byte;
    EXPECT_EQ(RtmpReadBytes(log.get(), ours, &byte, 0, nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"6 INFO: RtmpReadBytes: Connection was closed by peer"});
    close(ours);
    close(peer);
    close(listener);
}

TEST(RtmpReadBytes, AnErrorIsLoggedWithItsNumberAndText)
{
    for (uint32_t length : {0U, 1U}) {
        CaptureLogger log;
        uint8_t byte;
        EXPECT_EQ(RtmpReadBytes(log.get(), LowestClosedDescriptor(), &byte, length, nullptr), -1);
        EXPECT_EQ(log.lines(),
                  Lines{"3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)"});
    }
}

TEST(RtmpReadBytes, AnInterruptedReadIsNotTakenUpAgain)
{
    struct sigaction returns = {};
    returns.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &returns, nullptr), 0);
    CaptureLogger log;
    Pair pair;
    std::atomic<int> result = 99;
    std::thread reader([&] {
        uint8_t byte;
        result = RtmpReadBytes(log.get(), pair.ours, &byte, 1, nullptr);
    });
    // A signal that comes before the read blocks interrupts nothing.
    EXPECT_TRUE(WaitUntil([&] {
        pthread_kill(reader.native_handle(), SIGUSR1);
        return result != 99;
    }));
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)",
                     "6 INFO: RtmpReadBytes: TCP recv function error in linux: Err :4 Retval: -1"}));
}

TEST(RtmpReadBytes, ThroughTlsItReadsTheRestUntilAllIsThere)
{
    CaptureLogger log;
    std::vector<int> asked;
    HostFakes::get().sslRead = [&](void *tls, void *buffer, int length) {
        EXPECT_EQ(tls, &log);
        asked.push_back(length);
        memset(buffer, static_cast<int>(asked.size()), 2);
        return std::min(length, 2);
    };
    Bytes got(6);
    EXPECT_EQ(RtmpReadBytes(log.get(), -1, got.data(), 5, &log), 0);
    EXPECT_EQ(asked, (std::vector<int>{5, 3, 1}));
    EXPECT_EQ(Slice(got, 0, 5), Hex("01 01 02 02 03"));
}

TEST(RtmpReadBytes, ThroughTlsTheHostReportsAClosedConnection)
{
    CaptureLogger log;
    HostFakes::get().sslRead = [](void *, void *, int) { return 0; };
    uint8_t byte;
    EXPECT_EQ(RtmpReadBytes(log.get(), -1, &byte, 1, &log), -1);
    EXPECT_EQ(log.lines(), Lines{"6 INFO: RtmpReadBytes: Connection was closed by peer"});
    EXPECT_EQ(HostFakes::get().tlsErrors(), (std::vector<std::pair<void *, int>>{{&log, 0}}));
}

// A TLS library would wait for a record.
TEST(RtmpReadBytes, ThroughTlsAReadOfNothingAnswersAtOnce)
{
    CaptureLogger log;
    int asked = 0;
    HostFakes::get().reset();
    HostFakes::get().sslRead = [&](void *, void *, int) {
        ++asked;
        return -1;
    };
    uint8_t byte;
    EXPECT_EQ(RtmpReadBytes(log.get(), -1, &byte, 0, &log), -1);
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(log.lines(), Lines{"6 INFO: RtmpReadBytes: Connection was closed by peer"});
    EXPECT_EQ(HostFakes::get().tlsErrors(), (std::vector<std::pair<void *, int>>{{&log, 0}}));
}

TEST(RtmpReadBytes, ThroughTlsAnErrorIsLogged)
{
    const struct {
        int error;
        Lines lines;
    } rows[] = {
        {ECONNRESET, {"3 ERROR: RtmpReadBytes: Unable to read buffer: 104 (Connection reset by peer)"}},
        {ESPIPE,
         {"3 ERROR: RtmpReadBytes: Unable to read buffer: 29 (Illegal seek)",
          "6 INFO: RtmpReadBytes: TCP recv function error in linux: Err :29 Retval: -1"}},
    };
    for (const auto &row : rows) {
        CaptureLogger log;
        HostFakes::get().sslRead = [&](void *, void *, int) {
            errno = row.error;
            return -1;
        };
        uint8_t byte;
        EXPECT_EQ(RtmpReadBytes(log.get(), -1, &byte, 1, &log), -1);
        EXPECT_EQ(log.lines(), row.lines);
        EXPECT_TRUE(HostFakes::get().tlsErrors().empty());
    }
}

// ----------------------------------------------------------------------------------------- RtmpSendBytes

TEST(RtmpSendBytes, WritesOnceAndReturnsTheCount)
{
    CaptureLogger log;
    Pair pair;
    const Bytes sent = Counting(1000);
    EXPECT_EQ(RtmpSendBytes(log.get(), pair.ours, sent.data(), 1000, nullptr), 1000);
    Bytes got(1001);
    EXPECT_EQ(recv(pair.theirs, got.data(), got.size(), 0), 1000);
    EXPECT_EQ(Slice(got, 0, 1000), sent);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpSendBytes, AShortWriteReturnsWhatWasWritten)
{
    CaptureLogger log;
    Pair pair;
    ASSERT_EQ(fcntl(pair.ours, F_SETFL, O_NONBLOCK), 0);
    const Bytes much(8 << 20);
    const int sent =
        RtmpSendBytes(log.get(), pair.ours, much.data(), static_cast<uint32_t>(much.size()), nullptr);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(much.size()));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpSendBytes, APeerThatIsGoneIsAnErrorAndNoSignal)
{
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    CaptureLogger log;
    Pair pair;
    pair.closeTheirs();
    const uint8_t byte = 1;
    EXPECT_EQ(RtmpSendBytes(log.get(), pair.ours, &byte, 1, nullptr), -1);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpSendBytes: Unable to send buffer: 32 (Broken pipe)"});
}

TEST(RtmpSendBytes, AWriteOfNothingCountsAsThePeerClosingAndReachesTheHostWithoutTls)
{
    CaptureLogger log;
    Pair pair;
    const uint8_t byte = 1;
    EXPECT_EQ(RtmpSendBytes(log.get(), pair.ours, &byte, 0, nullptr), 0);
    EXPECT_EQ(log.lines(), Lines{"6 INFO: RtmpSendBytes: Connection was closed by peer"});
    EXPECT_EQ(HostFakes::get().tlsErrors(), (std::vector<std::pair<void *, int>>{{nullptr, 0}}));
}

TEST(RtmpSendBytes, ThroughTlsItMakesOneWrite)
{
    const struct {
        int answer;
        Lines lines;
        size_t reports;
    } rows[] = {
        {5, {}, 0},
        {2, {}, 0},
        {0, {"6 INFO: RtmpSendBytes: Connection was closed by peer"}, 1},
        {-1, {"3 ERROR: RtmpSendBytes: Unable to send buffer: 104 (Connection reset by peer)"}, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        HostFakes::get().reset();
        CaptureLogger log;
        int writes = 0;
        HostFakes::get().sslWrite = [&](void *tls, const void *, int length) {
            EXPECT_EQ(tls, &log);
            EXPECT_EQ(length, 5);
            writes++;
            errno = ECONNRESET;
            return row.answer;
        };
        EXPECT_EQ(RtmpSendBytes(log.get(), -1, Counting(5).data(), 5, &log), row.answer);
        EXPECT_EQ(writes, 1);
        EXPECT_EQ(log.lines(), row.lines);
        EXPECT_EQ(HostFakes::get().tlsErrors().size(), row.reports);
    }
}

// -------------------------------------------------------------------------------------- RtmpSendMsgBytes

TEST(RtmpSendMsgBytes, SendsItsPiecesInOrder)
{
    CaptureLogger log;
    Pair pair;
    Bytes first = Hex("AA BB"), second = Hex("CC");
    iovec pieces[] = {{first.data(), 2}, {second.data(), 1}};
    msghdr message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    EXPECT_EQ(RtmpSendMsgBytes(log.get(), pair.ours, &message, 0), 3);
    Bytes got(4);
    EXPECT_EQ(recv(pair.theirs, got.data(), 4, 0), 3);
    EXPECT_EQ(Slice(got, 0, 3), Hex("AA BB CC"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(RtmpSendMsgBytes, PassesTheFlagsOn)
{
    CaptureLogger log;
    Pair pair;
    Bytes much(8 << 20);
    iovec piece = {much.data(), much.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    const int sent = RtmpSendMsgBytes(log.get(), pair.ours, &message, MSG_DONTWAIT);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(much.size()));
}

TEST(RtmpSendMsgBytes, APeerThatIsGoneIsAnErrorInTwoLinesAndNoSignal)
{
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    CaptureLogger log;
    Pair pair;
    pair.closeTheirs();
    uint8_t byte = 1;
    iovec piece = {&byte, 1};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    EXPECT_EQ(RtmpSendMsgBytes(log.get(), pair.ours, &message, 0), -1);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: RtmpSendMsgBytes: Unable to send message: 32 (Broken pipe)",
                                  "6 INFO: RtmpSendMsgBytes: ========= Client Disconnected ========"}));
}

TEST(RtmpSendMsgBytes, AnyOtherErrorIsOneLine)
{
    CaptureLogger log;
    msghdr message = {};
    EXPECT_EQ(RtmpSendMsgBytes(log.get(), LowestClosedDescriptor(), &message, 0), -1);
    EXPECT_EQ(log.lines(),
              Lines{"3 ERROR: RtmpSendMsgBytes: Unable to send message: 9 (Bad file descriptor)"});
}
