// The library over TLS: the same bytes as in the clear, read and written through the host's handle.
#include "net/client_state.h"
#include "net/handshake.h"
#include "tls_fixture.h"

#include <cstdlib>
#include <ctime>

using namespace amf0;
using namespace wire;

namespace {

constexpr uint64_t kStart = 1000000;
constexpr size_t kPacket = 1536;

class TlsVersions : public testing::TestWithParam<int> {
  protected:
    TlsSetup setup() const
    {
        TlsSetup wanted;
        wanted.version = GetParam();
        return wanted;
    }
};

INSTANTIATE_TEST_SUITE_P(Both, TlsVersions, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const testing::TestParamInfo<int> &version) {
                             return version.param == TLS1_2_VERSION ? "Tls12" : "Tls13";
                         });

void TalkAndReceive(TestServer &server, HandedClient &player, FrameFile &file)
{
    RtmpSession *session = server.session();
    calls::setClock(kStart + 17);
    player.play("cam");
    calls::setClock(kStart + 400);
    std::thread encoder([&] {
        EXPECT_EQ(SendVideo(session, VideoFrame(50000, 0x65), 1000), 0);
        EXPECT_EQ(SendAudio(session, Bytes(700, 0x21), 1005), 0);
        EXPECT_EQ(file.sendVideo(session, VideoFrame(30000), 1040), 0);
        EXPECT_EQ(SendVideo(session, VideoFrame(195), 1080), 0); // one chunk, with its tag
    });
    player.peer.read(4);
    encoder.join();

    player.serve(1, [&] { player.peer.command(PauseCommand(true)); });
    EXPECT_EQ(player.peer.read().type, 20);
    EXPECT_EQ(SendVideo(session, VideoFrame(300), 1120), 0); // not for a paused player
    calls::setClock(kStart + 900);
    player.serve(1, [&] { player.peer.command(PauseCommand(false)); });
    player.peer.chunks.restart();
    player.peer.read(7);
    EXPECT_EQ(SendVideo(session, VideoFrame(300, 0x65), 1160), 0);
    player.peer.read();
    player.serve(1, [&] { EXPECT_TRUE(player.peer.settle().empty()); });
    player.serve(1, [&] { player.peer.command(DeleteStreamCommand()); });
    EXPECT_EQ(ClientStateOf(player.client), unsigned{CLIENT_STATE_DELETESTREAM});
}

// Every byte that a player gets from its handshake to its end.
Bytes WholeTalk(const std::optional<TlsSetup> &setup)
{
    calls::setClock(kStart);
    srand(4711); // the random part of S1
    TestServer server(200);
    HandedClient player(server, setup);
    FrameFile file;
    TalkAndReceive(server, player, file);
    return player.peer.socket.takeRecord();
}

} // namespace

TEST_P(TlsVersions, APlayerGetsTheBytesThatItGetsInTheClear)
{
    const Bytes clear = WholeTalk(std::nullopt);
    EXPECT_EQ(TakeSendfileTargets().size(), (30000U + 5 + 199) / 200) << "a chunk each, in the clear";
    const Bytes overTls = WholeTalk(setup());
    EXPECT_TRUE(TakeSendfileTargets().empty());
    EXPECT_GT(clear.size(), 80000U);
    EXPECT_TRUE(Same(overTls, clear));
}

TEST_P(TlsVersions, TheHandshakeIsSignedAsInTheClear)
{
    calls::setClock(0x01020304);
    TestServer server;
    HandedClient player(server, setup());
    HandshakeRecord record;
    player.serve(0, [&] { record = player.peer.handshake({.scheme = 2, .pieceSize = 100}); });
    EXPECT_TRUE(Matches(Slice(record.s1, 0, 8), "01020304 03050101"));
    const size_t offset = DigestOffset(record.s1, 1);
    const Bytes serverDigest = Slice(record.s1, offset, 32);
    EXPECT_TRUE(Same(serverDigest, PacketDigest(record.s1, offset, ServerKey().substr(0, 36))));
    EXPECT_TRUE(Same(Slice(record.s2, 0, kPacket - 32), Slice(record.c1, 0, kPacket - 32)));
    EXPECT_EQ(server.log.count("6 INFO: PerformHandshake: Handshake done"), 1U);
}

TEST(Tls, APlayerThatDoesNotSignIsRefused)
{
    TestServer server;
    HandedClient player(server, TlsSetup{});
    std::thread host([&] { EXPECT_EQ(PerformHandshake(player.client), -1); });
    player.peer.socket.send(Join({{3}, Bytes(kPacket, 0)}));
    player.peer.socket.receive(1 + kPacket);
    host.join();
    EXPECT_TRUE(server.log.contains("3 ERROR: PerformHandshake: Cannot varify the client digest"));
}

