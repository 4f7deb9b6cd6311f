// connect and createStream: their replies as bytes, and who is refused.
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace amf0;
using namespace wire;

namespace {

using Lines = std::vector<std::string>;

void ExpectControlMessages(const std::vector<Message> &replies, const std::string &chunkSize)
{
    ASSERT_GE(replies.size(), 4U);
    EXPECT_TRUE(Matches(replies[0].raw, "02 ?????? 000004 05 00000000 00632ea0"));
    EXPECT_TRUE(Matches(replies[1].raw, "42 ?????? 000005 06 00632ea0 02"));
    EXPECT_TRUE(Matches(replies[2].raw, "42 ?????? 000006 04 0000 00000000"));
    EXPECT_TRUE(Matches(replies[3].raw, "42 ?????? 000004 01 " + chunkSize));
}

void ExpectRisingTimes(const std::vector<Message> &replies, uint64_t elapsed)
{
    uint32_t last = 0;
    for (const Message &reply : replies) {
        EXPECT_GE(reply.timestamp, last);
        EXPECT_LE(reply.timestamp, elapsed);
        last = reply.timestamp;
    }
}

// The end of a client that was refused before anything was sent to it.
Lines RefusedEnd()
{
    return {"6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 2",
            "3 ERROR: RtmpReadBytes: Unable to read buffer: 9 (Bad file descriptor)",
            "3 ERROR: ReadRtmpMessage: Reading bytes failed",
            "3 ERROR: ServeRtmpClient: Error occured while reading RTMP message",
            "6 INFO: DestroyRtmpClient: Freeing client ip address and session name",
            "6 INFO: DestroyRtmpClient: Destroying Recv packet list lock",
            "6 INFO: DestroyRtmpClient: RtmpMutexDestroy (&rtmpClient->RecvStrmListLock)",
            "6 INFO: DestroyRtmpClient: Freeing send stream packet list",
            "3 ERROR: RemoveSendPkt: No Rtmp Send stream packet list",
            "3 ERROR: DestroyRtmpClient: Cannot remove packets in send packet list",
            "3 ERROR: ServeRtmpClient: Destroying rtmp client failed",
            "3 ERROR: ServeRtmpClient: Exiting ServeRtmpClient thread"};
}

Bytes ConnectWith(const std::vector<Member> &members)
{
    return Values({String("connect"), Number(1), Object(members)}).bytes;
}

} // namespace

TEST(WireConnect, IsAnsweredBySixMessages)
{
    TestServer server(4096);
    const uint64_t start = MonotonicMs();
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(ConnectCommand());
    const std::vector<Message> replies = peer.read(6);
    ExpectControlMessages(replies, "00001000");
    EXPECT_TRUE(Sent(replies[4], "03" + Fields(ConnectResultBody(), "14") + "00000000", ConnectResultBody()));
    EXPECT_TRUE(Matches(replies[5].raw, "43 ?????? 000015 14"
                                        "02 0008 'onBWDone' 00 0000000000000000 05"));
    ExpectRisingTimes(replies, MonotonicMs() - start + 1);
}

TEST(WireConnect, LongRepliesAreCutWithASeparatorInFrontOfEveryFurtherChunk)
{
    TestServer server(100);
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(ConnectCommand());
    const std::vector<Message> replies = peer.read(6);
    ExpectControlMessages(replies, "00000064");
    const Bytes body = ConnectResultBody();
    EXPECT_EQ(body.size(), 179U);
    EXPECT_TRUE(Matches(Slice(replies[4].raw, 0, 12), "03 ?????? 0000b3 14 00000000"));
    EXPECT_TRUE(
        Same(Slice(replies[4].raw, 12, 200), Join({Slice(body, 0, 100), {0xC3}, Slice(body, 100, 79)})));
}

// The size holds from the moment at which its message is made: a smaller one cuts its own announcement.
TEST(WireConnect, AChunkSizeBelowFourCutsItsOwnAnnouncement)
{
    TestServer server(3);
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(ConnectCommand());
    EXPECT_EQ(peer.read(3).size(), 3U);
    EXPECT_TRUE(Matches(peer.socket.receive(8 + 3 + 2), "42 ?????? 000004 01 000000 c2 03"));
}

