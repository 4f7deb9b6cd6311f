// One TLS connection, two threads of the library: its serve thread reads requests and answers them, while the
// encoder's thread sends frames.
#include "net/handshake.h"
#include "net/platform.h"
#include "net/tls_io.h"
#include "serve/serve.h"
#include "support/unread.h"
#include "tls_fixture.h"

#include <limits>

using namespace wire;

namespace {

struct Row {
    const char *name;
    int version;
    int renewEvery;
    LibraryEnd role;
};

class TlsSharing : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(Each, TlsSharing,
                         testing::Values(Row{"Tls12", TLS1_2_VERSION, 0, LibraryEnd::Accepts},
                                         Row{"Tls13", TLS1_3_VERSION, 0, LibraryEnd::Accepts},
                                         Row{"Tls13RenewingKeys", TLS1_3_VERSION, 1, LibraryEnd::Accepts},
                                         Row{"Tls13ConnectingAndRenewingKeys", TLS1_3_VERSION, 1,
                                             LibraryEnd::Connects}),
                         [](const testing::TestParamInfo<Row> &row) { return row.param.name; });

constexpr int kRounds = 400;
constexpr int kFramesAhead = 8;
constexpr size_t kFrameLength = 1500;
const std::string kAcknowledged = "3 ERROR: ServeRtmpClient: Error occured while validating RTMP message";
constexpr uint8_t kVideo = 9, kUserControl = 4;

uint64_t TimeOf(int frame)
{
    return 1000 + static_cast<uint64_t>(frame) * 33;
}

// Frames flow without an end, but no more than a few that the player has not seen.
class Encoder {
  public:
    explicit Encoder(RtmpSession *session) : thread_([this, session] { run(session); }) {}
    int stop() // returns how many frames were sent
    {
        ended_ = true;
        allow(std::numeric_limits<int>::max());
        thread_.join();
        return sent_;
    }
    void oneSeen()
    {
        allow(++seen + kFramesAhead);
    }
    int seen = 0; // by the player's thread

  private:
    void allow(int frames)
    {
        allowed_ = frames;
        allowed_.notify_one();
    }
    void run(RtmpSession *session)
    {
        for (; !ended_; ++sent_) {
            const Bytes frame = VideoFrame(kFrameLength, 0x41, static_cast<uint8_t>(sent_));
            if (SendVideo(session, frame, TimeOf(sent_)) != 0) {
                ADD_FAILURE() << "frame " << sent_;
                return;
            }
            for (int allowed = allowed_; allowed <= sent_; allowed = allowed_) {
                allowed_.wait(allowed);
            }
        }
    }
    std::atomic<bool> ended_ = false;
    std::atomic<int> allowed_ = kFramesAhead;
    int sent_ = 0;
    std::thread thread_;
};

// Reads a message: the next frame, or the answer to a ping.
void ReadOne(ScriptedPeer &player, Encoder &encoder, int &answers)
{
    const Message message = player.read();
    if (message.type == kUserControl) {
        ++answers;
        return;
    }
    const uint8_t fill = static_cast<uint8_t>(encoder.seen);
    ASSERT_EQ(message.type, kVideo);
    ASSERT_TRUE(Same(message.payload, Join({Hex("27 01 000000"), VideoFrame(kFrameLength, 0x41, fill)})));
    encoder.oneSeen();
}

void PingAndAcknowledge(ScriptedPeer &player, Encoder &encoder)
{
    for (int round = 0, answers = 0; round < kRounds; ++round) {
        player.pingRequest(static_cast<uint32_t>(round));
        while (answers == round) {
            ASSERT_NO_FATAL_FAILURE(ReadOne(player, encoder, answers));
        }
        player.send({.payload = Hex("00010000"), .type = 3, .chunkStream = 2});
    }
}

} // namespace

TEST_P(TlsSharing, FramesGoOutWhileThePlayerPingsAndItsKeysAreRenewed)
{
    TlsSetup setup;
    setup.version = GetParam().version;
    setup.renewEvery = GetParam().renewEvery;
    setup.role = GetParam().role;
    TestServer server;
    RtmpSession *session = server.session();
    HandedClient player(server, setup);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, player.giveAway()), 0);
    player.peer.socket.keepRecord(false);
    player.peer.playing("cam");
    server.log.clear();

    Encoder encoder(session);
    EXPECT_NO_THROW(PingAndAcknowledge(player.peer, encoder));
    const int sent = encoder.stop();
    for (int answers = 0; encoder.seen < sent && !HasFailure();) {
        ReadOne(player.peer, encoder, answers);
    }
    for (const std::string &line : server.log.lines()) {
        EXPECT_TRUE(!line.starts_with("3 ") || line == kAcknowledged) << line;
    }
    EXPECT_GE(player.tls->renewals(), GetParam().renewEvery * kRounds);
    player.peer.socket.finish();
    EXPECT_TRUE(server.waitForClientsToEnd());
}

