// Players of the steady road over real TLS: a socket that is full, answers beside frames, keys that are
// renewed meanwhile.
#include "net/atomic.h"
#include "net/client_state.h"
#include "serve/serve.h"
#include "state/client.h"
#include "steady/records.h"
#include "support/wait.h"
#include "tls_fixture.h"

using namespace wire;

namespace {

struct SteadyRow {
    const char *name;
    int version;
    bool partialWrites;
    int renewEvery;
};

class SteadyOverTls : public testing::TestWithParam<SteadyRow> {};

INSTANTIATE_TEST_SUITE_P(Each, SteadyOverTls,
                         testing::Values(SteadyRow{"Tls12", TLS1_2_VERSION, false, 0},
                                         SteadyRow{"Tls13", TLS1_3_VERSION, false, 0},
                                         SteadyRow{"Tls12InParts", TLS1_2_VERSION, true, 0},
                                         SteadyRow{"Tls13InPartsRenewingKeys", TLS1_3_VERSION, true, 1}),
                         [](const testing::TestParamInfo<SteadyRow> &row) { return row.param.name; });

bool IsSocketFull(RtmpClient *client)
{
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    return client->Line->WantsRoom != 0;
}

bool IsPicture(const Message &message)
{
    return message.chunkStream == 28;
}

} // namespace

// Nothing is lost, doubled or torn: the peer's TLS, and then its chunk reader, would notice.
TEST_P(SteadyOverTls, FramesAndAnswersArriveWholeAlthoughTheSocketIsFull)
{
    constexpr int kFrames = 40;
    TlsSetup setup;
    setup.version = GetParam().version;
    setup.partialWrites = GetParam().partialWrites;
    setup.renewEvery = GetParam().renewEvery;
    TestServer server;
    ASSERT_EQ(RtmpServiceSettings(server.server, nullptr), 0);
    RtmpSession *session = server.session();
    HandedClient player(server, setup);
    player.peer.chunks.standard = true;
    player.peer.socket.keepRecord(false);
    RtmpClient *client = player.giveAway();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, ServeRtmpClient, client), 0);
    player.peer.playing("cam");
    ASSERT_NE(client->Line, nullptr);
    for (int i = 0; i < kFrames; i++) {
        ASSERT_EQ(SendVideo(session, VideoFrame(100000 + static_cast<size_t>(i), i == 0 ? 0x65 : 0x41),
                            static_cast<uint64_t>(1000 + 40 * i)),
                  0);
    }
    ASSERT_TRUE(IsSocketFull(client));
    for (uint32_t ping = 0; ping < 20; ping++) {
        player.peer.pingRequest(ping);
    }
    int pictures = 0, answers = 0;
    while (pictures < kFrames || answers < 20) {
        const Message message = player.peer.read();
        if (IsPicture(message)) {
            ASSERT_EQ(Slice(message.payload, 5, message.payload.size()),
                      VideoFrame(100000 + static_cast<size_t>(pictures), pictures == 0 ? 0x65 : 0x41));
            ASSERT_EQ(message.timestamp, static_cast<uint32_t>(40 * pictures));
            pictures++;
        } else {
            ASSERT_EQ(message.payload, Join({Hex("0007"), BigEndian(static_cast<uint64_t>(answers), 4)}));
            answers++;
        }
    }
    ASSERT_EQ(SendVideo(session, VideoFrame(77, 0x65), 9000), 0);
    EXPECT_EQ(player.peer.read().payload.size(), 82u);
    player.peer.socket.leave();
    EXPECT_TRUE(WaitUntil([&] { return LoadShared(&session->ClientCount) == 0; }));
    pthread_detach(thread);
}
