// What the host is told of viewers on the steady road, and how it refuses them.
#include "rtmpcast/host.h"
#include "state/viewers.h"
#include "steady/records.h"
#include "steady_server.h"
#include "support/host_fakes.h"
#include "support/wait.h"
#include "support/wire_replies.h"

#include <arpa/inet.h>
#include <condition_variable>
#include <future>
#include <netinet/in.h>

using namespace amf0;
using namespace wire;

namespace {

constexpr size_t kHandshakeBytes = 1 + 1536 + 1536;
constexpr int32_t kRefused = 1; // any value but 0

// Reads by the book: frames of this road are cut in another way than the default's.
struct Watcher : ScriptedPeer {
    explicit Watcher(uint16_t port) : ScriptedPeer(port)
    {
        chunks.standard = true;
    }
};

uint16_t PortOf(const ByteSocket &socket)
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(socket.descriptor(), reinterpret_cast<struct sockaddr *>(&address), &length), 0);
    return ntohs(address.sin_port);
}

class SteadyViewers : public testing::Test {
  protected:
    SteadyViewers()
    {
        HostFakes::get().reset();
    }
    ~SteadyViewers() override
    {
        HostFakes::get().reset();
    }

    static void Refuse(const std::string &what)
    {
        HostFakes::get().viewer = [what](const ViewerCall &call) { return call.what == what ? kRefused : 0; };
    }

    static std::vector<ViewerCall> Calls()
    {
        return HostFakes::get().viewers();
    }

    // "accepted connects plays left"
    static std::string Order()
    {
        std::string order;
        for (const ViewerCall &call : Calls()) {
            order += (order.empty() ? "" : " ") + call.what;
        }
        return order;
    }

    static size_t Count(const std::string &what)
    {
        size_t count = 0;
        for (const ViewerCall &call : Calls()) {
            count += call.what == what;
        }
        return count;
    }

    static bool WaitForLeft(size_t count = 1)
    {
        return WaitUntil([count] { return Count("left") >= count; });
    }
};

} // namespace

// ------------------------------------------------------------------------------------------- what is told

TEST_F(SteadyViewers, AreToldOfFromTheAcceptToTheirLeaving)
{
    SteadyTestServer server;
    RtmpSession *session = server.session("cam");
    uint16_t port = 0;
    size_t received = 0;
    {
        Watcher peer(server.port);
        port = PortOf(peer.socket);
        peer.playing("cam");
        ASSERT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
        ASSERT_EQ(SendVideo(session, VideoFrame(5000, kInterNal), 1040), 0);
        ASSERT_EQ(SendVideo(session, VideoFrame(100, kInterNal), 1080), 0);
        peer.read(3);
        received = peer.socket.takeRecord().size();
        peer.socket.leave();
        ASSERT_TRUE(WaitForLeft());
    }
    ASSERT_EQ(Order(), "accepted connects plays left");
    const std::vector<ViewerCall> calls = Calls();
    for (const ViewerCall &call : calls) {
        EXPECT_EQ(call.viewer.Server, server.server) << call.what;
        EXPECT_EQ(call.viewer.Client, calls[0].viewer.Client) << call.what;
        EXPECT_STREQ(call.viewer.Figures.Address, "127.0.0.1") << call.what;
        EXPECT_EQ(call.viewer.Figures.Port, port) << call.what;
        EXPECT_EQ(call.viewer.Figures.IsTls, 0) << call.what;
        EXPECT_TRUE(pthread_equal(call.thread, calls[0].thread)) << call.what;
        EXPECT_EQ(call.viewer.Session, call.what == "left" ? session : nullptr) << call.what;
        EXPECT_EQ(call.app, call.what == "accepted" ? "" : "live");
        EXPECT_EQ(call.tcUrl, call.what == "accepted" ? "" : "rtmp://127.0.0.1/live");
        EXPECT_EQ(call.stream, call.what == "plays" || call.what == "left" ? "cam" : "");
    }
    EXPECT_EQ(calls[0].viewer.Figures.State, uint32_t{CLIENT_STATE_INIT});
    EXPECT_EQ(calls[1].viewer.Figures.State, uint32_t{CLIENT_STATE_HANDSHAKE_DONE});
    EXPECT_EQ(calls[2].viewer.Figures.State, uint32_t{CLIENT_STATE_CREATESTREAM_DONE});
    EXPECT_EQ(calls[0].viewer.Figures.Bytes, 0U);
    const RtmpClientFigures &got = calls[3].viewer.Figures;
    EXPECT_EQ(got.Frames, 3U);
    EXPECT_EQ(got.DroppedFrames, 0U);
    EXPECT_EQ(got.Bytes, received - kHandshakeBytes) << "what the peer has read behind the handshake";
}

