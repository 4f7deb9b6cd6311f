// play, pause and deleteStream: the reply sequences as bytes.
#include "support/test_server.h"
#include "support/wire_replies.h"

using namespace amf0;
using namespace wire;

namespace {

// The start sequence in front of which a stream begin has come: Start, sample access, metadata, headers.
void ExpectStart(const std::vector<Message> &sent, size_t from, const std::string &name,
                 const std::string &id, size_t chunkSize = 4096)
{
    const Bytes start = Status("status", "NetStream.Play.Start", "Started playing", name, id);
    const Bytes meta = MetaDataBody();
    ASSERT_EQ(sent.size(), from + 5);
    EXPECT_TRUE(Sent(sent[from], "05" + Fields(start, "14") + "01000000", start, chunkSize));
    EXPECT_TRUE(Sent(sent[from + 1], "45" + Fields(SampleAccessBody(), "12"), SampleAccessBody(), chunkSize));
    EXPECT_TRUE(Sent(sent[from + 2], "45" + Fields(meta, "12"), meta, chunkSize));
    EXPECT_TRUE(Matches(sent[from + 3].raw, "45 000000 00001d 09" + ToHex(AvcHeaderBody())));
    EXPECT_TRUE(Matches(sent[from + 4].raw, "06 ?????? 000004 08 01000000 af001210"));
    EXPECT_EQ(sent[from + 3].timestamp, sent[from + 2].timestamp);
}

void ExpectFirstPlay(const std::vector<Message> &sent, const std::string &name, size_t chunkSize = 4096)
{
    ASSERT_EQ(sent.size(), 7U);
    const std::string id = ClientIdOf(sent[0]);
    const Bytes reset = Status("status", "NetStream.Play.Reset", "Playing and resetting", name, id);
    EXPECT_TRUE(Sent(sent[0], "04" + Fields(reset, "14") + "01000000", reset, chunkSize));
    EXPECT_TRUE(Matches(sent[1].raw, "42 ?????? 000006 04 0000 00000001"));
    ExpectStart(sent, 2, name, id, chunkSize);
}

} // namespace

TEST(WirePlay, IsAnsweredBySevenMessages)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    const uint64_t before = MonotonicMs();
    peer.command(PlayCommand("cam"));
    const std::vector<Message> sent = peer.read(7);
    const uint64_t after = MonotonicMs();
    ExpectFirstPlay(sent, "cam");
    const std::string id = ClientIdOf(sent[0]);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    const uint32_t made = static_cast<uint32_t>(std::stoull(id, nullptr, 16));
    EXPECT_LE(made - static_cast<uint32_t>(before), static_cast<uint32_t>(after - before));
}

TEST(WirePlay, EveryReplyIsCutAtTheServersChunkSize)
{
    TestServer server(50);
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    ExpectFirstPlay(peer.read(7), "cam", 50);
}

TEST(WirePlay, ASequenceHeaderLongerThanAChunkIsSeparatedToo)
{
    TestServer server(20);
    server.session("cam");
    ScriptedPeer peer(server.port);
    const std::vector<Message> sent = peer.playing("cam");
    EXPECT_TRUE(Same(Slice(sent[5].raw, 8, 99),
                     Join({Slice(AvcHeaderBody(), 0, 20), {0xC5}, Slice(AvcHeaderBody(), 20, 9)})));
}

TEST(WirePlay, RequestsMayArriveByteByByte)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.handshake({.pieceSize = 1});
    for (const Bytes &command : {ConnectCommand(), CreateStreamCommand(), PlayCommand("cam")}) {
        peer.socket.sendInPieces(Chunks({.payload = command}), 1);
    }
    peer.read(7);
    ExpectFirstPlay(peer.read(7), "cam");
}

TEST(WirePlay, AudioAloneSharesTheChunkStreamOfTheStatus)
{
    TestServer server;
    const SessionSetup setup = {.video = false};
    server.session("radio", setup);
    ScriptedPeer peer(server.port);
    const std::vector<Message> sent = peer.playing("radio", 6);
    EXPECT_TRUE(Sent(sent[4], "45" + Fields(MetaDataBody(setup), "12"), MetaDataBody(setup)));
    EXPECT_TRUE(Matches(sent[5].raw, "45 000000 000004 08 af001210"));
}

TEST(WirePlay, VideoAloneSendsNoAudioHeader)
{
    TestServer server;
    const SessionSetup setup = {.audio = false};
    server.session("silent", setup);
    ScriptedPeer peer(server.port);
    const std::vector<Message> sent = peer.playing("silent", 6);
    EXPECT_TRUE(Sent(sent[4], "45" + Fields(MetaDataBody(setup), "12"), MetaDataBody(setup)));
    EXPECT_TRUE(Matches(sent[5].raw, "45 000000 00001d 09" + ToHex(AvcHeaderBody())));
}

