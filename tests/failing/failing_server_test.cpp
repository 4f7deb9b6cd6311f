// Servers and their accept threads when sockets, threads, locks or memory fail: codes, lines, and nothing
// left behind (the leak checker is the judge of memory).
#include "net/socket_io.h"
#include "state/client.h"
#include "support/calls.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/produced.h"

#include "rtmpcast/rtmpcast.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

Lines LinesOf(const CaptureLogger &log, const std::string &function)
{
    Lines found;
    for (const std::string &line : log.lines()) {
        if (line.find(": " + function + ": ") != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

const std::string kAddress = "6 INFO: RtmpServerCreate: Server IP address 0.0.0.0";

std::string Create(const std::string &text)
{
    return "3 ERROR: RtmpServerCreate: " + text;
}

struct CreateRow {
    const char *sentence;
    Call call;
    int number;
    int code;
    std::string line; // behind the address
};

const CreateRow kCreateRows[] = {
    {"no lock", Call::MutexInit, 1, -79, "Cannot initialize session list lock"},
    {"no RTMP socket", Call::Socket, 1, -87, "Cannot create Rtmp socket of type tcp"},
    {"RTMP port taken", Call::Bind, 1, -86, "Cannot bind RTMP Server Socket to port 1935"},
    {"RTMP socket does not listen", Call::Listen, 1, -85, "Listening Failed"},
    {"no RTMP accept thread", Call::ThreadCreate, 1, -84, "Cannot create rtmp thread"},
    {"no RTMPT socket", Call::Socket, 2, -87, "Cannot create Rtmpt socket of type tcp"},
    {"RTMPT port taken", Call::Bind, 2, -86, "Cannot bind RTMPT Server Socket to port 8080"},
    {"RTMPT socket does not listen", Call::Listen, 2, -85, "Listening Failed"},
    {"no RTMPT accept thread", Call::ThreadCreate, 2, -84, "Cannot create rtmpt thread"},
};

struct Listening {
    Listening(uint16_t rtmpPort = 1935, uint16_t rtmptPort = 0)
    {
        HostFakes::get().reset();
        server = RtmpServerCreate(log.get(), "ANY", rtmpPort, rtmptPort, 0, 4096, nullptr);
    }
    // A connection to whichever port the system chose.
    static int connectTo(int listener)
    {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    CaptureLogger log;
    RtmpServer *server;
};

bool PeerClosed(int fd)
{
    char byte;
    return recv(fd, &byte, 1, 0) <= 0;
}

const std::string kWaiting = "6 INFO: AcceptRtmpConnectionThread: Waiting for RTMP client connection on 1935";

} // namespace

// ------------------------------------------------------------------------------------------------ create

TEST(ServerCreateFailing, EveryStepHasItsCodeItsLineAndLeavesNothing)
{
    for (const CreateRow &row : kCreateRows) {
        SCOPED_TRACE(row.sentence);
        CaptureLogger log;
        const size_t before = OpenDescriptors();
        int err = 0;
        {
            const FailingCall failing(row.call, row.number);
            EXPECT_EQ(RtmpServerCreate(log.get(), "ANY", 1935, 8080, 0, 4096, &err), nullptr);
        }
        EXPECT_EQ(err, row.code);
        EXPECT_EQ(LinesOf(log, "RtmpServerCreate"), (Lines{kAddress, Create(row.line)}));
        EXPECT_EQ(OpenDescriptors(), before);
        // An RTMP listener that was there already has been ended again.
        const Lines accept = LinesOf(log, "AcceptRtmpConnectionThread");
        EXPECT_EQ(accept,
                  row.number == 2
                      ? (Lines{kWaiting, "6 INFO: AcceptRtmpConnectionThread: Exiting RTMP connection "
                                         "accept thread"})
                      : Lines{});
    }
}

TEST(ServerCreateFailing, WithoutMemoryThereIsNoServerAndNoAddressLine)
{
    CaptureLogger log;
    int err = 0;
    const FailingAllocation failing(1);
    EXPECT_EQ(RtmpServerCreate(log.get(), "ANY", 1935, 8080, 0, 4096, &err), nullptr);
    EXPECT_EQ(err, -89);
    EXPECT_EQ(log.lines(), Lines{Create("Cannot allocate memory to rtmpServer")});
}

TEST(ServerCreateFailing, TheCodeMayBeOfNoInterest)
{
    CaptureLogger log;
    const FailingCall failing(Call::Bind);
    EXPECT_EQ(RtmpServerCreate(log.get(), "ANY", 1935, 0, 0, 4096, nullptr), nullptr);
}

TEST(ServerCreateFailing, AnInterfaceWhoseAddressCannotBeAskedFor)
{
    const struct {
        Call call;
        const char *interface;
        Lines lines;
    } rows[] = {
        {Call::Socket, "lo", {"3 ERROR: RtmpGetIP: Can not create socket to get IP address"}},
        {Call::Close, "lo", {"3 ERROR: RtmpGetIP: Unable to close socket"}},
        {Call::Close,
         "no-such-thing",
         {"3 ERROR: RtmpGetIP: Failed in ioctl", "3 ERROR: RtmpGetIP: Unable to close socket"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.interface);
        CaptureLogger log;
        const size_t before = OpenDescriptors();
        int err = 0;
        const FailingCall failing(row.call);
        EXPECT_EQ(RtmpServerCreate(log.get(), row.interface, 1935, 0, 0, 4096, &err), nullptr);
        EXPECT_EQ(err, -73);
        Lines lines = row.lines;
        lines.push_back(Create("Cannot get IP address of interface " + std::string(row.interface)));
        EXPECT_EQ(log.lines(), lines);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST(ServerCreateFailing, SocketOptionsThatCannotBeSetAreOnlyLogged)
{
    const std::string reusable = Create("Fail to set the server socket reusable");
    const std::string tos = Create("Fail to set the server socket TOS value");
    const std::string lines[] = {reusable, tos, reusable, tos}; // RTMP, then RTMPT
    for (int number = 1; number <= 4; number++) {
        SCOPED_TRACE(number);
        CaptureLogger log;
        RtmpServer *server = nullptr;
        {
            const FailingCall failing(Call::SetSockOpt, number);
            server = RtmpServerCreate(log.get(), "ANY", 1935, 8080, 46, 4096, nullptr);
        }
        ASSERT_NE(server, nullptr);
        EXPECT_EQ(LinesOf(log, "RtmpServerCreate"), (Lines{kAddress, lines[number - 1]}));
        EXPECT_EQ(RtmpServerDestroy(server), 0);
    }
}

// ----------------------------------------------------------------------------------------------- destroy

TEST(ServerDestroyFailing, AThreadThatCannotBeJoinedLeavesAServerThatCanBeDestroyedLater)
{
    const char *const lines[] = {"3 ERROR: RtmpServerDestroy: Wait For RTMP Thread Completion Failed",
                                 "3 ERROR: RtmpServerDestroy: Wait For RTMPT Thread Completion Failed"};
    for (int number = 1; number <= 2; number++) {
        SCOPED_TRACE(number);
        const size_t before = OpenDescriptors();
        Listening rig(1935, 8080);
        ASSERT_NE(rig.server, nullptr);
        testing::internal::CaptureStderr();
        {
            const FailingCall failing(Call::ThreadJoin, number);
            EXPECT_EQ(RtmpServerDestroy(rig.server), -83);
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "RtmpWaitForThreadCompletion: No such process\n");
        EXPECT_EQ(LinesOf(rig.log, "RtmpServerDestroy"), Lines{lines[number - 1]});
        const int reused = ::socket(AF_INET, SOCK_STREAM, 0); // it may have got a listener's number
        EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
        EXPECT_EQ(LinesOf(rig.log, "RtmpCloseSocket"), Lines{});
        EXPECT_EQ(::close(reused), 0);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST(ServerDestroyFailing, AListenerThatCannotBeClosedIsOnlyLogged)
{
    Listening rig;
    const std::string fd = std::to_string(rig.server->RtmpSocket);
    const FailingCall failing(Call::Close);
    EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
    EXPECT_EQ(LinesOf(rig.log, "RtmpCloseSocket"),
              Lines{"3 ERROR: RtmpCloseSocket: Close of " + fd + " failed: Input/output error"});
}

TEST(ServerDestroyFailing, AListLockThatCannotBeDestroyedKeepsTheServer)
{
    Listening rig(0, 0);
    testing::internal::CaptureStdout();
    {
        const FailingCall failing(Call::MutexDestroy);
        EXPECT_EQ(RtmpServerDestroy(rig.server), -76);
    }
    EXPECT_EQ(produced::CapturedStdout(),
              "RTMPWriter: ERROR: RtmpServerDestroy: Destroying of RTMP Session List Lock Failed\n");
    EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
}

TEST(ServerDestroyFailing, ASessionThatCannotBeDestroyedIsTriedAgain)
{
    Listening rig(0, 0);
    ASSERT_NE(RtmpSessionCreate(rig.server, "live", nullptr), nullptr);
    testing::internal::CaptureStdout();
    {
        const FailingCall failing(Call::MutexLock, 1, &rig.server->LiveSessionListLock);
        EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
    }
    EXPECT_EQ(produced::CapturedStdout(),
              "RTMPWriter: ERROR: RtmpSessionDestroy: Cannot lock Rtmp session list\n"
              "RTMPWriter: ERROR: RtmpServerDestroy: Can not destroy RTMP session\n");
}

// ------------------------------------------------------------------------------------------------ accept

TEST(AcceptFailing, AnAcceptThatFailsEndsTheThreadForGood)
{
    Listening rig;
    ASSERT_TRUE(rig.log.waitFor(kWaiting));
    int fd;
    {
        const FailingCallElsewhere failing(Call::Accept);
        fd = Listening::connectTo(rig.server->RtmpSocket);
        EXPECT_TRUE(rig.log.waitFor("Exiting RTMP connection accept thread"));
    }
    EXPECT_TRUE(PeerClosed(fd));
    EXPECT_EQ(LinesOf(rig.log, "AcceptRtmpConnectionThread"),
              (Lines{kWaiting, "6 INFO: AcceptRtmpConnectionThread: Exiting RTMP connection accept thread"}));
    EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
    ::close(fd);
}

TEST(AcceptFailing, AConnectionThatCannotBeTakenIsClosedAndTheNextOneIsServed)
{
    const std::string who = "3 ERROR: AcceptRtmpConnectionThread: ";
    const struct {
        const char *sentence;
        Call call;
        Lines lines; // of the accept thread
        Lines others;
    } rows[] = {
        {"no address", Call::GetPeerName, {who + "Can not get the IP address of client"}, {}},
        {"no client record",
         Call::MutexInit,
         {who + "New Rtmp client creation failed"},
         {"3 ERROR: CreateNewRtmpClient: Cannot initialize receive packet list lock"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        const size_t before = OpenDescriptors();
        Listening rig;
        ASSERT_TRUE(rig.log.waitFor(kWaiting));
        {
            const FailingCallElsewhere failing(row.call);
            const int fd = Listening::connectTo(rig.server->RtmpSocket);
            EXPECT_TRUE(PeerClosed(fd));
            EXPECT_TRUE(failing.cameToIt());
            ::close(fd);
        }
        ASSERT_TRUE(rig.log.waitForCount(kWaiting, 2));
        Lines lines = {kWaiting};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        lines.push_back(kWaiting);
        EXPECT_EQ(LinesOf(rig.log, "AcceptRtmpConnectionThread"), lines);
        EXPECT_EQ(LinesOf(rig.log, "CreateNewRtmpClient"), row.others);
        EXPECT_EQ(OpenDescriptors(), before + 1); // the listener

        const int served = Listening::connectTo(rig.server->RtmpSocket);
        EXPECT_TRUE(rig.log.waitFor("ServeRtmpClient: Serve RTMP client thread created"));
        ::close(served);
        EXPECT_TRUE(rig.log.waitFor("ServeRtmpClient: Exiting ServeRtmpClient thread"));
        EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
        ::close(static_cast<int>(before)); // the descriptor that the library leaves open on a read error
    }
}

TEST(AcceptFailing, AClientWithoutAThreadIsClosedAndItsRecordStaysAllocated)
{
    Listening rig;
    ASSERT_TRUE(rig.log.waitFor(kWaiting));
    {
        const FailingCallElsewhere failing(Call::ThreadCreate);
        const int fd = Listening::connectTo(rig.server->RtmpSocket);
        EXPECT_TRUE(PeerClosed(fd));
        EXPECT_TRUE(failing.cameToIt());
        ::close(fd);
    }
    ASSERT_TRUE(rig.log.waitForCount(kWaiting, 2));
    const Lines lines = rig.log.lines();
    const Lines expected = {
        kWaiting,
        "3 ERROR: AcceptRtmpConnectionThread: Cannot create serve rtmp client thread",
        "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
        "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
        "3 ERROR: RemoveRecvPkt: No Rtmp Recv stream packet list",
        "3 ERROR: DestroyRtmpClient: Cannot remove packets in receive packet list",
        "3 ERROR: AcceptRtmpConnectionThread: Destroying rtmp client failed",
        kWaiting,
    };
    EXPECT_EQ(Lines(lines.end() - static_cast<std::ptrdiff_t>(expected.size()), lines.end()), expected);
    FreeClientRecord(static_cast<RtmpClient *>(calls::argumentOfTheUnstartedThread()));
    EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
}

TEST(AcceptFailing, ATunnelConnectionThatCannotBeTakenIsClosed)
{
    const struct {
        Call call;
        const char *line;
    } rows[] = {
        {Call::GetPeerName, "3 ERROR: AcceptRtmptConnectionThread: Can not get the IP address of client"},
        {Call::MutexInit, "3 ERROR: AcceptRtmptConnectionThread: New Rtmp client creation failed"},
        {Call::ThreadCreate, "3 ERROR: AcceptRtmptConnectionThread: Destroying rtmp client failed"},
    };
    const std::string waiting =
        "6 INFO: AcceptRtmptConnectionThread: Waiting for RTMPT client connection on 8080";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        Listening rig(0, 8080);
        ASSERT_TRUE(rig.log.waitFor(waiting));
        const FailingCallElsewhere failing(row.call);
        const int fd = Listening::connectTo(rig.server->RtmptSocket);
        EXPECT_TRUE(PeerClosed(fd));
        EXPECT_TRUE(failing.cameToIt());
        ::close(fd);
        EXPECT_TRUE(rig.log.waitForCount(waiting, 2));
        EXPECT_EQ(rig.log.count(row.line), 1U);
        EXPECT_EQ(RtmpServerDestroy(rig.server), 0);
    }
}

// ------------------------------------------------------------------------------------------------- close

TEST(CloseSocketFailing, ShutdownAndCloseEachHaveTheirLine)
{
    CaptureLogger log;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const std::string first = std::to_string(ends[0]);
    const std::string second = std::to_string(ends[1]);
    {
        const FailingCall failing(Call::Shutdown);
        EXPECT_EQ(RtmpCloseSocket(log.get(), &ends[0]), 0);
    }
    {
        const FailingCall failing(Call::Close);
        EXPECT_EQ(RtmpCloseSocket(log.get(), &ends[1]), -1);
    }
    EXPECT_EQ(log.lines(),
              (Lines{"3 ERROR: RtmpCloseSocket: Shutdown of " + first +
                         " failed: Transport endpoint is not connected",
                     "3 ERROR: RtmpCloseSocket: Close of " + second + " failed: Input/output error"}));
}
