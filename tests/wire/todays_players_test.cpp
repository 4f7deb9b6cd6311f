// Players of today in front of a server that admits them, and the same ones in front of the default: what
// they send besides the few commands of a Flash player, "connect" of any kind, names with a query, and
// publishers.
#include "support/test_server.h"
#include "support/wire_replies.h"

#include <algorithm>
#include <random>

using namespace amf0;
using namespace wire;

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t kAdmit = RTMP_PLAYERS_COMMANDS | RTMP_PLAYERS_CONNECT | RTMP_PLAYERS_STREAM_NAME;

// A server with a session "cam", and the rules of its players.
struct Host : TestServer {
    explicit Host(uint32_t flags)
    {
        EXPECT_EQ(RtmpPlayerSettings(server, flags), 0);
        cam = session("cam");
    }
    RtmpSession *cam = nullptr;
};

Outgoing Command(const std::vector<Value> &values, uint32_t chunkStream = 3, uint32_t stream = 0)
{
    return {.payload = Values(values).bytes, .chunkStream = chunkStream, .stream = stream};
}

Outgoing PlayerEvent(uint16_t event, const Bytes &rest)
{
    return {.payload = Join({BigEndian(event, 2), rest}), .type = 4, .chunkStream = 2};
}

Outgoing SetBufferLength(uint32_t stream, uint32_t milliseconds)
{
    return PlayerEvent(3, Join({BigEndian(stream, 4), BigEndian(milliseconds, 4)}));
}

Outgoing WindowAckSize()
{
    return {.payload = BigEndian(2500000, 4), .type = 5, .chunkStream = 2};
}

// The answer of the default to what it does not know: it has no basic header, and two bytes too many.
void ExpectConnectFailed(ScriptedPeer &peer)
{
    const Bytes status = Status("error", "NetConnection.Connect.Failed", "Connection failed");
    EXPECT_TRUE(Matches(peer.socket.receive(13 + status.size()),
                        "?????? " + ToHex(BigEndian(status.size(), 3)) + "14 00000000 0000" + ToHex(status)));
    EXPECT_TRUE(peer.socket.ends());
}

void ExpectFrame(RtmpSession *session, ScriptedPeer &peer, uint64_t time = 1000)
{
    const Bytes frame = VideoFrame(64);
    EXPECT_EQ(SendVideo(session, frame, time), 0);
    EXPECT_TRUE(Same(Slice(peer.read().payload, 5, 64), frame));
}

// One message, and how many come back.
struct Turn {
    Outgoing message;
    size_t replies;
};

struct Client {
    const char *name;
    std::vector<Turn> turns;
    size_t refused; // the turn that the default refuses
};

std::ostream &operator<<(std::ostream &out, const Client &client)
{
    return out << client.name;
}

Value ConnectObject(const std::string &flashVer)
{
    return Object({{"app", String("live")},
                   {"flashVer", String(flashVer)},
                   {"tcUrl", String("rtmp://127.0.0.1/live")},
                   {"fpad", Boolean(false)},
                   {"capabilities", Number(15)},
                   {"audioCodecs", Number(4071)},
                   {"videoCodecs", Number(252)},
                   {"videoFunction", Number(1)}});
}

Turn Connect(const std::string &flashVer)
{
    return {Command({String("connect"), Number(1), ConnectObject(flashVer)}), 6};
}

Turn CreateStream(double transaction)
{
    return {Command({String("createStream"), Number(transaction), Null()}), 1};
}

// On the message stream that createStream gave.
Turn Play(const Value &start)
{
    return {Command({String("play"), Number(4), Null(), String("cam"), start}, 8, 1), 7};
}