// What is left of a record is in the handle, where no wait for the socket would ever end.
TEST_P(TlsSharing, MessagesOfOneRecordAreServedWithoutAnotherByte)
{
    TlsSetup setup;
    setup.version = GetParam().version;
    setup.renewEvery = GetParam().renewEvery;
    setup.role = GetParam().role;
    TestServer server;
    HandedClient player(server, setup);
    const Bytes one = Chunks({.payload = Hex("00010000"), .type = 3, .chunkStream = 2});
    Bytes record;
    for (int i = 0; i < 20; i++) {
        record.insert(record.end(), one.begin(), one.end());
    }
    player.peer.socket.send(record);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(HandleOne(player.client).kind, unsigned{RTMP_MSG_ACKNOWLEDGEMENT});
    }
}

TEST(TlsRead, OfNothingAnswersAtOnce)
{
    HostFakes::get().reset();
    TestServer server;
    HandedClient player(server, TlsSetup{});
    server.log.clear();
    uint8_t byte = 0x11;
    EXPECT_EQ(ReadNoOfBytes(player.client, &byte, 0), -1); // the peer is silent
    EXPECT_EQ(byte, 0x11);
    EXPECT_TRUE(server.log.contains("6 INFO: RtmpReadBytes: Connection was closed by peer"));
    const std::pair<void *, int> error = {player.tls->handle(), 0};
    EXPECT_EQ(HostFakes::get().tlsErrors(), std::vector{error});
}

// RFC 8446, 5.2 and 4.6.3: header, content, its type, the tag of AES-GCM.
constexpr int kRenewalRecord = 5 + 5 + 1 + 16;
constexpr int kTwoBytesRecord = 5 + 2 + 1 + 16;

// The answer to the first renewal waits behind a record that is half out. A handle that read the second one
// would put the answer into the middle of that record.
TEST(TlsRead, OfASecondRenewalWaitsForTheRecordThatIsHalfOut)
{
    HandleSignal();
    TlsConnection tls({.version = TLS1_3_VERSION, .renewEvery = 1});
    ScriptedPeer peer(tls.takePlain());
    RtmpMutex lock = PTHREAD_MUTEX_INITIALIZER;
    uint8_t waits = 0;
    TlsLine line = {tls.handle(), tls.socket(), &lock, &waits};
    tls.pauseReading(true);
    const Bytes record(16384, 7);
    uint64_t written = 0;
    while (TlsWriteNow(&line, record.data(), 16384) > 0) {
        written += record.size();
    }
    ASSERT_EQ(errno, EAGAIN);
    const auto read = [&line] {
        uint8_t byte = 0;
        return TlsRead(&line, &byte, 1) == 1 ? byte : -1;
    };
    peer.socket.send(Hex("01 02"));
    ASSERT_TRUE(WaitUntil([&tls] { return UnreadBytes(tls.socket()) == kRenewalRecord + kTwoBytesRecord; }))
        << "a read of the renewal alone would wait for the record that is half out";
    EXPECT_EQ(read(), 1);
    peer.socket.send(Hex("03"));
    line.Until = calls::clock() + 1;
    std::thread later([&line] { WaitUntil([] { return false; }, 100), calls::setClock(line.Until); });
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(errno, EAGAIN) << "the handle is as it was";
    later.join();
    line.Until = 0;

    const size_t all = written + 2 * record.size();
    std::thread taker([&peer, all] { EXPECT_EQ(peer.socket.receive(all).size(), all); });
    std::thread reader([&read] { EXPECT_EQ(read(), 2) << "which the handle has already"; });
    tls.pauseReading(false);
    EXPECT_EQ(TlsWrite(&line, record.data(), 16384), 16384);
    EXPECT_EQ(TlsWrite(&line, record.data(), 16384), 16384) << "behind the answer";
    reader.join();
    EXPECT_EQ(read(), 3);
    taker.join();
    EXPECT_EQ(tls.renewals(), 2);
}

TEST(TlsRead, OfHalfARecordKeepsNoFrameFromGoingOut)
{
    TestServer server;
    RtmpSession *session = server.session();
    TlsSetup setup;
    setup.leaves = PeerLeaves::WithoutNotice; // which would be taken for the rest of the record
    HandedClient player(server, setup);
    player.play("cam");
    player.tls->sendRaw("\x17\x03\x03\x00\x50 only a few of its 80 bytes", 30);
    std::thread reader([&] { EXPECT_EQ(HandleOne(player.client).message, nullptr); });
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(SendVideo(session, VideoFrame(100), TimeOf(i)), 0);
        EXPECT_EQ(player.peer.read().type, kVideo);
    }
    player.peer.socket.leave();
    reader.join();
}