TEST_F(SteadyViewers, AreToldOfWithNoLockHeldThatOthersNeed)
{
    SteadyTestServer server;
    RtmpSession *session = server.session("cam");
    std::promise<void> inside;
    std::promise<void> goOn;
    std::shared_future<void> released(goOn.get_future());
    HostFakes::get().viewer = [&](const ViewerCall &call) {
        if (call.stream == "slow" && call.what == "plays") {
            inside.set_value();
            released.wait();
        }
        return 0;
    };
    Watcher slow(server.port);
    slow.created();
    slow.command(PlayCommand("slow"));
    inside.get_future().wait();

    Watcher other(server.port);
    other.playing("cam");
    EXPECT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
    other.read();
    RtmpSession *second = server.session("second");
    EXPECT_EQ(RtmpSessionDestroy(second), 0);
    RtmpSessionFigures figures;
    EXPECT_EQ(RtmpSessionStatistics(session, &figures), 0);
    EXPECT_EQ(figures.Viewers, 1U);

    goOn.set_value();
    slow.read(2);
    EXPECT_TRUE(slow.socket.ends()) << "there is no such stream";
}

TEST_F(SteadyViewers, NameTheirStreamAsTheyAskedForIt)
{
    SteadyTestServer server;
    ASSERT_EQ(RtmpPlayerSettings(server.server, RTMP_PLAYERS_STREAM_NAME), 0);
    server.session("cam");
    Watcher peer(server.port);
    peer.playing("cam?token=1&more=2");
    EXPECT_EQ(Calls().back().stream, "cam?token=1&more=2");
    EXPECT_EQ(Order(), "accepted connects plays");
}

TEST_F(SteadyViewers, NameTheirStreamAlsoWhereItsQueryIsAPartOfTheName)
{
    SteadyTestServer server;
    server.session("cam");
    {
        Watcher peer(server.port);
        peer.created();
        peer.command(PlayCommand("cam?token=1"));
        peer.read(2);
        EXPECT_TRUE(peer.socket.ends()) << "no session is called so";
    }
    ASSERT_TRUE(WaitForLeft());
    ASSERT_EQ(Order(), "accepted connects plays left");
    EXPECT_EQ(Calls()[2].stream, "cam?token=1");
    EXPECT_EQ(Calls()[3].stream, "cam?token=1");
    EXPECT_EQ(Calls()[3].viewer.Session, nullptr);
}

TEST_F(SteadyViewers, HaveTextsOfABoundedLength)
{
    SteadyTestServer server;
    const std::string app = "live" + std::string(5000, 'a');
    {
        Watcher peer(server.port);
        peer.handshake();
        peer.command(ConnectCommand(app));
        peer.read(6);
    }
    ASSERT_TRUE(WaitForLeft());
    EXPECT_EQ(Calls()[1].app, app.substr(0, 1023));
    EXPECT_EQ(Calls()[1].tcUrl, ("rtmp://127.0.0.1/" + app).substr(0, 1023));
}