// In the order in which each sends them.
const Client kClients[] = {
    {"Ffmpeg",
     {Connect("LNX 9,0,124,2"),
      {WindowAckSize(), 0},
      CreateStream(2),
      {Command({String("getStreamLength"), Number(3), Null(), String("cam")}, 8), 0},
      Play(Number(-2000)),
      {SetBufferLength(1, 3000), 0}},
     3},
    {"FfmpegLive",
     {Connect("LNX 9,0,124,2"),
      {WindowAckSize(), 0},
      CreateStream(2),
      {Command({String("FCSubscribe"), Number(3), Null(), String("cam")}), 0},
      Play(Number(-1000)),
      {SetBufferLength(1, 3000), 0}},
     3},
    {"RtmpdumpLive",
     {Connect("LNX 10,0,32,18"),
      {WindowAckSize(), 0},
      {SetBufferLength(0, 300), 0},
      CreateStream(2),
      {Command({String("FCSubscribe"), Number(3), Null(), String("cam")}), 0},
      {Command({String("_checkbw"), Number(4), Null()}), 0},
      Play(Number(-1000)),
      {SetBufferLength(1, 36000000), 0}},
     4},
    {"GStreamerRtmp2",
     {Connect("LNX 10,0,32,18"),
      {Command({String("releaseStream"), Number(2), Null(), String("cam")}), 0},
      CreateStream(3),
      {SetBufferLength(1, 3000), 0},
      Play(Number(-2000))},
     1},
    {"ARelayWithData",
     {{{.payload = BigEndian(4096, 4), .type = 5, .chunkStream = 2}, 0},
      Connect("LNX.11,1,102,55"),
      CreateStream(2),
      {{.payload =
            Values({String("@setDataFrame"), String("onMetaData"), EcmaArray({{"width", Number(1)}})}).bytes,
        .type = 18,
        .chunkStream = 6,
        .stream = 1},
       0},
      Play(Number(-2000)),
      {SetBufferLength(1, 1000), 0}},
     3},
};

} // namespace

class WireTodaysPlayers : public testing::TestWithParam<Client> {};

TEST_P(WireTodaysPlayers, PlayWhereTheyAreAdmitted)
{
    Host host(kAdmit);
    ScriptedPeer peer(host.port);
    peer.handshake();
    for (const Turn &turn : GetParam().turns) {
        peer.send(turn.message);
        peer.read(turn.replies);
    }
    EXPECT_TRUE(peer.settle().empty()) << "nothing else was answered";
    ExpectFrame(host.cam, peer);
    EXPECT_FALSE(host.log.contains("Unsupported message type received"));
}

TEST_P(WireTodaysPlayers, AreRefusedByDefaultAtTheFirstThingThatIsNotKnown)
{
    Host host(RTMP_PLAYERS_EXACT);
    ScriptedPeer peer(host.port);
    peer.handshake();
    for (size_t i = 0; i < GetParam().refused; ++i) {
        peer.send(GetParam().turns[i].message);
        peer.read(GetParam().turns[i].replies);
    }
    peer.send(GetParam().turns[GetParam().refused].message);
    ExpectConnectFailed(peer);
    EXPECT_TRUE(host.log.contains("3 ERROR: ServeRtmpClient: Unsupported message type received"));
}

INSTANTIATE_TEST_SUITE_P(Clients, WireTodaysPlayers, testing::ValuesIn(kClients),
                         [](const testing::TestParamInfo<Client> &row) { return row.param.name; });

TEST(WirePlayerSettings, ActOnConnectionsThatAreAcceptedAfterwards)
{
    Host host(RTMP_PLAYERS_EXACT);
    ScriptedPeer before(host.port);
    before.created();
    RtmpPlayerSettings(host.server, kAdmit);
    ScriptedPeer after(host.port);
    after.created();
    RtmpPlayerSettings(host.server, RTMP_PLAYERS_EXACT);
    for (ScriptedPeer *peer : {&before, &after}) {
        peer->send(Command({String("getStreamLength"), Number(3), Null(), String("cam")}, 8));
    }
    ExpectConnectFailed(before);
    after.command(PlayCommand("cam"));
    EXPECT_EQ(after.read(7)[6].type, 8);
    EXPECT_TRUE(after.settle().empty()); // plays only when the last of the seven has been written
    ExpectFrame(host.cam, after);
}

// -------------------------------------------------------------------------------------- what is ignored

struct Aside {
    const char *name;
    Outgoing message;
    const char *line; // what the log says about it, or null
};

static std::ostream &operator<<(std::ostream &out, const Aside &aside)
{
    return out << aside.name;
}

class WireIgnored : public testing::TestWithParam<Aside> {};

TEST_P(WireIgnored, AtAnyPointAndWithoutAnAnswer)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    const auto aside = [&] { peer.send(GetParam().message); };
    peer.handshake();
    aside();
    peer.command(ConnectCommand());
    EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody()));
    aside();
    peer.command(CreateStreamCommand());
    EXPECT_EQ(peer.read().payload.size(), 29U);
    aside();
    peer.command(PlayCommand("cam"));
    EXPECT_EQ(peer.read(7)[6].type, 8);
    aside();
    aside();
    EXPECT_TRUE(peer.settle().empty());
    ExpectFrame(host.cam, peer);
    if (GetParam().line != nullptr) {
        EXPECT_EQ(host.log.count(GetParam().line), 5U);
    }
    EXPECT_FALSE(host.log.contains("Unsupported message type received"));
}

