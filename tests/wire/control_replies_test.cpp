// Protocol control and user control messages, and everything that is refused with connect-failed.
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace amf0;
using namespace wire;

namespace {

Outgoing UserControl(uint16_t event, const Bytes &rest)
{
    return {.payload = Join({BigEndian(event, 2), rest}), .type = 4, .chunkStream = 2};
}

// The reply has no basic header: timestamp:24 length:24 type:8 stream:32, then two zero bytes where the
// length was counted with one; continuations are marked with C0, chunk stream 0.
void ExpectConnectFailed(ScriptedPeer &peer, const Bytes &status, size_t chunkSize)
{
    EXPECT_TRUE(
        Matches(peer.socket.receive(13), "??????" + ToHex(BigEndian(status.size(), 3)) + "14 00000000 0000"));
    for (size_t at = 0; at < status.size(); at += chunkSize) {
        if (at > 0) {
            EXPECT_TRUE(Matches(peer.socket.receive(1), "c0"));
        }
        const Bytes piece = Slice(status, at, chunkSize);
        EXPECT_TRUE(Same(peer.socket.receive(piece.size()), piece));
    }
    EXPECT_TRUE(peer.socket.ends());
}

Bytes ConnectFailed()
{
    return Status("error", "NetConnection.Connect.Failed", "Connection failed");
}

} // namespace

struct Unwanted {
    const char *name;
    Outgoing message;
    const char *line; // what the log says about it, or empty
};

static std::ostream &operator<<(std::ostream &out, const Unwanted &unwanted)
{
    return out << unwanted.name;
}

class WireUnwanted : public testing::TestWithParam<Unwanted> {};

TEST_P(WireUnwanted, IsAnsweredWithConnectFailedAndTheEnd)
{
    TestServer server(128);
    ScriptedPeer peer(server.port);
    peer.created();
    peer.send(GetParam().message);
    EXPECT_EQ(ConnectFailed().size(), 110U);
    ExpectConnectFailed(peer, ConnectFailed(), 128);
    EXPECT_TRUE(server.log.contains(GetParam().line));
    EXPECT_TRUE(server.log.contains("3 ERROR: ServeRtmpClient: Unsupported message type received"));
    EXPECT_TRUE(server.log.waitFor("3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, WireUnwanted,
    testing::Values(
        Unwanted{"Audio", {{1, 2}, 8}, "6 INFO: ParseRequestMsg: Received Data message: Audio"},
        Unwanted{"Video", {{1, 2}, 9, 6}, "6 INFO: ParseRequestMsg: Received Data message: Video"},
        Unwanted{"Data", {{1, 2}, 18}, "6 INFO: ParseRequestMsg: Received Data message"},
        Unwanted{"SharedObject", {{1, 2}, 19}, "6 INFO: ParseRequestMsg: Received Shared object message"},
        Unwanted{"Aggregate", {{1, 2}, 22}, "6 INFO: ParseRequestMsg: Received AGGREGATE message"},
        Unwanted{"Amf3Command", {{1, 2}, 17}, ""}, Unwanted{"Amf3Data", {{1, 2}, 15}, ""},
        Unwanted{"Amf3SharedObject", {{1, 2}, 16}, ""}, Unwanted{"Type7", {{1, 2}, 7}, ""},
        Unwanted{"Type0", {{1, 2}, 0}, ""}, Unwanted{"Type255", {{1, 2}, 255}, ""},
        Unwanted{"UnknownCommand",
                 {Values({String("getStreamLength"), Number(3), Null(), String("cam")}).bytes},
                 "6 INFO: ParseCmdMsgReq: Unsupported command message: getStreamLength"},
        Unwanted{"OtherCase",
                 {Values({String("Connect"), Number(3)}).bytes},
                 "6 INFO: ParseCmdMsgReq: Unsupported command message: Connect"},
        Unwanted{"ModuleInfo",
                 {Values({String("moduleInfo"), Number(3), Null()}).bytes},
                 "6 INFO: ParseCmdMsgReq: \tNot really sure what to do with it"},
        Unwanted{"StreamEof", UserControl(1, BigEndian(1, 4)),
                 "6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM EOF"},
        Unwanted{"StreamDry", UserControl(2, BigEndian(1, 4)),
                 "6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM DRY"},
        Unwanted{"StreamIsRecorded", UserControl(4, BigEndian(1, 4)),
                 "6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM IS RECORDED"}),
    [](const testing::TestParamInfo<Unwanted> &row) { return row.param.name; });

TEST(WireConnectFailed, NamesTheStreamOfAPlayerAndIsCutIntoChunks)
{
    TestServer server(128);
    server.session("cam");
    ScriptedPeer peer(server.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.send({.payload = {1}, .type = 9});
    const Bytes status = Status("error", "NetConnection.Connect.Failed", "Connection failed", "cam", id);
    EXPECT_GT(status.size(), 128U);
    ExpectConnectFailed(peer, status, 128);
    EXPECT_TRUE(server.log.waitFor("Removed client; No. of connected clients : 0"));
}

TEST(WireConnectFailed, ComesBeforeConnectToo)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.send({.payload = {1}, .type = 8});
    ExpectConnectFailed(peer, ConnectFailed(), 128);
}

TEST(WireConnectFailed, ClosesTheDescriptorWhichIsNotUsedAgain)
{
    TestServer server;
    const size_t before = OpenDescriptors();
    ScriptedPeer peer(server.port);
    peer.created();
    peer.send({.payload = {1}, .type = 8});
    ExpectConnectFailed(peer, ConnectFailed(), 4096);
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    EXPECT_TRUE(
        server.log.contains("3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)"));
    EXPECT_EQ(OpenDescriptors(), before + 1) << "this side alone";
}

TEST(WireCommand, ThatDoesNotBeginWithAStringEndsTheConnectionWithoutAReply)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.connected();
    peer.command(Number(5).bytes);
    EXPECT_TRUE(peer.socket.ends());
    EXPECT_TRUE(server.log.contains("3 ERROR: ParseRequestMsg: Invalid AMF encoded buffer"));
}

TEST(WireUserControl, APingIsAnsweredWithAFullHeaderOnceThereIsASession)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.pingRequest(0x11111111); // nobody answers
    peer.command(PlayCommand("cam"));
    EXPECT_EQ(peer.read(7)[6].type, 8);
    peer.pingRequest(0x00012345);
    EXPECT_TRUE(Matches(peer.read().raw, "02 000000 000006 04 00000000 0007 00012345"));
}