TEST_F(SteadyViewers, WhoSaysNothingInConnectHasEmptyTexts)
{
    SteadyTestServer server;
    {
        Watcher peer(server.port);
        peer.handshake();
        peer.command(Values({String("connect"), Number(1), Object({{"swfUrl", String("x")}})}).bytes);
        peer.read(6);
    }
    ASSERT_TRUE(WaitForLeft());
    ASSERT_EQ(Order(), "accepted connects left");
    EXPECT_EQ(Calls()[1].app + Calls()[1].tcUrl, "");
}

TEST_F(SteadyViewers, AreAskedAboutOncePerConnectThatMayBeAnswered)
{
    SteadyTestServer server;
    server.session("cam");
    Watcher peer(server.port);
    peer.created();
    peer.command(ConnectCommand("live/other"));
    peer.command(PlayCommand("cam"));
    peer.read(7);
    EXPECT_EQ(Order(), "accepted connects plays");
    EXPECT_EQ(Calls().back().app, "live") << "a second connect changes nothing";
}

TEST_F(SteadyViewers, AreAskedAboutForEveryPlay)
{
    SteadyTestServer server;
    RtmpSession *session = server.session("cam");
    Watcher peer(server.port);
    peer.playing("cam");
    peer.command(PlayCommand("cam"));
    peer.settle();
    ASSERT_EQ(Order(), "accepted connects plays plays");
    EXPECT_EQ(Calls()[3].viewer.Session, session);
}

TEST_F(SteadyViewers, ThatTheLibraryRefusesAreNotAskedAbout)
{
    SteadyTestServer server;
    {
        Watcher peer(server.port);
        peer.handshake();
        peer.command(ConnectCommand("vod"));
        EXPECT_TRUE(peer.socket.ends());
    }
    ASSERT_TRUE(WaitForLeft());
    EXPECT_EQ(Order(), "accepted left");
}

TEST_F(SteadyViewers, OfTheDefaultRoadAreNotToldOf)
{
    {
        TestServer server;
        server.session("cam");
        Watcher peer(server.port);
        peer.playing("cam");
        peer.command(DeleteStreamCommand());
        ASSERT_TRUE(server.waitForClientsToEnd());
    }
    EXPECT_EQ(Order(), "");
}

TEST_F(SteadyViewers, OfAHostThatMadeTheConnectionItselfAreNotAskedAbout)
{
    RtmpClient client = {};
    EXPECT_EQ(AdmitViewer(&client), 0); // no line at all
    SteadyLine line = {};
    client.Line = &line;
    EXPECT_EQ(AdmitViewer(&client), 0); // the socket is the host's
    EXPECT_EQ(line.IsAnnounced, 0);
    EXPECT_EQ(Order(), "");
}

// A connection that was there before is told of nowhere, but nobody plays without having been asked about.
TEST_F(SteadyViewers, AcceptedBeforeTheSteadyRoadAreAskedAboutWhenTheyPlay)
{
    TestServer server;
    Watcher peer(server.port);
    peer.created();
    ASSERT_EQ(RtmpServiceSettings(server.server, nullptr), 0);
    server.session("cam");
    Refuse("plays");
    peer.command(PlayCommand("cam"));
    peer.read(2);
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_EQ(Order(), "plays");
    EXPECT_EQ(Calls()[0].stream, "cam");
    EXPECT_STREQ(Calls()[0].viewer.Figures.Address, "127.0.0.1");
    EXPECT_EQ(Calls()[0].viewer.Figures.Port, PortOf(peer.socket));
}

// --------------------------------------------------------------------------------------------- refusals

TEST_F(SteadyViewers, RefusedWhenTheyAreAcceptedGetNoByte)
{
    SteadyTestServer server;
    Refuse("accepted");
    Watcher peer(server.port);
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(WaitForLeft());
    EXPECT_EQ(Order(), "accepted left");
    EXPECT_TRUE(server.log.contains("6 INFO: AdmitViewer: The host refuses 127.0.0.1"));
}

