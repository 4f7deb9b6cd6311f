// Frames on both roads and with both senders: where time begins, how old the connection may be, what goes
// between them; and the traps of publishing by hand, beside the road that has them.
#include "publisher_fixture.h"

#include "support/wait.h"
#include "tls/tls_connection.h"

#include <csignal>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

using namespace amf0;
using namespace publisher;
using namespace wire;

namespace {

struct FramesRoad {
    bool steady, threaded;
};

std::string NameOfFramesRoad(const testing::TestParamInfo<FramesRoad> &info)
{
    return std::string(info.param.steady ? "Steady" : "Exact") +
           (info.param.threaded ? "Threaded" : "Monitor");
}

const auto kFramesRoads = testing::Values(FramesRoad{false, false}, FramesRoad{false, true},
                                          FramesRoad{true, false}, FramesRoad{true, true});

class PublisherFrames : public testing::TestWithParam<FramesRoad> {
  protected:
    publisher::Setup setup() const
    {
        return {.steady = GetParam().steady, .threaded = GetParam().threaded};
    }
};

// Pictures every 40 ms and sound 10 ms behind each, the first a key frame.
void SendPair(RtmpSession *session, uint64_t time, bool key, size_t length = 500)
{
    EXPECT_EQ(SendVideo(session, VideoFrame(length, key ? 0x65 : 0x41), time), 0);
    EXPECT_EQ(SendAudio(session, Bytes(50, 0x21), time + 10), 0);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Roads, PublisherFrames, kFramesRoads, NameOfFramesRoad);

// Also where a connection's age no longer fits three bytes, and four. By hand messages are stamped with that
// age: ByHand.AMessageWithoutATimeSeparatesPicturesFromSound.
TEST_P(PublisherFrames, BeginAtZeroWhateverTheAgeOfTheConnection)
{
    constexpr uint64_t made = 1000000;
    for (const uint64_t age : {uint64_t{0}, (uint64_t{1} << 24) - 30, (uint64_t{1} << 32) - 30}) {
        publisher::Setup old = setup();
        old.clock = made;
        Rig rig(old);
        calls::setClock(made + age);
        rig.start();
        rig.serviceUpTo(Step::Frames);
        EXPECT_EQ(rig.result(), 0);
        for (const Message &header : rig.headers) {
            EXPECT_EQ(header.timestamp, 0U);
        }
        std::vector<Message> pictures, sounds;
        for (uint64_t i = 0; i < 20; i++) {
            calls::setClock(made + age + 40 * i);
            SendPair(rig.session, 70000 + 40 * i, i == 0);
        }
        while (pictures.size() < 20) {
            const Message message = rig.service->read();
            (message.type == 9 ? pictures : sounds).push_back(message);
            EXPECT_FALSE(message.extended);
        }
        for (uint32_t i = 0; i < 20; i++) {
            EXPECT_EQ(pictures[i].timestamp, 40 * i) << age;
        }
        EXPECT_GE(sounds.size(), 18U);
        for (uint32_t i = 0; i < sounds.size(); i++) {
            EXPECT_EQ(sounds[i].timestamp, 40 * i + 10) << age;
        }
    }
}

TEST_P(PublisherFrames, BeginWithAKeyFrame)
{
    Rig rig(setup());
    rig.start();
    rig.serviceUpTo(Step::Frames);
    (void)rig.result();
    SendPair(rig.session, 1000, false);
    SendPair(rig.session, 1040, false);
    SendPair(rig.session, 1080, true);
    SendPair(rig.session, 1120, false);
    const Message first = rig.service->read();
    EXPECT_EQ(first.type, 9);
    EXPECT_EQ(first.timestamp, 0U);
    EXPECT_EQ(first.payload[0], 0x17);
}

// Data has a chunk stream of its own: what goes between two pictures changes none of their times. By hand a
// message in a zero-filled packet restarts the clock of the chunk stream that it shares with the pictures.
TEST_P(PublisherFrames, KeepTheirTimeWithDataBetweenThem)
{
    Rig rig(setup());
    rig.start();
    rig.serviceUpTo(Step::Frames);
    (void)rig.result();
    const Bytes text = Values({String("onTextData"), Object({{"text", String("hello")}})}).bytes;
    uint32_t pictures = 0;
    for (uint32_t i = 0; i < 30; i++) {
        SendPair(rig.session, 5000 + 40 * i, i == 0);
        while (pictures <= i) {
            const Message message = rig.service->read();
            if (message.type == 9) {
                EXPECT_EQ(message.timestamp, 40 * i);
                pictures++;
            }
        }
        EXPECT_EQ(RtmpPublisherSendData(rig.publisher, text.data(), static_cast<uint32_t>(text.size())), 0);
        EXPECT_EQ(RtmpPublisherSendMetaData(rig.publisher), 0);
        for (int left = 2; left > 0;) {
            const Message data = rig.service->read();
            if (data.type != 18) {
                continue; // sound
            }
            EXPECT_EQ(data.chunkStream, 8U);
            EXPECT_EQ(data.stream, 1U);
            EXPECT_LE(data.timestamp, 40 * i + 10);
            EXPECT_GE(data.timestamp + 40, 40 * i);
            EXPECT_EQ(data.payload, left == 2 ? text : rig.headers[0].payload)
                << "metadata of the same length";
            left--;
        }
    }
}

// A picture of exactly the sequence header's length, and a second one of the same. By default its header type
// is decided against the first message of its chunk stream: ByHand.APictureOfTheHeadersLengthLosesItsLength.
TEST_P(PublisherFrames, OfTheHeadersLengthAreWhole)
{
    Rig rig(setup());
    rig.start();
    rig.serviceUpTo(Step::Frames);
    (void)rig.result();
    const size_t length = AvcHeaderBody().size() - 5;
    for (uint64_t i = 0; i < 10; i++) {
        SendPair(rig.session, 5000 + 40 * i, i == 0, i % 3 == 2 ? 900 : length);
    }
    for (uint32_t i = 0; i < 10;) {
        const Message message = rig.service->read();
        if (message.type == 9) {
            EXPECT_EQ(message.stream, 1U);
            EXPECT_EQ(message.timestamp, 40 * i);
            EXPECT_EQ(message.payload.size(), 5 + (i % 3 == 2 ? 900 : length));
            i++;
        }
    }
}

// --------------------------------------------------------------------------------------------------------
// TLS

namespace {

// libssl writes with signals: whoever uses it ignores SIGPIPE, hosts as well as the service of this test.
class PublisherOverTls : public testing::TestWithParam<std::tuple<int, bool>> {
  protected:
    PublisherOverTls() : before_(std::signal(SIGPIPE, SIG_IGN)) {}
    ~PublisherOverTls() override
    {
        std::signal(SIGPIPE, before_);
    }

