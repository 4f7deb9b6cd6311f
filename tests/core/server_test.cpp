#include "rtmpcast/rtmpcast.h"
#include "support/capture_logger.h"
#include "support/host_fakes.h"
#include "support/produced.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

// A listening socket on a port that the system chose; the port stays taken while this lives.
struct TakenPort {
    int fd;
    uint16_t port;
    TakenPort() : fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
        listen(fd, 1);
        socklen_t length = sizeof address;
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~TakenPort()
    {
        close(fd);
    }
};

// A port that was free a moment ago; creation is retried when somebody else was faster.
RtmpServer *CreateOnFreePorts(CaptureLogger &log, const char *interfaceName, bool rtmpt, uint8_t dscp = 0)
{
    for (int attempt = 0; attempt < 50; attempt++) {
        uint16_t first;
        uint16_t second;
        {
            TakenPort a;
            TakenPort b;
            first = a.port;
            second = b.port;
        }
        log.clear();
        RtmpServer *server =
            RtmpServerCreate(log.get(), interfaceName, first, rtmpt ? second : 0, dscp, 4096, nullptr);
        if (server != nullptr) {
            return server;
        }
    }
    return nullptr;
}

int TosOf(int fd)
{
    int tos = 0;
    socklen_t length = sizeof tos;
    getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &length);
    return tos;
}

std::string BoundAddress(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return inet_ntoa(address.sin_addr);
}

// A thread of the host in the server's spare slot. It waits for what never comes, or for nothing.
struct SpareThread {
    sem_t never;
    bool waits;
    std::atomic<bool> ended{false};

    static void *run(void *argument)
    {
        struct Ending {
            SpareThread *thread;
            ~Ending()
            {
                thread->ended = true;
            }
        } ending{static_cast<SpareThread *>(argument)};
        while (ending.thread->waits && sem_wait(&ending.thread->never) != 0) {
        }
        return nullptr;
    }
};

} // namespace

TEST(Server, BothSpellingsOfAnyBindToAllAddresses)
{
    for (const char *name : {"ANY", "any"}) {
        CaptureLogger log;
        RtmpServer *server = CreateOnFreePorts(log, name, false);
        ASSERT_NE(server, nullptr);
        EXPECT_STREQ(server->IpAddress, "0.0.0.0");
        EXPECT_EQ(BoundAddress(server->RtmpSocket), "0.0.0.0");
        EXPECT_EQ(log.lines().at(0), "6 INFO: RtmpServerCreate: Server IP address 0.0.0.0");
        EXPECT_EQ(RtmpServerDestroy(server), 0);
    }
}

TEST(Server, AnotherSpellingOfAnyIsAnInterfaceName)
{
    CaptureLogger log;
    int err = 0;
    EXPECT_EQ(RtmpServerCreate(log.get(), "Any", 0, 0, 0, 0, &err), nullptr);
    EXPECT_EQ(err, -73);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: RtmpGetIP: Failed in ioctl",
                                  "3 ERROR: RtmpServerCreate: Cannot get IP address of interface Any"}));
}

TEST(Server, AnInterfaceNameBindsToItsAddress)
{
    CaptureLogger log;
    RtmpServer *server = CreateOnFreePorts(log, "lo", true);
    ASSERT_NE(server, nullptr);
    EXPECT_STREQ(server->IpAddress, "127.0.0.1");
    EXPECT_EQ(BoundAddress(server->RtmpSocket), "127.0.0.1");
    EXPECT_EQ(BoundAddress(server->RtmptSocket), "127.0.0.1");
    EXPECT_EQ(RtmpServerDestroy(server), 0);
    EXPECT_TRUE(log.contains("6 INFO: AcceptRtmpConnectionThread: Exiting RTMP connection accept thread"));
    EXPECT_TRUE(log.contains("6 INFO: AcceptRtmptConnectionThread: Exiting RTMPT connection accept thread"));
}

TEST(Server, NoInterfaceNameIsAnInvalidArgument)
{
    CaptureLogger log;
    int err = 0;
    EXPECT_EQ(RtmpServerCreate(log.get(), nullptr, 0, 0, 0, 0, &err), nullptr);
    EXPECT_EQ(err, -99);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpServerCreate: Invalid input arguments"});
}

TEST(Server, ANewServerHasTheProtocolsChunkSizeAndItsBandwidths)
{
    CaptureLogger log;
    RtmpServer *server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 5000, nullptr);
    EXPECT_EQ(server->ChunkSize, 128U);
    EXPECT_EQ(server->ConfiguredChunkSize, 5000);
    EXPECT_EQ(server->BaseBandwidth, 6000000U);
    EXPECT_EQ(server->PeerBandwidth, 6500000U);
    EXPECT_EQ(RtmpServerDestroy(server), 0);
}

TEST(Server, TheCodePointStandsInTheUpperSixBitsAndLosesWhatDoesNotFit)
{
    const struct {
        uint8_t dscp;
        int tos;
    } rows[] = {{46, 184}, {0, 0}, {63, 252}, {64, 0}, {110, 184}};
    for (const auto &row : rows) {
        CaptureLogger log;
        RtmpServer *server = CreateOnFreePorts(log, "lo", true, row.dscp);
        ASSERT_NE(server, nullptr);
        EXPECT_EQ(TosOf(server->RtmpSocket), row.tos) << int(row.dscp);
        EXPECT_EQ(TosOf(server->RtmptSocket), row.tos) << int(row.dscp);
        EXPECT_EQ(RtmpServerDestroy(server), 0);
    }
}