TEST_F(SteadyViewers, RefusedWhenTheyConnectAreToldSoAndTheConnectionEnds)
{
    SteadyTestServer server;
    Refuse("connects");
    Watcher peer(server.port);
    peer.handshake();
    peer.command(ConnectCommand("live", 7), 9);
    const Bytes error = Values({String("_error"), Number(7), Null(),
                                Object({{"level", String("error")},
                                        {"code", String("NetConnection.Connect.Rejected")},
                                        {"description", String("The viewer is not admitted")}})})
                            .bytes;
    EXPECT_TRUE(Matches(peer.read().raw, "02 ?????? 000004 01 00000000 00001000")) << "how the answer is cut";
    EXPECT_TRUE(Sent(peer.read(), "09" + Fields(error, "14") + "00000000", error));
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(WaitForLeft());
    EXPECT_EQ(Order(), "accepted connects left");
    EXPECT_TRUE(server.log.contains("6 INFO: AdmitConnect: The host refuses the connect of 127.0.0.1"));
}

TEST_F(SteadyViewers, RefusedWhenTheyPlayAreAnsweredAsIfThereWereNoSuchStream)
{
    SteadyTestServer server;
    RtmpSession *session = server.session("cam");
    Refuse("plays");
    Watcher peer(server.port);
    peer.created();
    peer.command(PlayCommand("cam"));
    const std::vector<Message> sent = peer.read(2);
    const std::string id = ClientIdOf(sent[0]);
    const Bytes missing = Status("error", "NetStream.Play.StreamNotFound", "Stream not found", "cam", id);
    const Bytes stop = Status("status", "NetStream.Play.Stop", "Stopped playing", "cam", id);
    EXPECT_TRUE(Sent(sent[0], "04" + Fields(missing, "14") + "01000000", missing));
    EXPECT_TRUE(Sent(sent[1], "44" + Fields(stop, "14"), stop));
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(WaitForLeft());
    EXPECT_EQ(Order(), "accepted connects plays left");
    EXPECT_EQ(Calls()[3].viewer.Session, nullptr) << "it has joined nothing";
    RtmpSessionFigures figures;
    ASSERT_EQ(RtmpSessionStatistics(session, &figures), 0);
    EXPECT_EQ(figures.ViewersInAll, 0U);
    EXPECT_TRUE(server.log.contains("6 INFO: AdmitPlay: The host refuses the play of 127.0.0.1"));
}

TEST_F(SteadyViewers, RefusedWhenTheyPlayOnceMoreLeave)
{
    SteadyTestServer server;
    RtmpSession *session = server.session("cam");
    Watcher peer(server.port);
    peer.playing("cam");
    Refuse("plays");
    peer.command(PlayCommand("cam"));
    peer.read(2);
    EXPECT_TRUE(peer.socket.ends());
    ASSERT_TRUE(WaitForLeft());
    EXPECT_EQ(Order(), "accepted connects plays plays left");
    EXPECT_TRUE(WaitUntil([session] { return IsAnyClientConnected(session) != 0; }));
}

TEST_F(SteadyViewers, RefusedCostNobodyElseAnything)
{
    SteadyTestServer server;
    RtmpSession *session = server.session("cam");
    Watcher watching(server.port);
    watching.playing("cam");
    Refuse("plays");
    Watcher refused(server.port);
    refused.created();
    refused.command(PlayCommand("cam"));
    refused.read(2);
    EXPECT_TRUE(refused.socket.ends());
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKeyNal), 1000), 0);
    EXPECT_EQ(watching.read().payload.size(), 105U);
}

// ----------------------------------------------------------------------------------------- every ending

