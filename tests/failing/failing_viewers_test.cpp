// Connections of the steady road that cannot be taken, or whose viewer cannot be kept.
#include "amf/encode.h"
#include "amf/object.h"
#include "net/atomic.h"
#include "net/client_state.h"
#include "state/client.h"
#include "state/viewers.h"
#include "steady/line.h"
#include "steady/records.h"
#include "support/calls.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace wire;

namespace {

// The kit binds to a port of the system's choice.
uint16_t PortOfListener(const RtmpServer *server)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(server->RtmpSocket, reinterpret_cast<sockaddr *>(&address), &length), 0);
    return ntohs(address.sin_port);
}

// Its accept thread takes connections for the steady road: one has come.
struct SteadyFailing : testing::Test {
    SteadyFailing() : port(PortOfListener(server.server)), first(port)
    {
        const RtmpServiceLimits limits = {};
        EXPECT_EQ(RtmpServiceSettings(server.server, &limits), 0);
        first.connected();
    }
    ~SteadyFailing() override
    {
        calls::reset();
        HostFakes::get().reset();
    }
    TestServer server;
    const uint16_t port;
    ScriptedPeer first;
};

} // namespace

TEST_F(SteadyFailing, AConnectionWhoseAddressIsGoneIsClosedAndTheNextOneIsServed)
{
    {
        const FailingCallElsewhere failing(Call::GetPeerName);
        ByteSocket gone(port);
        EXPECT_TRUE(gone.ends());
        EXPECT_TRUE(failing.cameToIt());
    }
    EXPECT_EQ(server.log.count("6 INFO: AcceptSteadily: A client is gone already"), 1U);
    ScriptedPeer(port).connected();
}

TEST_F(SteadyFailing, AConnectionWithoutMemoryIsClosedWithTheLineOfItsPlaceAndTheNextOneIsServed)
{
    const char *const lines[] = {
        "3 ERROR: CreateNewRtmpClient: Cannot allocate memory to rtmpClient",
        "3 ERROR: CreateNewRtmpClient: Cannot allocate memory to rtmpClient->ClientIP",
        "3 ERROR: AcceptSteadily: Cannot allocate memory to the line of 127.0.0.1",
    };
    first.socket.leave(); // its thread would take memory, too
    ASSERT_TRUE(WaitUntil([&] {
        return server.log.contains(", leaves: ") || server.log.contains("Exiting ServeRtmpClient thread");
    }));
    int number = 0;
    for (const char *line : lines) {
        SCOPED_TRACE(line);
        server.log.clear();
        calls::failNext(Call::Calloc, ++number);
        ByteSocket refused(port);
        EXPECT_TRUE(refused.ends());
        EXPECT_TRUE(calls::hasFailed(Call::Calloc));
        EXPECT_EQ(server.log.count(line), 1U); // beside it the accept thread says that it waits
        EXPECT_EQ(server.log.count("3 ERROR"), 1U);
    }
    ScriptedPeer(port).connected();
}

// What a viewer says in "connect" is kept for the host.
TEST_F(SteadyFailing, AViewerWhoseTextsCannotBeKeptIsRefusedAndMayTryAgain)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    RtmpClient *client = CreateNewRtmpClient(server.server, RTMP_CONN_RTMP, ends[0], "127.0.0.1", 0, nullptr);
    ASSERT_EQ(NewLine(LoadShared(&server.server->Service), client, 0), 0);
    client->Line->IsAnnounced = 1;
    SetClientState(client, CLIENT_STATE_HANDSHAKE_DONE);
    AmfObject properties = {};
    ASSERT_EQ(WriteAmfString(server.server, &properties, "app", "live"), 0);
    ASSERT_EQ(WriteAmfString(server.server, &properties, "tcUrl", "rtmp://a/live"), 0);
    for (int number = 1; number <= 2; number++) {
        SCOPED_TRACE(number);
        server.log.clear();
        const FailingAllocation failing(number);
        EXPECT_EQ(AdmitConnect(client, &properties), -1);
        EXPECT_EQ(
            server.log.lines(),
            std::vector<std::string>{"3 ERROR: AdmitConnect: Cannot allocate memory to the viewer's texts"});
    }
    HostFakes::get().viewers.clear();
    EXPECT_EQ(AdmitConnect(client, &properties), 0);
    const std::vector<ViewerCall> told = HostFakes::get().viewers();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].app + " " + told[0].tcUrl, "live rtmp://a/live");
    FreeAmfObject(server.server, &properties, 1);
    EXPECT_EQ(DestroyRtmpClient(client), 0);
    close(ends[0]);
    close(ends[1]);
}
