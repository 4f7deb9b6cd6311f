// Everything that a service may send beside its answers, before the session is joined and after it: what it
// is told, what the host finds, and what it cannot reach.
#include "publisher_fixture.h"

#include "support/wait.h"

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

Value Command(const std::string &name)
{
    return Values({String(name), Number(0), Null()});
}

Value With(const std::string &name, const std::vector<Value> &arguments)
{
    std::vector<Value> values = {String(name), Number(0), Null()};
    values.insert(values.end(), arguments.begin(), arguments.end());
    return Values(values);
}

Value Info()
{
    return Object({{"level", String("status")}, {"code", String("Some.Code")}, {"number", Number(5)}});
}

// Every command that a streaming service sends to a publisher, but for answers.
std::vector<Bytes> ServiceCommands()
{
    return {Command("onBWDone").bytes,
            With("onStatus", {Info()}).bytes,
            With("onFCPublish", {Info()}).bytes,
            With("moduleInfo", {Object({{"viewers", Number(3)}, {"allViewers", Number(4)}})}).bytes,
            With("setChallenge", {Number(77), String("riddle")}).bytes,
            With("onClientLogin", {Info()}).bytes,
            Command("recordStarted").bytes,
            Command("recordError").bytes,
            Command("recordReady").bytes,
            Command("recordSaved").bytes,
            Command("recordTimerWarning").bytes,
            Command("recordLimitExceeded").bytes,
            Command("_checkbw").bytes,
            With("onFCUnpublish", {Info()}).bytes,
            Command("close").bytes};
}

// What players ask for, and what no publisher is sent.
std::vector<Outgoing> Hostile()
{
    std::vector<Outgoing> messages;
    for (const Bytes &command :
         {ConnectCommand("live"), CreateStreamCommand(), PlayCommand("cam"), PauseCommand(true),
          DeleteStreamCommand(), With("seek", {Number(0)}).bytes,
          With("publish", {String("cam"), String("live")}).bytes, With("play", {String("")}).bytes}) {
        messages.push_back({.payload = command});
    }
    for (const uint8_t type : {8, 9, 15, 16, 17, 18, 19, 22, 7, 10, 255}) {
        messages.push_back({.payload = Bytes(40, 2), .type = type});
        messages.push_back({.payload = {}, .type = type});
        messages.push_back({.payload = PlayCommand("cam"), .type = type});
    }
    for (uint32_t event = 0; event < 40; event++) {
        if (event != 6) { // a ping is answered
            messages.push_back(
                {.payload = Join({BigEndian(event, 2), Bytes(8, 1)}), .type = 4, .chunkStream = 2});
        }
    }
    messages.push_back({.payload = BigEndian(3, 4), .type = 2, .chunkStream = 2});    // abort
    messages.push_back({.payload = BigEndian(1, 4), .type = 3, .chunkStream = 2});    // acknowledgement
    messages.push_back({.payload = Hex("00001000 02"), .type = 6, .chunkStream = 2}); // peer bandwidth
    messages.push_back({.payload = BigEndian(0, 4), .type = 1, .chunkStream = 2});    // chunks of 0 bytes
    messages.push_back({.payload = PlayCommand("cam"), .chunkStream = 70, .basicForm = 2});
    return messages;
}

class PublisherHears : public testing::TestWithParam<bool> {
  protected:
    Rig rig{{.steady = GetParam()}};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Roads, PublisherHears, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &info) {
                             return info.param ? "Steady" : "Exact";
                         });

TEST_P(PublisherHears, EveryCommandOfServicesAtEveryStep)
{
    rig.startAndServe();
    for (const Step step : {Step::Handshake, Step::Connect, Step::CreateStream}) {
        rig.serviceUpTo(Step::Connected);
        switch (step) {
        case Step::Handshake:
            rig.serviceUpTo(Step::Handshake);
            break;
        case Step::Connect:
            rig.answer(1);
            rig.service->read(3);
            break;
        default:
            rig.createdStream(4, 1);
            rig.service->read(1);
        }
        for (const Bytes &command : ServiceCommands()) {
            if (step == Step::CreateStream && command == With("onStatus", {Info()}).bytes) {
                continue; // any status answers "publish"
            }
            rig.service->command(command);
        }
        EXPECT_TRUE(rig.settle().empty());
    }
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    for (const Bytes &command : ServiceCommands()) {
        rig.service->command(command);
    }
    EXPECT_TRUE(rig.settle().empty());
    const PublishCtx &answers = *RtmpPublisherAnswers(rig.publisher);
    EXPECT_STREQ(answers.ChallengeString, "riddle");
    EXPECT_STREQ(answers.SessionIdText, "77");
    EXPECT_STREQ(answers.StatusCode, "Some.Code");
    EXPECT_EQ(HostFakes::get().recordActions().size(), 8U)
        << "recordError and recordLimitExceeded, four times";
    EXPECT_FALSE(rig.hasEnded());
}

