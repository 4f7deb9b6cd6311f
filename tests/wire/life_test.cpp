// Whole lives of players as the log tells them.
#include "support/host_fakes.h"
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace wire;

namespace {

using Lines = std::vector<std::string>;

Lines operator+(Lines lines, const Lines &more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

const Lines kUntilCreated = {"6 INFO: ServeRtmpClient: Serve RTMP client thread created",
                             "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 0",
                             "6 INFO: PerformHandshake: Handshake done",
                             "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 2",
                             "6 INFO: ParseCmdMsgReq: Received Command message: CONNECT",
                             "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 4",
                             "6 INFO: ParseCmdMsgReq: Received Command message: CREATESTREAM",
                             "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 6"};

const Lines kPlay = {"6 INFO: ParseCmdMsgReq: Received Command message: PLAY",
                     "6 INFO: AddClientInSession: Adding client: No. of connected clients : 1",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 9"};

const Lines kTornDown = {"6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
                         "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
                         "6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
                         "6 INFO: DestroyRtmpClient: Freeing send stream packet list",
                         "6 INFO: DestroyRtmpClient: Destroying Send packet list lock"};

const Lines kLeftAlone = {"6 INFO: DestroyRtmpClient: Removing client pointer from client list",
                          "6 INFO: DestroyRtmpClient: Only one node is present in send pkt list",
                          "6 INFO: DestroyRtmpClient: Removed client; No. of connected clients : 0"};

const Lines kFreed = {"6 INFO: DestroyRtmpClient: Freeing RtmpClient pointer"};

const Lines kReadFailed = {"3 ERROR: ReadRtmpMessage: Reading bytes failed",
                           "3 ERROR: ServeRtmpClient: Error occured while reading RTMP message"};

const Lines kErrorExit = {"3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"};

} // namespace

TEST(WireLife, FromServerToDeleteStream)
{
    HostFakes::get().reset();
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    peer.read(7);
    peer.command(PauseCommand(true));
    peer.read();
    peer.chunks.restart();
    peer.command(PauseCommand(false));
    peer.read(7);
    peer.send({.payload = Hex("0003 00000001 00000BB8"), .type = 4, .chunkStream = 2});
    peer.command(DeleteStreamCommand());
    ASSERT_TRUE(server.log.waitFor("6 INFO: ServeRtmpClient: Exiting Server RtmpClient thread"));
    const Lines expected = Lines{"6 INFO: RtmpServerCreate: Server IP address 127.0.0.1",
                                 "6 INFO: RtmpSessionCreate: Session Created with name 'cam'",
                                 "6 INFO: RtmpMonitorInit: Initialized"} +
                           kUntilCreated + kPlay +
                           Lines{"6 INFO: ParseCmdMsgReq: Received Command message: PAUSE",
                                 "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 10",
                                 "6 INFO: ParseCmdMsgReq: Received Command message: PAUSE",
                                 "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 9",
                                 "6 INFO: ParseUsrCtrlMsgReq: Received User control message: SET BUFFER LEN",
                                 "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 9",
                                 "6 INFO: ParseCmdMsgReq: Received Command message: DELETESTREAM",
                                 "6 INFO: ProcessSend: Checking state of connected client",
                                 "6 INFO: Changing state to deletestream : 12",
                                 "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 12"} +
                           kTornDown + kLeftAlone + kFreed +
                           Lines{"6 INFO: ServeRtmpClient: Exiting Server RtmpClient thread"};
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}), expected);

    const std::string port = std::to_string(server.port);
    EXPECT_EQ(
        server.log.count("6 INFO: AcceptRtmpConnectionThread: Waiting for RTMP client connection on " + port),
        2U);
    Lines syslog = HostFakes::get().syslog();
    std::sort(syslog.begin(), syslog.end());
    EXPECT_EQ(syslog, (Lines{"RTMP|RTMP server started on port " + port + "\n",
                             "RTMP|RTMP server started on port " + port + "\n",
                             "RTMP|Session Created with name 'cam'\n"}));
}

TEST(WireLife, OfAPlayerThatLeaves)
{
    TestServer server;
    server.session("cam");
    server.log.clear();
    {
        ScriptedPeer peer(server.port);
        peer.created();
        peer.command(PlayCommand("cam"));
        peer.read(7);
        ASSERT_TRUE(server.log.waitFor(" : 9"));
    }
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}),
              kUntilCreated + kPlay + Lines{"6 INFO: RtmpReadBytes: Connection was closed by peer"} +
                  kReadFailed + kTornDown + kLeftAlone + kFreed + kErrorExit);
}

TEST(WireLife, OfAPlayerThatAskedForNothing)
{
    TestServer server;
    server.log.clear();
    {
        ScriptedPeer peer(server.port);
        peer.created();
        ASSERT_TRUE(server.log.waitFor(" : 6"));
    }
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}),
              kUntilCreated + Lines{"6 INFO: RtmpReadBytes: Connection was closed by peer"} + kReadFailed +
                  kTornDown + kFreed + kErrorExit);
}

TEST(WireLife, OfAPlayerWhoseStreamIsUnknown)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    peer.read(2);
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    const Lines expected = kUntilCreated +
                           Lines{"6 INFO: ParseCmdMsgReq: Received Command message: PLAY",
                                 "3 ERROR: ValidateRtmpStreamName: No session found",
                                 "3 ERROR: ParseCmdMsgReq: Stream name not found",
                                 "3 ERROR: ParseRequestMsg: Cannot parse command request message",
                                 "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message",
                                 "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 6",
                                 "3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)"} +
                           kReadFailed + kTornDown + kFreed + kErrorExit;
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}), expected);
}

TEST(WireLife, OfAPlayerThatSendsMedia)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.created();
    peer.send({.payload = {1}, .type = 9});
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    const Lines expected = kUntilCreated +
                           Lines{"6 INFO: ParseRequestMsg: Received Data message: Video",
                                 "3 ERROR: ServeRtmpClient: Unsupported message type received",
                                 "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 6",
                                 "3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)"} +
                           kReadFailed + kTornDown + kFreed + kErrorExit;
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}), expected);
}

// The signal may come twice, so the lines of the thread that destroys are told apart.
TEST(WireLife, OfAPlayerWhoseSessionIsDestroyed)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    peer.read(7);
    ASSERT_TRUE(server.log.waitFor(" : 9"));
    server.log.clear();
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    ASSERT_TRUE(server.waitForClientsToEnd());
    const Lines expected =
        Lines{"3 ERROR: RtmpReadBytes: Unable to read buffer: 4 (Interrupted system call)",
              "6 INFO: RtmpReadBytes: TCP recv function error in linux: Err :4 Retval: -1"} +
        kReadFailed + kTornDown + kLeftAlone + kFreed + kErrorExit;
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread", "RtmpSessionDestroy"}), expected);
    EXPECT_EQ(server.log.lines()[0], "6 INFO: RtmpSessionDestroy: Sending SIGUSR1 to Client Thread");
    EXPECT_TRUE(server.log.contains("6 INFO: RtmpSessionDestroy: Waiting for Thread Completion"));
}
