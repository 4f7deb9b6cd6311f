// Ends of TLS connections: peers that say so and peers that do not, and sessions that end.
#include "serve/serve.h"
#include "tls_fixture.h"

using namespace wire;

namespace {

const std::string kClosed = "6 INFO: RtmpReadBytes: Connection was closed by peer";
const std::string kReadFailed = "3 ERROR: ReadRtmpMessage: Reading bytes failed";

// What the accept thread does with its connections; the thread ends the client.
void StartServing(HandedClient &player)
{
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, player.giveAway()), 0);
}

// The lines of serving, without those of the accept thread.
Lines ServeLines(const TestServer &server)
{
    return Transcript(server.log, {"AcceptRtmpConnectionThread", "RtmpServerCreate", "RtmpSessionCreate"});
}

} // namespace

TEST(TlsLeaving, APeerThatSaysSoIsReportedToTheHost)
{
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        HostFakes::get().reset();
        TlsSetup setup;
        setup.version = version;
        TestServer server;
        HandedClient player(server, setup);
        server.log.clear();
        player.peer.socket.finish();
        EXPECT_EQ(HandleOne(player.client).message, nullptr);
        EXPECT_EQ(ServeLines(server), (Lines{kClosed, kReadFailed}));
        const std::pair<void *, int> error = {player.tls->handle(), 0};
        EXPECT_EQ(HostFakes::get().tlsErrors(), std::vector{error});
    }
}

TEST(TlsLeaving, InTheMiddleOfAMessageNothingOfItIsHandled)
{
    HostFakes::get().reset();
    TestServer server;
    HandedClient player(server, TlsSetup{});
    const Bytes chunks = Chunks({.payload = ConnectCommand()});
    player.peer.socket.send(Slice(chunks, 0, chunks.size() - 1));
    player.peer.socket.finish();
    server.log.clear();
    EXPECT_EQ(HandleOne(player.client).message, nullptr);
    EXPECT_EQ(ServeLines(server), (Lines{kClosed, kReadFailed}));
    const std::pair<void *, int> error = {player.tls->handle(), 0};
    EXPECT_EQ(HostFakes::get().tlsErrors(), std::vector{error});
}

// Without a closing notice libssl does not tell an end from an attack: the read fails, whatever it answers.
TEST(TlsLeaving, APeerThatVanishesFailsTheRead)
{
    TlsSetup setup;
    setup.leaves = PeerLeaves::WithoutNotice;
    TestServer server;
    HandedClient player(server, setup);
    server.log.clear();
    player.peer.socket.leave();
    EXPECT_EQ(HandleOne(player.client).message, nullptr);
    const Lines lines = ServeLines(server);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), kReadFailed);
    const bool asClosed = lines.front() == kClosed;
    EXPECT_TRUE(asClosed || lines.front().starts_with("3 ERROR: RtmpReadBytes: Unable to read buffer: "))
        << lines.front();
}

// Every piece fails, each with its line; the other players get the frame.
TEST(TlsLeaving, AFrameToAPeerThatVanishedFailsForItAlone)
{
    TlsSetup setup;
    setup.leaves = PeerLeaves::WithoutNotice;
    TestServer server(200);
    RtmpSession *session = server.session();
    HandedClient gone(server, setup);
    HandedClient other(server, TlsSetup{});
    gone.play("cam");
    other.play("cam");
    gone.peer.socket.leave();
    gone.tls->waitUntilPeerVanished();
    server.log.clear();
    const Bytes frame = VideoFrame(500); // chunks of 195, 200 and 105 bytes, and a tag
    EXPECT_EQ(SendVideo(session, frame, 1000), -1);
    EXPECT_TRUE(Same(other.peer.read().payload, Join({Hex("27 01 000000"), frame})));
    const Lines lines = ServeLines(server);
    ASSERT_EQ(lines.size(), 7U + 4);
    for (size_t i = 0; i < 7; i++) { // header, tag, three pieces, two separators
        EXPECT_TRUE(lines[i].starts_with("3 ERROR: RtmpSendBytes: Unable to send buffer: ")) << lines[i];
    }
    EXPECT_EQ(lines[0], "3 ERROR: RtmpSendBytes: Unable to send buffer: 32 (Broken pipe)");
    EXPECT_EQ(Lines(lines.begin() + 7, lines.end()),
              (Lines{"3 ERROR: SendMessage: SendMessage: Error occured while sending message",
                     "3 ERROR: SendMsgToConnectedClients: Sending data message to client {<p>} failed",
                     "3 ERROR: RtmpMonitorSendData: Sending message to connected clients failed",
                     "3 ERROR: RtmpSendData: Sending message to connected clients failed"}));
}

TEST(TlsLeaving, AServeThreadEndsWithItsPeer)
{
    HostFakes::get().reset();
    TestServer server;
    HandedClient player(server, TlsSetup{});
    void *handle = player.tls->handle();
    server.log.clear();
    StartServing(player);
    player.peer.connected();
    player.peer.socket.finish();
    ASSERT_TRUE(server.waitForClientsToEnd());
    EXPECT_EQ(ServeLines(server),
              (Lines{"6 INFO: ServeRtmpClient: Serve RTMP client thread created",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 0",
                     "6 INFO: PerformHandshake: Handshake done",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 2",
                     "6 INFO: ParseCmdMsgReq: Received Command message: CONNECT",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 4", kClosed, kReadFailed,
                     "3 ERROR: ServeRtmpClient: Error occured while reading RTMP message",
                     "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
                     "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
                     "6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
                     "6 INFO: DestroyRtmpClient: Freeing send stream packet list",
                     "6 INFO: DestroyRtmpClient: Destroying Send packet list lock",
                     "6 INFO: DestroyRtmpClient: Freeing RtmpClient pointer",
                     "3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"}));
    const std::pair<void *, int> error = {handle, 0};
    EXPECT_EQ(HostFakes::get().tlsErrors(), std::vector{error});
}

// The signal interrupts libssl's read as it does a plain one.
TEST(TlsLeaving, AnEndingSessionInterruptsTheRead)
{
    TestServer server;
    RtmpSession *session = server.session();
    HandedClient player(server, TlsSetup{});
    StartServing(player);
    player.peer.playing("cam");
    server.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    EXPECT_TRUE(server.waitForClientsToEnd());
    EXPECT_TRUE(
        server.log.contains("3 ERROR: RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)"));
    EXPECT_TRUE(server.log.contains("6 INFO: RtmpReadBytes: TCP recv function error in linux: Err :4"));
    EXPECT_TRUE(server.log.contains("6 INFO: DestroyRtmpClient: Freeing RtmpClient pointer"));
}