TEST_P(PublisherHears, NothingThatTakesItWhereAServiceHasNoBusiness)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Handshake);
    for (const Outgoing &message : Hostile()) {
        rig.service->send(message);
    }
    EXPECT_TRUE(rig.settle().empty()) << "no answers before the session is joined";
    EXPECT_EQ(RtmpPublisherClient(rig.publisher)->Session, nullptr);
    rig.answer(1);
    rig.service->read(3);
    rig.createdStream(4, 1);
    rig.service->read(1);
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    for (const Outgoing &message : Hostile()) {
        rig.service->send(message);
    }
    EXPECT_TRUE(rig.settle().empty()) << "nor behind it";
    EXPECT_EQ(rig.session->ClientCount, 1);
    EXPECT_EQ(RtmpPublisherClient(rig.publisher)->StreamId, 1U);
    EXPECT_FALSE(rig.hasEnded());
    EXPECT_EQ(SendVideo(rig.session, VideoFrame(100, 0x65), 1000), 0);
    EXPECT_EQ(rig.service->read().type, 9);
}

// By hand there are no answers before it:
// ServiceTalk.UserControlEventsAreReportedAndPingRequestsNeedASession.
TEST_P(PublisherHears, PingsBeforeTheSessionIsJoinedAndBehindIt)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Handshake);
    rig.service->pingRequest(0x01020304);
    EXPECT_TRUE(Matches(rig.service->read().payload, "0007 01020304"));
    rig.service->pingRequest(0xFFFFFFFF);
    EXPECT_TRUE(Matches(rig.service->read().payload, "0007 FFFFFFFF"));
    rig.answer(1);
    rig.service->read(3);
    rig.createdStream(4, 1);
    rig.service->read(1);
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    rig.awaitFrames();
    for (uint32_t i = 0; i < 20; i++) {
        EXPECT_EQ(SendVideo(rig.session, VideoFrame(100, 0x65), 1000 + 40 * i), 0);
        rig.service->pingRequest(i);
    }
    uint32_t pongs = 0;
    for (size_t i = 0; i < 40; i++) {
        const Message message = rig.service->read();
        if (message.type == 4) {
            EXPECT_TRUE(Same(message.payload, Join({Hex("0007"), BigEndian(pongs++, 4)})));
            EXPECT_EQ(message.timestamp, 0U);
        }
    }
    EXPECT_EQ(pongs, 20U);
}

TEST_P(PublisherHears, TheServicesOwnPing)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Handshake);
    rig.service->command(Command("ping").bytes);
    const Message early = rig.service->read();
    EXPECT_EQ(early.type, 20);
    EXPECT_EQ(early.chunkStream, 3U);
    EXPECT_TRUE(early.payload.empty());
    rig.answer(1);
    rig.service->read(3);
    rig.createdStream(4, 1);
    rig.service->read(1);
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    rig.service->command(Command("ping").bytes);
    EXPECT_EQ(rig.service->read().type, 20);
}

// An answer of k times the chunk size: by hand it is never complete
// (ChunkReader.AChunkOfExactlyTheRestLeavesTheMessageOpen).
TEST_P(PublisherHears, AnswersOfAMultipleOfTheChunkSize)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Handshake);
    const Bytes plain = Values({String("_result"), Number(1), Null(), String("")}).bytes;
    const auto padded = [&](double id, size_t length) {
        return Values(
                   {String("_result"), Number(id), Null(), String(std::string(length - plain.size(), 'x'))})
            .bytes;
    };
    ASSERT_EQ(padded(1, 256).size(), 256U);
    rig.service->command(padded(90, 128));
    rig.service->command(padded(1, 256));
    EXPECT_EQ(NameOf(rig.command()), "releaseStream");
    rig.service->read(2);
    const Bytes created = Values({String("_result"), Number(4), Null(), Number(6)}).bytes;
    rig.service->setChunkSize(static_cast<uint32_t>(created.size()));
    rig.service->command(created);
    EXPECT_EQ(rig.command().stream, 6U);
}

TEST_P(PublisherHears, EveryChunkSizeOfTheService)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    for (const uint32_t size : {1U, 2U, 127U, 128U, 4096U, 65536U, 0xFFFFFFU, 0x7FFFFFFFU, 5U}) {
        rig.service->setChunkSize(size);
        rig.service->command(With("onBWDone", {String(std::string(3000, 'x'))}).bytes);
        EXPECT_TRUE(rig.settle().empty()) << size;
    }
}