TEST_P(WireIgnored, NotByOtherSettings)
{
    Host host(RTMP_PLAYERS_CONNECT | RTMP_PLAYERS_STREAM_NAME);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.send(GetParam().message);
    ExpectConnectFailed(peer);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, WireIgnored,
    testing::Values(
        Aside{"GetStreamLength", Command({String("getStreamLength"), Number(3), Null(), String("cam")}),
              "6 INFO: ParseCmdMsgReq: Unsupported command message: getStreamLength"},
        Aside{"FcSubscribe", Command({String("FCSubscribe"), Number(4), Null(), String("cam")}),
              "6 INFO: ParseCmdMsgReq: Unsupported command message: FCSubscribe"},
        Aside{"FcUnsubscribe", Command({String("FCUnsubscribe"), Number(4), Null(), String("cam")}),
              "6 INFO: ParseCmdMsgReq: Unsupported command message: FCUnsubscribe"},
        Aside{"CloseStream", Command({String("closeStream"), Number(0), Null()}, 8, 1),
              "6 INFO: ParseCmdMsgReq: Unsupported command message: closeStream"},
        Aside{"NoNameAtAll", Command({String("")}), "6 INFO: ParseCmdMsgReq: Unsupported command message: "},
        Aside{"ModuleInfo", Command({String("moduleInfo"), Number(3), Null()}),
              "6 INFO: ParseCmdMsgReq: \tNot really sure what to do with it"},
        Aside{"Data",
              {.payload = Values({String("@setDataFrame"), String("onMetaData")}).bytes,
               .type = 18,
               .chunkStream = 6},
              "6 INFO: ParseRequestMsg: Received Data message"},
        Aside{"SharedObject",
              {.payload = {1, 2}, .type = 19},
              "6 INFO: ParseRequestMsg: Received Shared object message"},
        Aside{"Amf3Data", {.payload = {0, 2}, .type = 15}, nullptr},
        Aside{"Amf3SharedObject", {.payload = {0, 2}, .type = 16}, nullptr},
        Aside{"Amf3Command", {.payload = {0, 2}, .type = 17}, nullptr},
        Aside{"StreamEof", PlayerEvent(1, BigEndian(1, 4)),
              "6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM EOF"},
        Aside{"StreamDry", PlayerEvent(2, BigEndian(1, 4)),
              "6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM DRY"},
        Aside{"StreamIsRecorded", PlayerEvent(4, BigEndian(1, 4)),
              "6 INFO: ParseUsrCtrlMsgReq: Received User control message: STREAM IS RECORDED"}),
    [](const testing::TestParamInfo<Aside> &row) { return row.param.name; });

