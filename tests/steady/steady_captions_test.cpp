// Captions on the steady road: once for each frame, in every mode, and whoever the first client is at the
// time.
#include "steady/steady_server.h"
#include "support/host_fakes.h"

#include <thread>

using namespace steady;
using namespace wire;

namespace {

// An SEI of 16 bytes with a pair that is not empty, in front of the frame; and a message of the host's that
// carries the library's payload on a chunk stream of its own.
struct Generator {
    explicit Generator(RtmpSession *session, uint8_t mode)
    {
        session->CcGen->Mode = mode;
        session->CcGen->Enabled = 1;
        HostFakes &fakes = HostFakes::get();
        fakes.findCaptionPlace = [](const uint8_t *, int32_t, int32_t *nalSizePos) {
            return *nalSizePos = 0;
        };
        fakes.getSei = [this](uint64_t, uint8_t **bytes, int32_t *length, uint32_t delta) {
            asked.push_back(delta);
            *bytes = sei.data();
            *length = static_cast<int32_t>(sei.size());
        };
        fakes.increaseNalSize = [](uint8_t *, int32_t, int32_t) {};
        fakes.captionMessage = [](RtmpClient *client, uint32_t kind, uint64_t) {
            RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
            message->ChunkStreamId = 30;
            message->MsgTypeId = RTMP_TYPE_AMF0_DATA;
            message->MsgKind = kind;
            message->MsgStreamId[0] = static_cast<uint8_t>(client->StreamId);
            message->PayloadLength = sizeof client->Session->CcGen->Payload;
            message->PayloadData = static_cast<uint8_t *>(malloc(message->PayloadLength));
            memcpy(message->PayloadData, client->Session->CcGen->Payload, message->PayloadLength);
            return message;
        };
    }
    ~Generator()
    {
        HostFakes::get().reset();
    }
    Generator(const Generator &) = delete;
    Generator &operator=(const Generator &) = delete;

    Bytes sei = Counting(16, 0xA0);
    std::vector<uint32_t> asked; // the deltas; the sending thread's
};

const Bytes kPayload = Hex("000000 06 C1 ABACADAE FF"); // bytes 11 to 14 of the SEI between

int SendPicture(RtmpSession *session, uint64_t number)
{
    return SendVideo(session, VideoFrame(100, number % 10 == 0 ? kKey : kInter), 1000 + 40 * number);
}

// A thread that sends pictures as fast as it can, also while nobody is connected.
class Sending {
  public:
    explicit Sending(RtmpSession *session)
        : thread_([this, session] {
              for (uint64_t i = 0; !done_; i++) {
                  (void)SendPicture(session, i);
              }
          })
    {
    }
    ~Sending()
    {
        done_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

} // namespace

TEST(SteadyCaptions, InTheVideoAreAskedForOnceAFrameHoweverManyPlayersThereAre)
{
    Server server;
    RtmpSession *session = server.session();
    Generator generator(session, 0);
    ScriptedPlayer one(server);
    ScriptedPlayer two(server);
    one.playing("cam");
    two.playing("cam");
    ASSERT_EQ(SendPicture(session, 0), 0);
    ASSERT_EQ(SendPicture(session, 1), 0);
    for (ScriptedPlayer *player : {&one, &two}) {
        for (const uint8_t nal : {kKey, kInter}) {
            const Bytes body = player->frame().payload;
            EXPECT_TRUE(Same(Slice(body, 5, 16), generator.sei));
            EXPECT_TRUE(Same(Slice(body, 21, 100), VideoFrame(100, nal)));
        }
    }
    EXPECT_EQ(generator.asked, (std::vector<uint32_t>{0, 40}));
}

TEST(SteadyCaptions, AsMessagesGoToTheFirstClientInFrontOfTheFrameAndDisturbNoClock)
{
    Server server;
    RtmpSession *session = server.session();
    Generator generator(session, 1);
    ScriptedPlayer one(server);
    ScriptedPlayer two(server);
    one.playing("cam");
    two.playing("cam");
    for (uint64_t i = 0; i < 20; i++) {
        ASSERT_EQ(SendPicture(session, i), 0);
        const Message caption = one.read();
        EXPECT_EQ(caption.type, 18);
        EXPECT_EQ(caption.chunkStream, 30U);
        EXPECT_EQ(caption.timestamp, i == 0 ? 0 : 40 * (i - 1));
        EXPECT_TRUE(Same(caption.payload, kPayload));
        EXPECT_EQ(one.frame().timestamp, 40 * i);
        EXPECT_EQ(two.frame().timestamp, 40 * i);
    }
    EXPECT_TRUE(one.replies.empty());
    EXPECT_TRUE(two.replies.empty()) << "nothing for the second";
}

// Held together by the sanitizers: who is told of captions may be leaving, and the next is the first then.
TEST(SteadyCaptions, FirstClientsComeAndGoWhileMessagesAreSentToThem)
{
    for (const uint32_t mode : {0u, uint32_t{RTMP_SENDER_THREADED}}) {
        Server server;
        RtmpSession *session = server.session("cam", {.mode = mode});
        Generator generator(session, 1);
        const Sending host(session);
        size_t captions = 0;
        for (int i = 0; i < 60; i++) {
            ScriptedPlayer player(server);
            player.created();
            player.command(PlayCommand("cam"));
            for (int read = 0; read < 40 + i; read++) {
                captions += player.read().type == 18 ? 1 : 0;
            }
        }
        EXPECT_GT(captions, 60U);
        EXPECT_TRUE(server.waitForClientsToEnd());
    }
}

// What waits for it is bounded like all that waits, and nobody else notices.
TEST(SteadyCaptions, AFirstClientThatTakesNothingIsLeftAloneWithThem)
{
    RtmpServiceLimits limits = With(&RtmpServiceLimits::ReplyBytes, 2000);
    limits.StallMilliseconds = 600000;
    Server server(limits);
    RtmpSession *session = server.session();
    Generator generator(session, 1);
    ScriptedPlayer stuck(server);
    stuck.playing("cam");
    Narrow(NewestOf(session), 4096);
    ScriptedPlayer other(server);
    other.playing("cam");
    size_t frames = 0;
    while (frames < 100000 && server.log.count("leaves") == 0) {
        ASSERT_EQ(SendVideo(session, VideoFrame(8000, frames % 10 == 0 ? kKey : kInter), 1000 + 40 * frames),
                  0);
        EXPECT_EQ(other.frame().timestamp, 40 * frames);
        frames++;
    }
    EXPECT_LT(frames, 100000U);
    ASSERT_EQ(SendVideo(session, VideoFrame(100, kKey), 1000 + 40 * frames), 0);
    EXPECT_EQ(other.frame().timestamp, 40 * frames);
}