TEST(WirePlay, FurtherArgumentsAreReadAndForgotten)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(
        Values({String("play"), Number(0), Null(), String("cam"), Number(-2000), Number(-1), Boolean(true)})
            .bytes);
    ExpectFirstPlay(peer.read(7), "cam");
}

TEST(WirePlay, AnUnknownNameIsAnsweredByNotFoundAndStopThenTheEnd)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("Cam"));
    const std::vector<Message> sent = peer.read(2);
    const std::string id = ClientIdOf(sent[0]);
    const Bytes missing = Status("error", "NetStream.Play.StreamNotFound", "Stream not found", "Cam", id);
    const Bytes stop = Status("status", "NetStream.Play.Stop", "Stopped playing", "Cam", id);
    EXPECT_TRUE(Sent(sent[0], "04" + Fields(missing, "14") + "01000000", missing));
    EXPECT_TRUE(Sent(sent[1], "44" + Fields(stop, "14"), stop));
    EXPECT_TRUE(peer.socket.ends());
    EXPECT_TRUE(server.log.contains("3 ERROR: ParseCmdMsgReq: Stream name not found"));
}

TEST(WirePlay, ASessionWithoutMediaIsNotFound)
{
    TestServer server;
    server.session("cam", {.media = false});
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    const std::vector<Message> sent = peer.read(2);
    EXPECT_TRUE(Same(sent[0].payload, Status("error", "NetStream.Play.StreamNotFound", "Stream not found",
                                             "cam", ClientIdOf(sent[0]))));
    EXPECT_TRUE(peer.socket.ends());
}

TEST(WirePlay, AnEmptyNameIsAName)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PlayCommand(""));
    const std::vector<Message> sent = peer.read(2);
    EXPECT_TRUE(Same(sent[0].payload, Status("error", "NetStream.Play.StreamNotFound", "Stream not found", "",
                                             ClientIdOf(sent[0]))));
}

TEST(WirePlay, WithoutANameGetsWhatNeedsNoSessionAndMayBeAskedAgain)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(Values({String("play"), Number(0), Null()}).bytes);
    const std::vector<Message> sent = peer.read(4);
    const Bytes reset = Status("status", "NetStream.Play.Reset", "Playing and resetting");
    const Bytes start = Status("status", "NetStream.Play.Start", "Started playing");
    EXPECT_TRUE(Sent(sent[0], "04" + Fields(reset, "14") + "01000000", reset));
    EXPECT_TRUE(Matches(sent[1].raw, "42 ?????? 000006 04 0000 00000001"));
    EXPECT_TRUE(Sent(sent[2], "05" + Fields(start, "14") + "01000000", start));
    EXPECT_TRUE(Sent(sent[3], "45" + Fields(SampleAccessBody(), "12"), SampleAccessBody()));
    ASSERT_TRUE(server.log.waitFor("Error occured while validating RTMP message"));
    EXPECT_TRUE(server.log.contains("3 ERROR: ProcessSend: Cannot start sending data"));

    peer.command(PlayCommand("cam")); // the state is what it was; the chunk streams have moved on
    const std::vector<Message> again = peer.read(7);
    EXPECT_EQ(again[0].chunkStream, 5U);
    EXPECT_EQ(again[2].chunkStream, 6U);
    EXPECT_TRUE(Matches(again[6].raw, "07 ?????? 000004 08 01000000 af001210"));
}

TEST(WirePlay, BeforeConnectJoinsTheSessionAndIsNotAnswered)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer peer(server.port);
    peer.handshake();
    peer.command(PlayCommand("cam"));
    ASSERT_TRUE(server.log.waitFor("Error occured while validating RTMP message"));
    EXPECT_TRUE(
        server.log.contains("6 INFO: AddClientInSession: Adding client: No. of connected clients : 1"));
    EXPECT_TRUE(
        server.log.contains("3 ERROR: ProcessSend: Client state is not createstream/pause/play done"));
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0); // somebody is connected, and nobody plays

    peer.command(ConnectCommand()); // and from now on the client has a stream name
    const std::vector<Message> replies = peer.read(6);
    EXPECT_EQ(replies[0].type, 5);
    const std::string text(replies[4].payload.begin(), replies[4].payload.end());
    EXPECT_NE(text.find("Connection succeeded cam"), std::string::npos);
    EXPECT_NE(text.find("clientid"), std::string::npos);
}

TEST(WirePlay, ARepeatedPlayStopsAndStartsWithFullHeaders)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer peer(server.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.command(PlayCommand("cam"));
    const std::vector<Message> stopped = peer.read(2);
    const Bytes stop = Status("status", "NetStream.Play.Stop", "Stopped playing", "cam", id);
    EXPECT_TRUE(Matches(stopped[0].raw, "42 ?????? 000006 04 0000 00000001"));
    EXPECT_TRUE(Sent(stopped[1], "45" + Fields(stop, "14"), stop));
    peer.chunks.restart();
    const std::vector<Message> sent = peer.read(6);
    EXPECT_TRUE(Matches(sent[0].raw, "02 ?????? 000006 04 00000000 0000 00000001"));
    ExpectStart(sent, 1, "cam", id);
    EXPECT_TRUE(peer.settle().empty());
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);
    EXPECT_EQ(peer.read().type, 9);
    EXPECT_EQ(server.log.count("Adding client"), 1U) << "it is a member already";
}