TEST_P(PublisherHears, TheWindowAndAcknowledgesItsBytes)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Handshake);
    const auto window = [this](uint32_t size) {
        rig.service->send({.payload = BigEndian(size, 4), .type = 5, .chunkStream = 2});
    };
    constexpr uint32_t handshake = 1 + 2 * 1536;
    window(1000);
    const Bytes notice = Command("onBWDone").bytes;
    rig.service->command(notice); // the first chunk behind it
    const uint32_t sent = handshake + 12 + 4 + 12 + static_cast<uint32_t>(notice.size());
    const Message early = rig.service->read(); // the handshake's bytes are more than a window
    EXPECT_EQ(early.type, 3);
    EXPECT_TRUE(Same(early.payload, BigEndian(sent, 4)));
    rig.answer(1);
    rig.service->read(3);
    rig.createdStream(4, 1);
    rig.service->read(1);
    rig.status("status", "NetStream.Publish.Start");
    rig.service->read(3);
    uint32_t last = sent;
    for (int i = 0; i < 5; i++) {
        rig.service->command(With("onBWDone", {String(std::string(1200, 'x'))}).bytes);
        const Message acknowledgement = rig.service->read();
        EXPECT_EQ(acknowledgement.type, 3);
        EXPECT_EQ(acknowledgement.chunkStream, 2U);
        ASSERT_EQ(acknowledgement.payload.size(), 4U);
        uint32_t now = 0;
        for (const uint8_t byte : acknowledgement.payload) {
            now = now << 8 | byte;
        }
        EXPECT_GE(now - last, 1000U);
        EXPECT_LT(now - last, 2600U);
        last = now;
    }
    window(0xFFFFFFFF);
    rig.service->command(With("onBWDone", {String(std::string(5000, 'x'))}).bytes);
    for (const Message &message : rig.settle()) {
        EXPECT_EQ(message.type, 3) << "of the old window, at most";
    }
}

// "kind 0 before the call" makes an event that is passed over look like `_result`: the kinds of publish.h are
// left alone by such events (ReceivedUserControl.IgnoredEventsLeaveTheKindAndLogNothing), and a host that
// reads 0 takes it for the answer.
TEST_P(PublisherHears, AnEventThatIsPassedOverIsNoAnswer)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Handshake);
    for (const uint32_t event : {5U, 8U, 31U, 0xFFFFU}) {
        rig.service->send({.payload = Join({BigEndian(event, 2), Bytes(4, 0)}), .type = 4, .chunkStream = 2});
    }
    EXPECT_TRUE(rig.settle().empty()) << "connect is not answered yet";
    rig.answer(1);
    EXPECT_EQ(NameOf(rig.command()), "releaseStream");
}

TEST_P(PublisherHears, AStatusOfLevelErrorEndsServing)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    rig.status("status", "NetStream.Some.Thing");
    rig.service->command(Values({String("_error"), Number(2), Null(), Null()}).bytes);
    EXPECT_TRUE(rig.settle().empty());
    rig.status("error", "NetStream.Record.Failed", "disk full");
    EXPECT_EQ(rig.result(), RTMP_ERR_REFUSED);
    EXPECT_STREQ(RtmpPublisherAnswers(rig.publisher)->StatusDescription, "disk full");
}

TEST_P(PublisherHears, TheEndOfTheConnection)
{
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    rig.service->socket.leave();
    EXPECT_EQ(rig.result(), RTMP_ERR_CONNECTION);
}

// A hundred thousand bytes of noise behind the handshake, from fixed seeds: it ends, or goes on.
TEST_P(PublisherHears, Noise)
{
    for (uint32_t seed = 1; seed <= 40; seed++) {
        Rig noisy({.steady = GetParam(), .answerMs = 500});
        noisy.startAndServe();
        noisy.serviceUpTo(seed % 2 == 0 ? Step::Handshake : Step::Frames);
        Bytes bytes;
        uint32_t state = seed * 2654435761U;
        for (size_t i = 0; i < 4000; i++) {
            state = state * 1664525U + 1013904223U;
            // small header bytes make messages that are whole
            bytes.push_back(static_cast<uint8_t>(state >> 24 & (i % 3 == 0 ? 0xFF : 0x0F)));
        }
        try {
            noisy.service->socket.send(bytes);
        } catch (const PeerError &) { // it has hung up
        }
        noisy.service->socket.finish();
        EXPECT_LT(noisy.result(), 0) << seed;
    }
}
