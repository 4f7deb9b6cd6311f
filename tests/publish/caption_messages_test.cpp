// Captions of a publishing connection: a message of the host's to the first client, in front of its frame.
#include "publish_fixture.h"
#include "support/test_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

using namespace amf0;
using namespace wire;

namespace {

// The caption pair lies in bytes 11 to 14.
Bytes Sei(const std::string &pair)
{
    return Join({Hex("06 04 0D B5 0031 47413934 03"), Hex(pair), Hex("FF 80")});
}

// onCaption, <ten bytes>: a data message as a host builds it, of the library's own pieces.
RtmpSendPkt *MakeCaption(RtmpClient *client, uint64_t delta)
{
    RtmpServer *server = client->Server;
    const uint8_t *pair = client->Session->CcGen->Payload;
    std::string text = ToHex(pair, 10);
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return static_cast<char>(tolower(c)); });
    AmfObject values = {};
    EXPECT_EQ(WriteAmfString(server, &values, nullptr, "onCaption"), 0);
    EXPECT_EQ(WriteAmfString(server, &values, nullptr, text.c_str()), 0);
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = 7;
    message->MsgTypeId = RTMP_TYPE_AMF0_DATA;
    message->MsgKind = RTMP_MSG_CAPTION;
    message->MsgStreamId[0] = static_cast<uint8_t>(client->StreamId);
    message->HdrTimestampDelta[2] = static_cast<uint8_t>(delta);
    message->PayloadLength = GetAmfEncBuffSize(server, &values);
    message->PayloadData = EncodeAmfBuffer(server, static_cast<int32_t>(message->PayloadLength), &values);
    FreeAmfObject(server, &values, 1);
    return message;
}

Bytes CaptionBody(const std::string &pair)
{
    return Values({String("onCaption"), String("00 00 00 06 c1 " + pair + " ff")}).bytes;
}

class PublishedCaptions : public PublishFixture {
  protected:
    PublishedCaptions()
    {
        makeSession(1);
        session->CcGen->Enabled = 1;
        HostFakes::get().findCaptionPlace = [](const uint8_t *, int32_t, int32_t *) { return 0; };
        HostFakes::get().getSei = [this](uint64_t handle, uint8_t **bytes, int32_t *length, uint32_t) {
            EXPECT_EQ(handle, 0xCCU);
            *bytes = sei.data();
            *length = static_cast<int32_t>(sei.size());
        };
        HostFakes::get().captionMessage = [this](RtmpClient *to, uint32_t kind, uint64_t delta) {
            EXPECT_EQ(to, client);
            EXPECT_EQ(kind, unsigned{RTMP_MSG_CAPTION});
            deltas.push_back(delta);
            return MakeCaption(to, delta);
        };
        startFrames();
    }
    ~PublishedCaptions() override
    {
        service.command(Values({String("onFCPublish"), Number(0), Null()}).bytes);
        (void)HandleOne(client); // so that the client can be ended
    }

    void expectFrame(const Bytes &frame)
    {
        EXPECT_TRUE(Same(service.read().payload, Join({Hex("27 01 000000"), frame})));
    }

    Bytes sei = Sei("FC 94 2C 80");
    std::vector<uint64_t> deltas;
};

} // namespace

TEST_F(PublishedCaptions, GoOutInFrontOfTheirFrame)
{
    const Bytes frame = VideoFrame(400);
    EXPECT_EQ(SendVideo(session, frame, 1000), 0);
    const Bytes first = CaptionBody("fc 94 2c 80");
    EXPECT_TRUE(Sent(service.read(), "07 000000 00002C 12 01000000", first));
    expectFrame(frame);

    sei = Sei("FC 41 42 43");
    EXPECT_EQ(SendVideo(session, frame, 1040), 0);
    EXPECT_TRUE(Sent(service.read(), "87 000028", CaptionBody("fc 41 42 43")));
    expectFrame(frame);
    EXPECT_EQ(deltas, (std::vector<uint64_t>{0, 40}));
    expectSilence();
}

TEST_F(PublishedCaptions, WithoutTextAreNotSentAndTheirTimeIsCarriedOn)
{
    const Bytes frame = VideoFrame(400);
    EXPECT_EQ(SendVideo(session, frame, 1000), 0);
    service.read(2);
    sei = Sei("FC 94 80 80"); // an empty pair
    EXPECT_EQ(SendVideo(session, frame, 1040), 0);
    expectFrame(frame);
    sei = Sei("FC 41 42 43");
    EXPECT_EQ(SendVideo(session, frame, 1075), 0);
    EXPECT_TRUE(Sent(service.read(), "87 00004B", CaptionBody("fc 41 42 43")));
    expectFrame(frame);
    EXPECT_EQ(deltas, (std::vector<uint64_t>{0, 75}));
}

TEST_F(PublishedCaptions, AreNotForPlayers)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    RtmpClient *player = CreateNewRtmpClient(server, RTMP_CONN_RTMP, ends[0], "127.0.0.2", 0, nullptr);
    ASSERT_NE(player, nullptr);
    ScriptedPeer watcher(Connected{ends[1]});
    player->StreamId = 1;
    player->State = CLIENT_STATE_PLAY_DONE;
    ASSERT_EQ(AddClientInSession(session, player), 0);

    const Bytes frame = VideoFrame(400);
    EXPECT_EQ(SendVideo(session, frame, 1000), 0);
    EXPECT_EQ(service.read().type, 18);
    expectFrame(frame);
    watcher.chunks.chunkSize = 4096;
    EXPECT_TRUE(Same(watcher.read().payload, Join({Hex("27 01 000000"), frame})));
    EXPECT_EQ(recv(ends[1], ends, 1, MSG_DONTWAIT), -1) << "nothing else";

    watcher.command(Values({String("onFCPublish"), Number(0), Null()}).bytes);
    (void)HandleOne(player);
    EXPECT_EQ(DestroyRtmpClient(player), 0);
    close(ends[0]);
}

TEST_F(PublishedCaptions, WaitWhileThePublisherDoesNot)
{
    __atomic_store_n(&client->State, CLIENT_STATE_PAUSE_DONE, __ATOMIC_RELEASE);
    EXPECT_EQ(SendVideo(session, VideoFrame(400), 1000), 0);
    EXPECT_TRUE(deltas.empty());
    expectSilence();
}

TEST_F(PublishedCaptions, AHostWithoutAMessageIsLoggedAndItsFrameGoesOut)
{
    HostFakes::get().captionMessage = nullptr;
    const Bytes frame = VideoFrame(400);
    EXPECT_EQ(SendVideo(session, frame, 1000), 0);
    expectFrame(frame);
    EXPECT_EQ(
        log.count("3 ERROR: SendMsgToConnectedClients: Cannot generate rtmp data message of client : 0x"),
        1U);
}