// Nothing is forgotten on the way out of a pause, and headers are shortened against the first message of each
// chunk stream, whatever came behind it: Start and the AAC header against themselves.
TEST(WirePlay, APausedPlayerMayPlayAgain)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer peer(server.port);
    const std::vector<Message> first = peer.playing("cam");
    peer.command(PauseCommand(true));
    peer.read();
    peer.command(PlayCommand("cam"));
    EXPECT_TRUE(Matches(peer.read().raw, "42 ?????? 000006 04 0000 00000001"));
    const uint8_t header = peer.socket.receive(1)[0];
    ASSERT_TRUE(header == 0x85 || header == 0xC5) << int{header}; // by the delta alone
    peer.socket.receive(header == 0x85 ? 3 : 0);
    EXPECT_TRUE(Same(peer.socket.receive(first[2].payload.size()), first[2].payload));
    EXPECT_TRUE(Sent(peer.read(), "45" + Fields(SampleAccessBody(), "12"), SampleAccessBody()));
    EXPECT_TRUE(Sent(peer.read(), "45" + Fields(MetaDataBody(), "12"), MetaDataBody()));
    EXPECT_TRUE(Matches(peer.read().raw, "45 000000 00001d 09" + ToHex(AvcHeaderBody())));
    EXPECT_TRUE(Matches(peer.read().raw, "c6 af001210"));
    EXPECT_TRUE(peer.settle().empty());
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);
    EXPECT_EQ(peer.read().type, 9);
}

TEST(WirePause, IsNotifiedAndKeepsFramesAwayUntilUnpause)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer peer(server.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.command(PauseCommand(true));
    const Bytes pausing = Status("status", "NetStream.Pause.Notify", "Pausing", "cam", id);
    EXPECT_TRUE(Sent(peer.read(), "44" + Fields(pausing, "14"), pausing));
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), 0);

    peer.chunks.restart();
    peer.command(PauseCommand(false));
    const std::vector<Message> sent = peer.read(7);
    const Bytes unpausing = Status("status", "NetStream.Unpause.Notify", "Unpausing", "cam", id);
    EXPECT_TRUE(Matches(sent[0].raw, "02 ?????? 000006 04 00000000 0000 00000001"));
    EXPECT_TRUE(Sent(sent[1], "04" + Fields(unpausing, "14") + "01000000", unpausing));
    ExpectStart(sent, 2, "cam", id);
    EXPECT_TRUE(peer.settle().empty());
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1040), 0);
    EXPECT_EQ(peer.read().type, 9);
}

TEST(WirePause, WithoutABooleanTheLastWishStands)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    const std::string id = ClientIdOf(peer.playing("cam")[0]);
    peer.command(Values({String("pause"), Number(0), Null()}).bytes); // none yet: pause
    EXPECT_TRUE(Same(peer.read().payload, Status("status", "NetStream.Pause.Notify", "Pausing", "cam", id)));
}

TEST(WirePause, BeforePlayIsRefusedWithoutAReply)
{
    TestServer server;
    server.session("cam");
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(PauseCommand(true));
    peer.command(PlayCommand("cam"));
    ExpectFirstPlay(peer.read(7), "cam");
    EXPECT_TRUE(server.log.contains("3 ERROR: ProcessSend: Client state is not play done"));
}

TEST(WireDeleteStream, EndsTheClientWithoutAWordAndLeavesTheDescriptorOpen)
{
    TestServer server;
    RtmpSession *session = server.session("cam");
    ScriptedPeer peer(server.port);
    peer.playing("cam");
    const size_t before = OpenDescriptors();
    peer.command(DeleteStreamCommand());
    ASSERT_TRUE(server.log.waitFor("6 INFO: ServeRtmpClient: Exiting Server RtmpClient thread"));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(peer.socket.ends(0));
    EXPECT_EQ(SendVideo(session, VideoFrame(20), 1000), RTMP_ERR_NO_CLIENT);
}

TEST(WireDeleteStream, BeforeCreateStreamIsRefused)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.connected();
    peer.command(DeleteStreamCommand());
    peer.command(CreateStreamCommand());
    EXPECT_EQ(peer.read().payload.size(), 29U);
    EXPECT_TRUE(
        server.log.contains("3 ERROR: ProcessSend: Client state is not play/pause/createstream done"));
}

TEST(WireDeleteStream, WithoutASessionEndsTheClientToo)
{
    TestServer server;
    ScriptedPeer peer(server.port);
    peer.created();
    peer.command(DeleteStreamCommand());
    EXPECT_TRUE(server.log.waitFor("6 INFO: ServeRtmpClient: Exiting Server RtmpClient thread"));
}