namespace {

// How a viewer leaves; the server and its session may be gone afterwards.
struct Ending {
    const char *name;
    void (*happen)(SteadyTestServer &server, Watcher &peer);
};

const Ending kEndings[] = {
    {"WithoutAByte", [](SteadyTestServer &, Watcher &peer) { peer.socket.leave(); }},
    {"InTheMidstOfTheHandshake",
     [](SteadyTestServer &, Watcher &peer) {
         peer.handshake({.stopAfter = 700});
         EXPECT_TRUE(WaitUntil([] { return !HostFakes::get().viewers().empty(); })); // then it is no more
         peer.socket.reset();
     }},
    {"WithABadHandshake",
     [](SteadyTestServer &, Watcher &peer) {
         peer.socket.send(Bytes(1537, 0x55));
         peer.socket.ends();
     }},
    {"AfterConnect",
     [](SteadyTestServer &, Watcher &peer) {
         peer.connected();
         peer.socket.leave();
     }},
    {"WithARefusedMessage",
     [](SteadyTestServer &, Watcher &peer) {
         peer.connected();
         peer.send({.payload = Bytes(10, 1), .type = 9});
     }},
    {"OfAnUnknownStream",
     [](SteadyTestServer &, Watcher &peer) {
         peer.created();
         peer.command(PlayCommand("nosuch"));
         peer.read(2);
         peer.socket.ends();
     }},
    {"Playing",
     [](SteadyTestServer &, Watcher &peer) {
         peer.playing("cam");
         peer.socket.leave();
     }},
    {"ByReset",
     [](SteadyTestServer &, Watcher &peer) {
         peer.playing("cam");
         peer.socket.reset();
     }},
    {"Paused",
     [](SteadyTestServer &, Watcher &peer) {
         peer.playing("cam");
         peer.command(PauseCommand(true));
         peer.settle();
         peer.socket.leave();
     }},
    {"ByDeleteStream",
     [](SteadyTestServer &, Watcher &peer) {
         peer.playing("cam");
         peer.command(DeleteStreamCommand());
     }},
    {"WithItsSession",
     [](SteadyTestServer &server, Watcher &peer) {
         peer.playing("cam");
         EXPECT_EQ(RtmpSessionDestroy(server.server->LiveSessionHead), 0);
     }},
    {"WithTheServer",
     [](SteadyTestServer &server, Watcher &peer) {
         peer.playing("cam");
         EXPECT_EQ(server.destroy(), 0);
     }},
    {"WithTheServerBeforeItJoined",
     [](SteadyTestServer &server, Watcher &peer) {
         peer.connected();
         EXPECT_EQ(server.destroy(), 0);
     }},
};

class SteadyViewersLeave : public SteadyViewers, public testing::WithParamInterface<Ending> {};

} // namespace

TEST_P(SteadyViewersLeave, AndAreToldOfExactlyOnce)
{
    {
        SteadyTestServer server;
        server.session("cam");
        Watcher peer(server.port);
        GetParam().happen(server, peer);
        ASSERT_TRUE(WaitForLeft());
        if (server.server != nullptr) {
            EXPECT_EQ(server.destroy(), 0);
        }
    }
    EXPECT_EQ(Count("accepted"), 1U);
    EXPECT_EQ(Count("left"), 1U);
    EXPECT_EQ(Calls().front().what, "accepted");
    EXPECT_EQ(Calls().back().what, "left");
}

INSTANTIATE_TEST_SUITE_P(Way, SteadyViewersLeave, testing::ValuesIn(kEndings),
                         [](const testing::TestParamInfo<Ending> &row) { return row.param.name; });

// Once RtmpServerDestroy has returned, no function of the host is called any more.
TEST_F(SteadyViewers, HaveAllLeftWhenTheServerIsGone)
{
    constexpr size_t kViewers = 20;
    std::vector<std::unique_ptr<Watcher>> peers;
    SteadyTestServer server;
    server.session("cam");
    for (size_t i = 0; i < kViewers; i++) {
        peers.push_back(std::make_unique<Watcher>(server.port));
        if (i % 2 == 0) {
            peers.back()->playing("cam");
        } else {
            peers.back()->connected();
        }
    }
    ASSERT_EQ(server.destroy(), 0);
    EXPECT_EQ(Count("accepted"), kViewers);
    EXPECT_EQ(Count("left"), kViewers);
}