TEST(WireConnect, AnUnconfiguredChunkSizeIsAnnouncedAs4096)
{
    for (const int configured : {0, -5}) {
        TestServer server(configured);
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.command(ConnectCommand());
        ExpectControlMessages(peer.read(6), "00001000");
        EXPECT_EQ(peer.chunks.chunkSize, 4096U);
    }
}

TEST(WireConnect, RepliesToTheCommandComeOnItsOwnChunkStream)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(ConnectCommand("mylive/stream", 7), 9);
    const std::vector<Message> replies = peer.read(6);
    Bytes body = ConnectResultBody();
    const Bytes seven = Hex("401C000000000000");
    std::copy(seven.begin(), seven.end(), body.begin() + 11);
    EXPECT_TRUE(Sent(replies[4], "09" + Fields(body, "14") + "00000000", body));
    EXPECT_EQ(replies[5].chunkStream, 9U);
}

TEST(WireConnect, BitFourOfAChunkStreamIdIsCleared)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(ConnectCommand(), 20);
    EXPECT_EQ(peer.read(6)[4].chunkStream, 4U);
}

TEST(WireConnect, ASecondConnectIsRefusedWithoutAReply)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.connected();
    peer.command(ConnectCommand());
    peer.command(CreateStreamCommand());
    EXPECT_TRUE(Matches(peer.read().raw, "43 ?????? 00001d 14"
                                         "02 0007 '_result' 00 4000000000000000 05 00 3FF0000000000000"));
    EXPECT_TRUE(server.log.contains("3 ERROR: ProcessSend: Client state is not handshake done"));
    EXPECT_EQ(server.log.count("3 ERROR: ServeRtmpClient: Error occured while validating RTMP message"), 1U);
}

TEST(WireConnect, WithoutATransactionIdGetsTheControlMessagesAndNoResult)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(String("connect").bytes);
    ExpectControlMessages(peer.read(4), "00001000");
    EXPECT_TRUE(server.log.waitFor("Error occured while validating RTMP message"));

    // The state has not changed: asked properly, everything comes again, and the first message differs from
    // the one kept for its chunk stream in its delta at most.
    peer.command(ConnectCommand());
    const uint8_t header = peer.socket.receive(1)[0];
    ASSERT_TRUE(header == 0x82 || header == 0xC2) << int{header};
    peer.socket.receive(header == 0x82 ? 3 : 0);
    EXPECT_TRUE(Matches(peer.socket.receive(4), "00632ea0"));
    EXPECT_TRUE(Matches(peer.socket.receive(8 + 5), "42 ?????? 000005 06 00632ea0 02"));
}

TEST(WireConnect, TheTransactionIdIsEchoedAsItCame)
{
    TestServer server;
    for (const double id : {0.0, 0.5, 1e300}) {
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.command(ConnectCommand("live", id));
        peer.read(6);
        peer.command(CreateStreamCommand(id));
        EXPECT_TRUE(
            Same(peer.read().payload, Values({String("_result"), Number(id), Null(), Number(1)}).bytes));
    }
}

struct Refusal {
    const char *name;
    Bytes command;
    const char *line; // as the parser of connect logs it
};

static std::ostream &operator<<(std::ostream &out, const Refusal &refusal)
{
    return out << refusal.name;
}

class WireConnectRefusals : public testing::TestWithParam<Refusal> {};

