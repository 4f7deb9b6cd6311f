// The traps of publishing by hand (publish.h), which are the default road's behaviour and stay. What the
// publisher does in their place is tested beside them, in this folder; the other traps are pinned where their
// rules are: metadata without a value behind "stereo" by Publishing.AStreamReachesTheService, a handle of two
// threads by tests/tls.
#include "support/calls.h"
#include "support/scripted_peer.h"
#include "support/session_rig.h"
#include "support/test_server.h"

#include <unistd.h>

using namespace wire;

namespace {

constexpr uint64_t kMade = 1000000;

// A client record as a host makes it, 2 s old when its first message goes out.
struct ByHandRig {
    ByHandRig()
    {
        calls::setClock(kMade);
        rig = std::make_unique<SessionRig>();
        const RigClient added = rig->addClient();
        client = added.client;
        client->StreamId = 1;
        peer = std::make_unique<ScriptedPeer>(Connected{dup(added.peer)});
        peer->chunks.chunkSize = 4096;
        peer->chunks.standard = true;
        calls::setClock(kMade + 2000);
    }
    ~ByHandRig()
    {
        rig.reset();
        calls::reset();
    }
    // On the chunk stream of the pictures, in a packet that is zero but for what it must say.
    int send(const Bytes &payload, uint32_t type)
    {
        RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof *message));
        message->ChunkStreamId = client->StatusChunkStreamId;
        message->MsgTypeId = type;
        message->PayloadLength = static_cast<uint32_t>(payload.size());
        message->PayloadData = static_cast<uint8_t *>(malloc(payload.size()));
        std::copy(payload.begin(), payload.end(), message->PayloadData);
        message->MsgStreamId[0] = 1;
        return SendMsgToClient(client, message, RTMP_MSG_RESULT);
    }
    std::unique_ptr<SessionRig> rig;
    std::unique_ptr<ScriptedPeer> peer;
    RtmpClient *client;
};

} // namespace

// The message's time is 0, and the pictures' clock goes on from there; sound begins at the age of the
// connection.
TEST(ByHand, AMessageWithoutATimeSeparatesPicturesFromSound)
{
    ByHandRig byHand;
    ASSERT_EQ(byHand.send(Bytes(20, 2), 18), 0);
    EXPECT_EQ(byHand.peer->read().timestamp, 0U);
    EXPECT_EQ(SendVideo(byHand.rig->session, VideoFrame(300, 0x65), 5000), 0);
    EXPECT_EQ(SendAudio(byHand.rig->session, Bytes(50, 1), 5010), 0);
    EXPECT_EQ(SendVideo(byHand.rig->session, VideoFrame(310, 0x41), 5040), 0);
    uint32_t sound = 0, picture = 0;
    for (int i = 0; i < 3; i++) {
        const Message message = byHand.peer->read();
        (message.type == 8 ? sound : picture) = message.timestamp;
    }
    EXPECT_GE(sound, 2000U);
    EXPECT_LT(picture, 200U) << "two seconds of lip error";
}

// Behind a longer picture it is taken to have that one's length: its header leaves the length out.
TEST(ByHand, APictureOfTheHeadersLengthLosesItsLength)
{
    ByHandRig byHand;
    ASSERT_EQ(byHand.send(AvcHeaderBody(), 9), 0);
    byHand.peer->read();
    EXPECT_EQ(SendVideo(byHand.rig->session, VideoFrame(900, 0x65), 5000), 0);
    EXPECT_EQ(byHand.peer->read().payload.size(), 905U);
    EXPECT_EQ(SendVideo(byHand.rig->session, VideoFrame(AvcHeaderBody().size() - 5, 0x41), 5040), 0);
    EXPECT_GE(byHand.peer->socket.receive(1)[0] >> 6, 2) << "type 2 or 3: of 905 bytes, for who reads RTMP";
}