  private:
    void (*before_)(int);
};

// Seconds of the long test: 2, or as the environment says.
int Seconds()
{
    const char *text = std::getenv("RTMPCAST_RENEWAL_SECONDS");
    return text != nullptr ? std::atoi(text) : 2;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Versions, PublisherOverTls,
                         testing::Combine(testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), testing::Bool()));

// Frames on one thread, the service's pings and windows on another, and the keys of both directions renewed
// all the time (TLS 1.3; TLS 1.2 has no such thing but a new handshake, which services refuse).
TEST_P(PublisherOverTls, EveryFrameComesWhileKeysAreRenewed)
{
    const int version = std::get<0>(GetParam());
    TlsConnection tls(
        {.role = LibraryEnd::Connects, .version = version, .renewEvery = version == TLS1_3_VERSION ? 3 : 0});
    Rig rig({.steady = std::get<1>(GetParam()),
             .tls = tls.handle(),
             .plain = tls.takePlain(),
             .socket = tls.socket()});
    rig.service->socket.keepRecord(false);
    rig.startAndServe();
    rig.serviceUpTo(Step::Frames);
    std::atomic<bool> ends = false, ended = false;
    std::atomic<uint32_t> sent = 0, seen = 0;
    std::thread encoder([&] {
        while (!ends || sent < 200) {
            EXPECT_EQ(
                SendVideo(rig.session, VideoFrame(4000, sent % 30 == 0 ? 0x65 : 0x41), 1000 + 40ULL * sent),
                0);
            sent++;
            WaitUntil([&] { return sent < seen + 50; }); // on the steady road frames wait for nobody
        }
        ended = true;
    });
    uint32_t pongs = 0, pings = 0;
    rig.service->send({.payload = BigEndian(100, 4), .type = 5, .chunkStream = 2});
    const uint64_t end = MonotonicMs() + 1000ULL * static_cast<uint64_t>(Seconds());
    const uint64_t atTheLatest = end + 30000; // a busy machine takes longer to renew often enough
    const int enough = version == TLS1_3_VERSION ? 20 : -1;
    while (!ended || seen < sent || pongs < pings) {
        ends = ends || (MonotonicMs() > end && tls.renewals() > enough) || MonotonicMs() > atTheLatest;
        if (!ends && pings - pongs < 20) {
            rig.service->pingRequest(pings++);
        }
        if (seen >= sent && pongs == pings) { // it may be here before the encoder has counted it
            std::this_thread::yield();        // the encoder is about to send, or to end
            continue;
        }
        Message message;
        try {
            message = rig.service->read();
        } catch (const PeerError &error) {
            ADD_FAILURE() << error.what() << " behind " << seen << " frames and " << tls.renewals()
                          << " renewals\n"
                          << testing::PrintToString(rig.log.lines());
            ends = true;
            sent = 200;
            break;
        }
        if (message.type == 9) {
            EXPECT_EQ(message.timestamp, 40 * seen);
            EXPECT_EQ(message.payload.size(), 4005U);
            seen++;
        }
        pongs += message.type == 4;
    }
    encoder.join();
    EXPECT_EQ(seen, sent);
    EXPECT_EQ(pongs, pings);
    EXPECT_GT(tls.renewals(), enough);
    RecordProperty("frames", static_cast<int>(seen.load()));
    RecordProperty("renewals", tls.renewals());
    RtmpPublisherStop(rig.publisher);
    EXPECT_EQ(rig.result(), 0);
    rig.destroyPublisher();
    rig.service->socket.leave();
}

// Over TLS, too, the service's bytes may dribble only as long as its answer may take.
TEST_P(PublisherOverTls, GivesUpInTime)
{
    TlsConnection tls({.role = LibraryEnd::Connects, .version = std::get<0>(GetParam())});
    Rig rig({.answerMs = 200, .tls = tls.handle(), .plain = tls.takePlain(), .socket = tls.socket()});
    rig.start();
    rig.serviceUpTo(Step::Handshake);
    const uint64_t since = MonotonicMs();
    const Bytes slow = Join({Hex("03 000000 00FFFF 14 00000000"), Bytes(3000, 0)});
    for (size_t i = 0; i < slow.size() && !rig.hasEnded(); i++) {
        rig.service->socket.send({slow[i]});
        WaitUntil([&rig] { return rig.hasEnded(); }, 4);
    }
    EXPECT_EQ(rig.result(), RTMP_ERR_NO_ANSWER);
    EXPECT_LT(MonotonicMs() - since, 2000U);
    rig.destroyPublisher();
    rig.service->socket.leave();
}