TEST_P(WireConnectRefusals, EndsTheConnectionWithoutAReply)
{
    TestServer server;
    server.log.clear();
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(GetParam().command);
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(server.log.waitFor("Exiting ServeRtmpClient thread"));
    Lines expected = {"6 INFO: ServeRtmpClient: Serve RTMP client thread created",
                      "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 0",
                      "6 INFO: PerformHandshake: Handshake done",
                      "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 2",
                      "6 INFO: ParseCmdMsgReq: Received Command message: CONNECT",
                      std::string("3 ERROR: ParseCmdMsgReq: ") + GetParam().line,
                      "3 ERROR: ParseRequestMsg: Cannot parse command request message",
                      "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message"};
    const Lines end = RefusedEnd();
    expected.insert(expected.end(), end.begin(), end.end());
    EXPECT_EQ(Transcript(server.log, {"AcceptRtmpConnectionThread"}), expected);
}

// A line that has no line end of its own is shown with a backslash.
INSTANTIATE_TEST_SUITE_P(
    Rows, WireConnectRefusals,
    testing::Values(
        Refusal{"AppWithoutLive", ConnectWith({{"app", String("vod")}}), "Unsupported app value"},
        Refusal{"AppNumber", ConnectWith({{"app", Number(1)}}), "Invalid app value"},
        Refusal{"PrefixOfApp", ConnectWith({{"ap", String("vod")}}), "Unsupported app value"},
        Refusal{"FlashVer", ConnectWith({{"flashVer", Number(1)}}), "Invalid flashVer value"},
        Refusal{"TcUrl", ConnectWith({{"tcUrl", Number(1)}}), "Invalid tcUrl value"},
        Refusal{"Fpad", ConnectWith({{"fpad", Number(1)}}), "Invalid fpad value"},
        Refusal{"AudioCodecsText", ConnectWith({{"audioCodecs", String("aac")}}),
                "Invalid audioCodecs value"},
        Refusal{"NoAac", ConnectWith({{"audioCodecs", Number(3071)}}), "Client does not support AAC audio\\"},
        Refusal{"VideoCodecsText", ConnectWith({{"videoCodecs", String("avc")}}),
                "Invalid videoCodecs value"},
        Refusal{"NoH264", ConnectWith({{"videoCodecs", Number(127)}}),
                "Client does not support H.264 video\\"},
        Refusal{"EncodingText", ConnectWith({{"objectEncoding", String("0")}}), "Invalid videoCodecs value"},
        Refusal{"Amf3", ConnectWith({{"objectEncoding", Number(3)}}), "Unsupported objectEncoding method"}),
    [](const testing::TestParamInfo<Refusal> &row) { return row.param.name; });

TEST(WireConnectAccepted, WhatIsNotAskedForDoesNotMatter)
{
    static const Bytes accepted[] = {
        ConnectWith({}),
        ConnectWith({{"audioCodecs", Number(4095)}, {"videoCodecs", Number(255)}}),
        ConnectWith({{"audioCodecs", Number(1024)}, {"swfUrl", Number(5)}, {"pageUrl", Boolean(true)}}),
        ConnectWith({{"swfUrl", String("x")}, {"capabilities", String("none")}}),
        Values({String("connect"), Number(1), Null()}).bytes,
    };
    TestServer server;
    for (const Bytes &command : accepted) {
        ScriptedPeer peer(server.port);
        peer.handshake();
        peer.command(command);
        EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody())) << ToHex(command);
    }
}

TEST(WireCreateStream, IsAnsweredWithStreamOne)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.connected();
    peer.command(CreateStreamCommand(2));
    EXPECT_TRUE(Matches(peer.read().raw, "43 ?????? 00001d 14"
                                         "02 0007 '_result' 00 4000000000000000 05 00 3FF0000000000000"));
}

TEST(WireCreateStream, BeforeConnectAndASecondTimeGetsNoAnswer)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(CreateStreamCommand());
    peer.command(ConnectCommand());
    EXPECT_EQ(peer.read().type, 5); // the first bytes are the answer to connect
    peer.read(5);
    peer.command(CreateStreamCommand());
    peer.read();
    peer.command(CreateStreamCommand(9));
    peer.command(PlayCommand("nobody"));
    EXPECT_EQ(peer.read().chunkStream, 4U); // and here the answer to play
    EXPECT_EQ(server.log.count("3 ERROR: ProcessSend: Client state is not connect done"), 2U);
}