TEST(WireIgnoredCommand, LeavesItsOneLineInTheLog)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    peer.connected();
    ASSERT_TRUE(host.log.waitForCount("Serving RTMP Client", 3));
    host.log.clear();
    peer.send(Command({String("FCSubscribe"), Number(4), Null(), String("cam")}));
    ASSERT_TRUE(host.log.waitFor("Serving RTMP Client"));
    EXPECT_EQ(Transcript(host.log, {"AcceptRtmpConnectionThread"}),
              (Lines{"6 INFO: ParseCmdMsgReq: Unsupported command message: FCSubscribe",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 4"}));
}

TEST(WireIgnoredCommand, MustDecode)
{
    Host host(kAdmit);
    ScriptedPeer peer(host.port);
    peer.connected();
    peer.command(String("getStreamLength").bytes + Hex("00 40")); // a number without its bytes
    EXPECT_TRUE(peer.socket.ends());
    EXPECT_TRUE(host.log.contains("3 ERROR: ParseCmdMsgReq: Cannot decode AMF buffer"));
}

class WireMedia : public testing::TestWithParam<int> {};

// Also by RTMP 1.0 a player sends none; whoever does wants to publish, and would wait for ever.
TEST_P(WireMedia, AndTypesWithoutANameAreRefusedFromTodaysPlayersToo)
{
    Host host(kAdmit);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.send({.payload = {1, 2}, .type = static_cast<uint8_t>(GetParam()), .chunkStream = 6, .stream = 1});
    ExpectConnectFailed(peer);
    EXPECT_TRUE(host.log.contains("3 ERROR: ServeRtmpClient: Unsupported message type received"));
}

INSTANTIATE_TEST_SUITE_P(Types, WireMedia, testing::Values(8, 9, 22, 0, 7, 10, 14, 21, 255));

TEST(WireOddStates, OnlyLogForTodaysPlayersToo)
{
    Host host(kAdmit);
    ScriptedPeer peer(host.port);
    peer.connected();
    peer.command(DeleteStreamCommand());
    peer.command(CreateStreamCommand());
    EXPECT_EQ(peer.read().payload.size(), 29U);
    peer.command(CreateStreamCommand(3));
    peer.command(PlayCommand("cam"));
    peer.read(7);
    peer.command(CreateStreamCommand(5));
    EXPECT_TRUE(peer.settle().empty());
    ExpectFrame(host.cam, peer);
    EXPECT_EQ(host.log.count("3 ERROR: ProcessSend: Client state is not connect done"), 2U);
    EXPECT_EQ(host.log.count("3 ERROR: ProcessSend: Client state is not play/pause/createstream done"), 1U);
}

// ---------------------------------------------------------------------------------------------- publish

static Outgoing Publish(uint32_t stream = 1)
{
    return Command({String("publish"), Number(5), Null(), String("cam"), String("live")}, 4, stream);
}

static Bytes PublishDenied()
{
    return Status("error", "NetStream.Publish.Denied", "Publishing is not served");
}

TEST(WirePublish, IsDeniedOnItsStreamAndTheConnectionEnds)
{
    Host host(kAdmit);
    ScriptedPeer peer(host.port);
    peer.connected();
    peer.send(Command({String("releaseStream"), Number(2), Null(), String("cam")}));
    peer.send(Command({String("FCPublish"), Number(3), Null(), String("cam")}));
    peer.command(CreateStreamCommand(4));
    EXPECT_EQ(peer.read().payload.size(), 29U);
    ASSERT_TRUE(host.log.waitForCount("Serving RTMP Client", 6));
    host.log.clear();
    peer.send(Publish());
    EXPECT_TRUE(Sent(peer.read(), "03" + Fields(PublishDenied(), "14") + "01000000", PublishDenied()));
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(host.log.waitFor("Exiting ServeRtmpClient thread"));
    const Lines lines = Transcript(host.log, {"AcceptRtmpConnectionThread"});
    ASSERT_GE(lines.size(), 5U);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 5),
              (Lines{"6 INFO: ParseCmdMsgReq: Received Command message: PUBLISH",
                     "3 ERROR: ParseCmdMsgReq: Publishing is not served",
                     "3 ERROR: ParseRequestMsg: Cannot parse command request message",
                     "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message",
                     "6 INFO: ServeRtmpClient: Serving RTMP Client: <p> : 6"}));
}

TEST(WirePublish, IsDeniedOnWhateverStreamItComes)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.send(Publish(0x0102));
    EXPECT_TRUE(Sent(peer.read(), "03" + Fields(PublishDenied(), "14") + "02010000", PublishDenied()));
    EXPECT_TRUE(peer.socket.ends());
}

TEST(WirePublish, OfAPlayerIsDeniedToo)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.send(Publish());
    const Bytes denied = Status("error", "NetStream.Publish.Denied", "Publishing is not served", "cam", id);
    EXPECT_TRUE(Sent(peer.read(), "44" + Fields(denied, "14"), denied));
    EXPECT_TRUE(peer.socket.ends());
    EXPECT_TRUE(host.log.waitFor("Removed client; No. of connected clients : 0"));
}

TEST(WirePublish, IsUnknownByDefault)
{
    Host host(RTMP_PLAYERS_EXACT);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.send(Publish());
    ExpectConnectFailed(peer);
    EXPECT_TRUE(host.log.contains("6 INFO: ParseCmdMsgReq: Unsupported command message: publish"));
}

// ------------------------------------------------------------------------------------------------- seek

static Outgoing Seek(uint32_t stream)
{
    return Command({String("seek"), Number(0), Null(), Number(12000)}, 8, stream);
}

static Bytes Seeking(const std::string &id)
{
    return Status("status", "NetStream.Seek.Notify", "Seeking", "cam", id);
}