TEST_P(TlsVersions, ChunksAreReadWhateverTheRecords)
{
    TestServer server;
    HandedClient player(server, setup());
    const Bytes command =
        Values({String("onFCPublish"), Number(0), Null(), String(std::string(700, 'x'))}).bytes;
    const Bytes chunks = Chunks({.payload = command});
    for (const size_t pieceSize : {size_t{1}, size_t{127}, chunks.size()}) {
        std::thread writer([&] { player.peer.socket.sendInPieces(chunks, pieceSize); });
        const Handled handled = HandleOne(player.client);
        writer.join();
        ASSERT_NE(handled.message, nullptr);
        EXPECT_EQ(handled.kind, unsigned{RTMP_MSG_ON_FC_PUBLISH});
        EXPECT_TRUE(Same(Bytes(handled.message->PayloadData, handled.message->PayloadData + command.size()),
                         command));
    }
    // Three messages in one record.
    player.peer.socket.send(Join({chunks, chunks, chunks}));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(HandleOne(player.client).kind, unsigned{RTMP_MSG_ON_FC_PUBLISH});
    }
}

// A file cannot be encrypted on its way by the kernel: such frames are written from memory.
TEST_P(TlsVersions, AFrameInAFileGoesThroughTheHandle)
{
    TestServer server(700);
    RtmpSession *session = server.session();
    HandedClient player(server, setup());
    HandedClient inTheClear(server, std::nullopt);
    player.play("cam");
    inTheClear.play("cam");
    FrameFile file;
    for (const size_t length : {5UL, 694UL, 695UL, 696UL, 1395UL, 200000UL}) {
        const Bytes frame = VideoFrame(length, 0x65);
        std::thread sender([&] { EXPECT_EQ(file.sendVideo(session, frame, 1000 + length), 0); });
        const Message message = player.peer.read();
        const Message clear = inTheClear.peer.read();
        sender.join();
        EXPECT_TRUE(Same(message.payload, Join({Hex("17 01 000000"), frame})));
        EXPECT_TRUE(Same(clear.payload, message.payload));
        EXPECT_EQ(message.chunks, clear.chunks);
    }
    const std::vector<int> written = TakeSendfileTargets();
    EXPECT_FALSE(written.empty());
    EXPECT_EQ(std::count(written.begin(), written.end(), inTheClear.client->Socket),
              static_cast<ptrdiff_t>(written.size()));
}

TEST_P(TlsVersions, AFrameLargerThanEveryBufferArrivesWhole)
{
    for (const bool partialWrites : {false, true}) {
        TlsSetup wanted = setup();
        wanted.partialWrites = partialWrites; // SSL_write then writes at most one record of 16 KiB
        TestServer server(100000);
        RtmpSession *session = server.session();
        HandedClient player(server, wanted);
        player.play("cam");
        const Bytes frame = VideoFrame(1000000, 0x65);
        std::thread sender([&] { EXPECT_EQ(SendVideo(session, frame, 1000), 0); });
        const Message message = player.peer.read();
        sender.join();
        EXPECT_TRUE(Same(message.payload, Join({Hex("17 01 000000"), frame})));
        EXPECT_EQ(message.chunks, 11U);
        EXPECT_FALSE(server.log.contains("ERROR"));
    }
}

// The library's end of TLS may be the one that connects: a host that publishes to a service.
TEST_P(TlsVersions, AStreamIsPublishedAndTheServiceAnswered)
{
    calls::setClock(kStart);
    TestServer server;
    RtmpSession *session = server.session();
    TlsSetup wanted = setup();
    wanted.role = LibraryEnd::Connects;
    HandedClient publisher(server, wanted);
    ScriptedPeer &service = publisher.peer;
    PublishCtx context = {};
    publisher.client->PublishCtx = &context;
    EXPECT_EQ(AnnounceChunkSize(publisher.client), 0);
    EXPECT_EQ(SendConnect(publisher.client, "live", 1), 0);
    service.read(2);
    service.command(Values({String("_result"), Number(1), Null()}).bytes);
    EXPECT_EQ(HandleOne(publisher.client).kind, unsigned{RTMP_MSG_RESULT});
    EXPECT_EQ(context.ResultTransactionId, 1);

    calls::setClock(kStart + 0x0102);
    service.command(Values({String("ping"), Number(0), Null()}).bytes);
    EXPECT_EQ(HandleOne(publisher.client).kind, unsigned{RTMP_MSG_USTREAM_PING});
    EXPECT_TRUE(Same(service.socket.receive(13), Hex("000102 000000 14 00000000 0000")));

    publisher.client->StreamId = 1;
    EXPECT_EQ(StartFrames(publisher.client, session), 0);
    EXPECT_TRUE(Same(service.read().payload, MetaDataBody()));
    EXPECT_TRUE(Same(service.read().payload, AvcHeaderBody()));
    EXPECT_TRUE(Same(service.read().payload, AacHeaderBody()));
    FrameFile file;
    const Bytes frame = VideoFrame(10000, 0x65);
    EXPECT_EQ(file.sendVideo(session, frame, 1000), 0);
    EXPECT_TRUE(Sent(service.read(), "44 000000 002715 09", Join({Hex("17 01 000000"), frame})));
    EXPECT_TRUE(TakeSendfileTargets().empty());
}