TEST(Server, PortsOfZeroOpenNoListener)
{
    CaptureLogger log;
    RtmpServer *server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 0, nullptr);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->RtmpSocket, -1);
    EXPECT_EQ(server->RtmptSocket, -1);
    EXPECT_EQ(RtmpServerDestroy(server), 0);
    server = CreateOnFreePorts(log, "lo", false);
    EXPECT_NE(server->RtmpSocket, -1);
    EXPECT_EQ(server->RtmptSocket, -1);
    EXPECT_EQ(RtmpServerDestroy(server), 0);
}

TEST(Server, ATakenRtmpPortFailsToBind)
{
    CaptureLogger log;
    TakenPort taken;
    int err = 0;
    EXPECT_EQ(RtmpServerCreate(log.get(), "ANY", taken.port, 0, 0, 0, &err), nullptr);
    EXPECT_EQ(err, -86);
    EXPECT_EQ(log.lines().back(), "3 ERROR: RtmpServerCreate: Cannot bind RTMP Server Socket to port " +
                                      std::to_string(taken.port));
}

TEST(Server, ATakenRtmptPortClosesTheRtmpListenerAgain)
{
    CaptureLogger log;
    TakenPort taken;
    uint16_t port;
    int err = 0;
    do {
        TakenPort other;
        port = other.port;
        close(other.fd);
        other.fd = -1;
        log.clear();
        EXPECT_EQ(RtmpServerCreate(log.get(), "ANY", port, taken.port, 0, 0, &err), nullptr);
    } while (log.contains("RTMP Server Socket")); // somebody else was faster
    EXPECT_EQ(err, -86);
    EXPECT_TRUE(log.contains("3 ERROR: RtmpServerCreate: Cannot bind RTMPT Server Socket to port " +
                             std::to_string(taken.port)));
    EXPECT_TRUE(log.contains("6 INFO: AcceptRtmpConnectionThread: Exiting RTMP connection accept thread"));
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_NE(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(fd);
}

TEST(Server, DestroyingNoServerIsAnInvalidArgument)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(RtmpServerDestroy(nullptr), -99);
    EXPECT_EQ(produced::CapturedStdout(), "RTMPWriter: ERROR: RtmpServerDestroy: Invalid input arguments\n");
}

TEST(Server, EveryAcceptIsAnnouncedInBothLogs)
{
    HostFakes::get().reset();
    CaptureLogger log;
    RtmpServer *server = CreateOnFreePorts(log, "lo", false);
    ASSERT_NE(server, nullptr);
    const std::string port = std::to_string(server->RtmpPort);
    const std::string line =
        "6 INFO: AcceptRtmpConnectionThread: Waiting for RTMP client connection on " + port;
    EXPECT_TRUE(log.waitFor(line));
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(server->RtmpPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_TRUE(log.waitForCount(line, 2));
    close(fd);
    EXPECT_TRUE(log.waitFor("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"));
    EXPECT_EQ(RtmpServerDestroy(server), 0);
    const std::string syslogLine = "RTMP|RTMP server started on port " + port + "\n";
    size_t announced = 0;
    for (const std::string &each : HostFakes::get().syslog()) {
        announced += each == syslogLine;
    }
    EXPECT_EQ(announced, 2U);
}

TEST(Server, SessionsThatGoWithTheServerSpeakOnStandardOutput)
{
    CaptureLogger log;
    RtmpServer *server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 0, nullptr);
    RtmpSession *session = RtmpSessionCreate(server, "live", nullptr);
    RtmpClient *client = CreateNewRtmpClient(server, 0, -1, "1.2.3.4", 0, nullptr);
    ASSERT_EQ(AddClientInSession(session, client), 0);
    RtmpRecvPkt *received = static_cast<RtmpRecvPkt *>(calloc(1, sizeof(RtmpRecvPkt)));
    RtmpSendPkt *sent = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    ASSERT_EQ(AddRecvPkt(client, received), 0);
    ASSERT_EQ(AddSendPkt(client, sent), 0);
    log.clear();
    testing::internal::CaptureStdout();
    // No thread serves this client: it leaves when its owner takes it out.
    std::thread owner([&] {
        WaitUntil([&] { return __atomic_load_n(&client->Awaited, __ATOMIC_ACQUIRE) != 0; });
        DestroyRtmpClient(client);
    });
    EXPECT_EQ(RtmpServerDestroy(server), 0);
    owner.join();
    const std::string out = produced::CapturedStdout();
    EXPECT_EQ(out.find("RTMPWriter: INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread\n"), 0U);
    EXPECT_EQ(out.find("Waiting for Thread Completion"), std::string::npos); // there is no thread
    EXPECT_TRUE(log.lines().empty());
}

TEST(Server, AThreadInTheSpareSlotIsJoinedAndCancelledWhereThatIsAskedFor)
{
    for (const bool cancel : {false, true}) {
        CaptureLogger log;
        RtmpServer *server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 0, nullptr);
        ASSERT_NE(server, nullptr);
        SpareThread spare;
        sem_init(&spare.never, 0, 0);
        spare.waits = cancel;
        ASSERT_EQ(pthread_create(&server->AuxThread, nullptr, SpareThread::run, &spare), 0);
        server->AuxThreadRunning = 1;
        server->AuxThreadCancel = cancel ? 1 : 0;
        EXPECT_EQ(RtmpServerDestroy(server), 0);
        EXPECT_TRUE(spare.ended) << "cancelled: " << cancel;
        sem_destroy(&spare.never);
    }
}