TEST(WireSeek, IsNotifiedAndFramesGoOn)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    ExpectFrame(host.cam, peer);
    peer.send(Seek(1));
    const Message notice = peer.read();
    EXPECT_TRUE(Sent(notice, "44" + Fields(Seeking(id), "14"), Seeking(id)));
    EXPECT_EQ(notice.stream, 1U) << "as the message before it on its chunk stream";
    ExpectFrame(host.cam, peer, 1040);
    EXPECT_TRUE(host.log.contains("6 INFO: ParseCmdMsgReq: Received Command message: SEEK"));
    EXPECT_FALSE(host.log.contains("Unsupported"));
}

TEST(WireSeek, IsNotifiedOnItsOwnStream)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.send(Seek(0x0A0B));
    EXPECT_TRUE(Sent(peer.read(), "04" + Fields(Seeking(id), "14") + "0b0a0000", Seeking(id)));
}

TEST(WireSeek, BehindAShortHeaderIsNotifiedOnThePlayersStream)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    Outgoing seek = Seek(1);
    peer.send(seek);
    peer.read();
    seek.headerType = 1;
    peer.send(seek);
    const Message notice = peer.read();
    EXPECT_EQ(notice.stream, 1U);
    EXPECT_TRUE(Same(notice.payload, Seeking(id)));
}

TEST(WireSeek, BehindAShortHeaderIsNotifiedOnTheStreamThatIsInheritedWhereThatIsRead)
{
    Host host(RTMP_PLAYERS_COMMANDS | RTMP_PLAYERS_CHUNKS_IN);
    ScriptedPeer peer(host.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    Outgoing seek = Seek(0x0A0B);
    peer.send(seek);
    peer.read();
    seek.headerType = 1;
    peer.send(seek);
    EXPECT_TRUE(Sent(peer.read(), "04" + Fields(Seeking(id), "14") + "0b0a0000", Seeking(id)));
}

TEST(WireSeek, WhilePausedLeavesThePlayerPaused)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.command(PauseCommand(true));
    peer.read();
    peer.send(Seek(1));
    EXPECT_TRUE(Same(peer.read().payload, Seeking(id)));
    EXPECT_EQ(SendVideo(host.cam, VideoFrame(20), 1000), 0);
    EXPECT_TRUE(peer.settle().empty());
}

TEST(WireSeek, BeforePlayIsNotAnsweredAndDoesNoHarm)
{
    Host host(RTMP_PLAYERS_COMMANDS);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.send(Seek(1));
    peer.command(PlayCommand("cam"));
    EXPECT_EQ(peer.read(7)[6].type, 8);
    EXPECT_TRUE(host.log.contains("3 ERROR: ProcessSend: Client state is not play done"));
}

TEST(WireSeek, IsUnknownByDefault)
{
    Host host(RTMP_PLAYERS_EXACT);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.send(Seek(1));
    ExpectConnectFailed(peer);
    EXPECT_TRUE(host.log.contains("6 INFO: ParseCmdMsgReq: Unsupported command message: seek"));
}

// ---------------------------------------------------------------------------------------------- connect

struct Property {
    const char *name;
    Member member;
    const char *line; // as the parser of connect logs it; a backslash: no line end of its own
};

static std::ostream &operator<<(std::ostream &out, const Property &property)
{
    return out << property.name;
}

static Bytes ConnectWith(const Member &member, const Value &transaction = Number(1))
{
    return Values({String("connect"), transaction, Object({member})}).bytes;
}

static const Property kWelcome[] = {
    {"AnyApplication", {"app", String("vod")}, "Unsupported app value"},
    {"ACutKey", {"ap", String("vod")}, "Unsupported app value"},
    {"TheEmptyKey", {"", Number(1)}, "Invalid app value"},
    {"FpadNumber", {"fpad", Number(0)}, "Invalid fpad value"},
    {"NoAac", {"audioCodecs", Number(3071)}, "Client does not support AAC audio\\"},
    {"NoH264", {"videoCodecs", Number(127)}, "Client does not support H.264 video\\"},
};