TEST(WireUserControl, EventsThatAreHeardAndForgottenKeepTheConnection)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    peer.send(UserControl(3, Join({BigEndian(1, 4), BigEndian(3000, 4)}))); // set buffer length, accepted
    peer.send(UserControl(3, Join({BigEndian(1, 4), BigEndian(3000, 2)}))); // of 8 bytes
    EXPECT_TRUE(peer.settle().empty());
    peer.send(UserControl(0, BigEndian(1, 4))); // stream begin
    peer.send(UserControl(5, BigEndian(1, 4)));
    peer.send(UserControl(7, BigEndian(1, 4))); // ping response
    peer.send(UserControl(8, BigEndian(1, 4)));
    peer.send(UserControl(0xFFFF, {}));
    EXPECT_TRUE(peer.settle().empty());
    // The last five, and the ping after each of the three steps, are of no interest to the replies.
    EXPECT_TRUE(server.log.waitForCount("3 ERROR: ServeRtmpClient: Error occured while validating", 5 + 3));
    EXPECT_EQ(server.log.count("Received User control message: SET BUFFER LEN"), 2U);
}

TEST(WireUserControl, MissingBytesReadAsZero)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    peer.send({.payload = {0x00, 0x06, 0xAB}, .type = 4, .chunkStream = 2});
    EXPECT_TRUE(Matches(peer.read().payload, "0007 ab000000"));
}

TEST(WireProtocolControl, IsHeardWithoutAReply)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    peer.send({.payload = BigEndian(3, 4), .type = 2, .chunkStream = 2});
    peer.send({.payload = BigEndian(1000, 4), .type = 3, .chunkStream = 2});
    peer.send({.payload = BigEndian(2500000, 4), .type = 5, .chunkStream = 2});
    peer.send({.payload = Join({BigEndian(2500000, 4), {2}}), .type = 6, .chunkStream = 2});
    EXPECT_TRUE(peer.settle().empty());
    for (const char *line : {"6 INFO: ParseRequestMsg: Received Protocol control message: ABORT",
                             "6 INFO: ParseRequestMsg: Received Protocol control message: ACKNOWLEDGEMENT",
                             "6 INFO: ParseRequestMsg: Client window acknowledge size : 2500000",
                             "6 INFO: ParseRequestMsg: Client peer bandwidth : 2500000"}) {
        EXPECT_TRUE(server.log.contains(line)) << line;
    }
}

TEST(WireProtocolControl, SetChunkSizeHoldsForWhatFollows)
{
    TestServer server;
    server.session("cam");
    ASSERT_EQ(ConnectCommand().size(), 170U) << "no multiple of these";
    for (const uint32_t size : {3U, 64U, 129U, 65536U, 0x7FFFFFFFU}) {
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.setChunkSize(size);
        peer.command(ConnectCommand());
        EXPECT_EQ(peer.read(6).size(), 6U) << size;
    }
    EXPECT_TRUE(server.log.contains("6 INFO: ParseRequestMsg: Client to Server Chunk Size : 65536"));
}

TEST(WireProtocolControl, InterleavedChunkStreamsAreToldApart)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    const Bytes connect = Chunks({.payload = ConnectCommand(), .chunkStream = 3});
    ASSERT_GT(connect.size(), 12U + 128U);
    peer.socket.send(Slice(connect, 0, 12 + 128));
    peer.send({.payload = BigEndian(2500000, 4), .type = 5, .chunkStream = 2}); // completes first
    ASSERT_TRUE(server.log.waitFor("Client window acknowledge size : 2500000"));
    peer.socket.send(Slice(connect, 12 + 128, connect.size()));
    EXPECT_EQ(peer.read(6).size(), 6U);
}

TEST(WireProtocolControl, AMessageOfWholeChunksIsNeverCompleteAndEndsTheConnection)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    Bytes command = Values({String("createStream"), Number(1)}).bytes;
    const size_t filled = command.size() + 3;
    Append(command, String(std::string(256 - filled, 'x')).bytes);
    ASSERT_EQ(command.size(), 256U);
    peer.command(command);
    peer.socket.send(Hex("c3")); // asks for the nothing that is left
    peer.socket.finish();
    EXPECT_TRUE(server.log.waitFor("3 ERROR: ServeRtmpClient: Error occured while reading RTMP message"));
    EXPECT_FALSE(server.log.contains("CREATESTREAM"));
}