static const Property kRejected[] = {
    {"App", {"app", Number(1)}, "Invalid app value"},
    {"FlashVer", {"flashVer", Number(1)}, "Invalid flashVer value"},
    {"TcUrl", {"tcUrl", Null()}, "Invalid tcUrl value"},
    {"AudioCodecs", {"audioCodecs", String("aac")}, "Invalid audioCodecs value"},
    {"VideoCodecs", {"videoCodecs", String("avc")}, "Invalid videoCodecs value"},
    {"EncodingText", {"objectEncoding", String("0")}, "Invalid videoCodecs value"},
    {"Amf3", {"objectEncoding", Number(3)}, "Unsupported objectEncoding method"},
};

class WireConnectWelcome : public testing::TestWithParam<Property> {};

TEST_P(WireConnectWelcome, IsAnsweredLikeEveryOther)
{
    Host host(RTMP_PLAYERS_CONNECT);
    ScriptedPeer peer(host.port);
    peer.handshake();
    peer.command(ConnectWith(GetParam().member));
    EXPECT_TRUE(Same(peer.read(6)[4].payload, ConnectResultBody()));
    EXPECT_FALSE(host.log.contains("3 ERROR"));
}

TEST_P(WireConnectWelcome, IsNotByDefault)
{
    Host host(kAdmit & ~RTMP_PLAYERS_CONNECT);
    ScriptedPeer peer(host.port);
    peer.handshake();
    peer.command(ConnectWith(GetParam().member));
    EXPECT_TRUE(peer.socket.ends()) << "and nothing was answered";
    EXPECT_TRUE(host.log.contains(std::string("3 ERROR: ParseCmdMsgReq: ") + GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(Rows, WireConnectWelcome, testing::ValuesIn(kWelcome),
                         [](const testing::TestParamInfo<Property> &row) { return row.param.name; });

class WireConnectRejected : public testing::TestWithParam<Property> {};

TEST_P(WireConnectRejected, IsToldWhyAndTheConnectionEnds)
{
    Host host(RTMP_PLAYERS_CONNECT);
    ScriptedPeer peer(host.port);
    peer.handshake();
    peer.command(ConnectWith(GetParam().member, Number(7)), 9);
    const Bytes error = Values({String("_error"), Number(7), Null(),
                                Object({{"level", String("error")},
                                        {"code", String("NetConnection.Connect.Rejected")},
                                        {"description", String("The value of " + GetParam().member.first +
                                                               " is not accepted")}})})
                            .bytes;
    EXPECT_TRUE(Matches(peer.read().raw, "02 ?????? 000004 01 00000000 00001000")) << "how the answer is cut";
    EXPECT_TRUE(Sent(peer.read(), "09" + Fields(error, "14") + "00000000", error));
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(host.log.waitFor("Exiting ServeRtmpClient thread"));
    const Lines lines = Transcript(host.log, {"AcceptRtmpConnectionThread"});
    const Lines refused = {"6 INFO: ParseCmdMsgReq: Received Command message: CONNECT",
                           std::string("3 ERROR: ParseCmdMsgReq: ") + GetParam().line,
                           "3 ERROR: ParseRequestMsg: Cannot parse command request message",
                           "3 ERROR: ServeRtmpClient: Error occured while parsing RTMP message"};
    EXPECT_NE(std::search(lines.begin(), lines.end(), refused.begin(), refused.end()), lines.end());
}

INSTANTIATE_TEST_SUITE_P(Rows, WireConnectRejected, testing::ValuesIn(kRejected),
                         [](const testing::TestParamInfo<Property> &row) { return row.param.name; });

TEST(WireConnectRejection, IsCutAsThePeerHasBeenToldAlsoBehindAnotherPlayer)
{
    Host host(RTMP_PLAYERS_CONNECT | RTMP_PLAYERS_CHUNKS_OUT);
    ScriptedPeer other(host.port);
    other.chunks.standard = true;
    other.connected(); // from here on the server cuts at 4096
    ScriptedPeer peer(host.port);
    peer.chunks.standard = true;
    peer.handshake();
    peer.command(ConnectWith({"objectEncoding", Number(3)}, Number(7)));
    EXPECT_EQ(peer.read().type, 1);
    const Message error = peer.read();
    EXPECT_GT(error.payload.size(), 128U);
    EXPECT_EQ(error.type, 20);
    EXPECT_TRUE(peer.socket.ends());
}

TEST(WireConnectRejection, WithoutATransactionIdEndsWithoutAWordOnIt)
{
    for (const Value &transaction : {Null(), Number(-1), String("1")}) {
        Host host(RTMP_PLAYERS_CONNECT);
        ScriptedPeer peer(host.port);
        peer.handshake();
        peer.command(ConnectWith({"app", Number(1)}, transaction));
        EXPECT_EQ(peer.read().type, 1);
        EXPECT_TRUE(peer.socket.ends());
        EXPECT_TRUE(host.log.waitFor("3 ERROR: ServeClientForError: Cannot generate RTMP response message"));
    }
}

TEST(WireConnectWithoutATransactionId, IsAcceptedUpToItsResultAndMayBeAskedAgain)
{
    Host host(kAdmit);
    ScriptedPeer peer(host.port);
    peer.handshake();
    peer.command(ConnectWith({"app", String("vod")}, Null()));
    EXPECT_EQ(peer.read(4).size(), 4U);
    EXPECT_TRUE(host.log.waitFor("3 ERROR: ServeRtmpClient: Error occured while validating RTMP message"));
    EXPECT_FALSE(host.log.contains("Exiting ServeRtmpClient thread"));
}

// ------------------------------------------------------------------------------------------ stream names

TEST(WireStreamName, IsFoundWithoutQueryAndContainerAndNamedAsItWasGiven)
{
    for (const std::string name : {"cam?token=1", "mp4:cam", "flv:cam?a=b&c=d"}) {
        Host host(RTMP_PLAYERS_STREAM_NAME);
        ScriptedPeer peer(host.port);
        const std::vector<Message> sent = peer.playing(name);
        const std::string id = ClientIdOf(sent[0]);
        const Bytes reset = Status("status", "NetStream.Play.Reset", "Playing and resetting", name, id);
        EXPECT_TRUE(Sent(sent[0], "04" + Fields(reset, "14") + "01000000", reset));
        EXPECT_TRUE(
            Same(sent[2].payload, Status("status", "NetStream.Play.Start", "Started playing", name, id)));
        ExpectFrame(host.cam, peer);
    }
}

TEST(WireStreamName, ThatIsNotThereIsReportedOnceAndAsItWasGiven)
{
    Host host(RTMP_PLAYERS_STREAM_NAME);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.command(PlayCommand("mp4:nobody?x=1"));
    const std::vector<Message> sent = peer.read(2);
    EXPECT_TRUE(Same(sent[0].payload, Status("error", "NetStream.Play.StreamNotFound", "Stream not found",
                                             "mp4:nobody?x=1", ClientIdOf(sent[0]))));
    EXPECT_TRUE(peer.socket.ends());
    EXPECT_EQ(host.log.count("Stream name not found"), 1U);
}

TEST(WireStreamName, IsTheWholeOneByDefault)
{
    Host host(kAdmit & ~RTMP_PLAYERS_STREAM_NAME);
    ScriptedPeer peer(host.port);
    peer.created();
    peer.command(PlayCommand("cam?token=1"));
    const std::vector<Message> sent = peer.read(2);
    EXPECT_TRUE(Same(sent[0].payload, Status("error", "NetStream.Play.StreamNotFound", "Stream not found",
                                             "cam?token=1", ClientIdOf(sent[0]))));
    EXPECT_TRUE(peer.socket.ends());
}

// ------------------------------------------------------------------------------------------- bad input

TEST(WireTodaysBadInput, OneByteChangedHarmsNobodyElse)
{
    Host host(kAdmit);
    ScriptedPeer watcher(host.port);
    watcher.playing("cam");
    host.log.clear();
    std::vector<Outgoing> messages;
    for (const Client &client : kClients) {
        for (const Turn &turn : client.turns) {
            messages.push_back(turn.message);
        }
    }
    messages.insert(messages.end(), {Seek(1), Publish(), PlayerEvent(1, BigEndian(1, 4))});
    std::mt19937 generator(4711);
    constexpr size_t kPeers = 200;
    for (size_t i = 0; i < kPeers; ++i) {
        ScriptedPeer peer(host.port);
        peer.handshake();
        try {
            for (Outgoing message : messages) {
                message.payload[generator() % message.payload.size()] = static_cast<uint8_t>(generator());
                peer.send(message);
            }
            peer.socket.finish();
        } catch (const PeerError &) {
            // refused already
        }
    }
    EXPECT_TRUE(host.log.waitFor([&] {
        return host.log.count("Exiting ServeRtmpClient thread") +
                   host.log.count("Exiting Server RtmpClient thread") ==
               kPeers;
    }));
    ExpectFrame(host.cam, watcher);
}
