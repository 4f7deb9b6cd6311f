#include "delivery/write/fan_out.h"
#include "support/session_rig.h"

#include <atomic>
#include <sys/socket.h>
#include <thread>

namespace {

// A fake generator: an SEI of 20 bytes whose caption pair stands in bytes 13 and 14, inserted at offset 10.
struct Captions {
    Bytes sei = Counting(20, 0xA0);
    int32_t place = 10;
    std::vector<std::pair<int32_t, int32_t>> growths; // nalSizePos, bytes
    std::vector<std::pair<uint64_t, uint32_t>> asked; // handle, delta
    std::vector<uint64_t> messageDeltas;

    explicit Captions(SessionRig &rig, uint8_t mode)
    {
        rig.session->CcGen->Enabled = 1;
        rig.session->CcGen->Mode = mode;
        HostFakes &fakes = HostFakes::get();
        fakes.findCaptionPlace = [this](const uint8_t *, int32_t, int32_t *nalSizePos) {
            *nalSizePos = 4;
            return place;
        };
        fakes.getSei = [this](uint64_t handle, uint8_t **bytes, int32_t *length, uint32_t delta) {
            asked.emplace_back(handle, delta);
            *bytes = sei.data();
            *length = static_cast<int32_t>(sei.size());
        };
        fakes.increaseNalSize = [this](uint8_t *frame, int32_t nalSizePos, int32_t bytes) {
            growths.emplace_back(nalSizePos, bytes);
            frame[3] = 0xEE; // seen on the wire: the host was given the copy of the frame
        };
        fakes.captionMessage = [this](RtmpClient *client, uint32_t kind, uint64_t delta) {
            messageDeltas.push_back(delta);
            RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
            message->ChunkStreamId = 9;
            message->MsgTypeId = RTMP_TYPE_AMF0_DATA;
            message->MsgKind = kind;
            message->MsgStreamId[0] = 1;
            message->PayloadLength = sizeof client->Session->CcGen->Payload;
            message->PayloadData = static_cast<uint8_t *>(calloc(1, message->PayloadLength));
            memcpy(message->PayloadData, client->Session->CcGen->Payload, message->PayloadLength);
            return message;
        };
    }
};

int SendVideo(SessionRig &rig, const Bytes &frame, uint64_t delta = 0)
{
    return SendMsgToConnectedClients(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0,
                                     delta, RTMP_MSG_VIDEO);
}

Bytes Body(const Bytes &wire)
{
    return Slice(wire, 12, wire.size() - 12);
}

} // namespace

TEST(Captions, InTheStreamTheSeiStandsAtItsPlaceAndTheMessageGrows)
{
    SessionRig rig;
    Captions captions(rig, 0);
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(30);
    ASSERT_EQ(SendVideo(rig, frame, 40), 0);
    const Bytes wire = DrainBytes(player.peer);
    EXPECT_EQ(Slice(wire, 4, 3), Hex("000037")); // 5 + 30 + 20
    Bytes copied = Slice(frame, 0, 10);
    copied[3] = 0xEE;
    EXPECT_EQ(Body(wire), Hex("27 01 000000") + copied + captions.sei + Slice(frame, 10, 20));
    EXPECT_EQ(captions.growths, (std::vector<std::pair<int32_t, int32_t>>{{4, 20}}));
    EXPECT_EQ(captions.asked, (std::vector<std::pair<uint64_t, uint32_t>>{{0xCC, 40}}));
}

TEST(Captions, APrefixLongerThanAChunkIsCutLikeTheRest)
{
    SessionRig rig(64);
    Captions captions(rig, 0);
    captions.place = 100;
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(150);
    ASSERT_EQ(SendVideo(rig, frame), 0);
    Bytes copied = Slice(frame, 0, 100);
    copied[3] = 0xEE;
    const Bytes message = Hex("27 01 000000") + copied + captions.sei + Slice(frame, 100, 50); // 175 bytes
    EXPECT_EQ(Body(DrainBytes(player.peer)), Slice(message, 0, 64) + Hex("C5") + Slice(message, 64, 64) +
                                                 Hex("C5") + Slice(message, 128, 47));
}

TEST(Captions, APrefixOf1023BytesFitsAndOneMoreIsRefusedInTheLog)
{
    SessionRig rig;
    Captions captions(rig, 0);
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(2000);
    captions.place = 1023 - 5 - 20;
    ASSERT_EQ(SendVideo(rig, frame), 0);
    EXPECT_EQ(DrainBytes(player.peer).size(), 12U + 5U + 2000U + 20U);
    captions.place++;
    rig.log.clear();
    ASSERT_EQ(SendVideo(rig, frame), 0);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{
                  "3 ERROR: SendMsgToConnectedClients: Not enough memory for qbox_copy (need 1024 bytes)"});
    const Bytes wire = DrainBytes(player.peer);
    EXPECT_EQ(Slice(wire, wire.size() - 2000, 2000), frame);
    EXPECT_EQ(captions.growths.size(), 1U);
}

TEST(Captions, NoPlaceOrAPlaceBeyondTheFrameLeavesTheFrameAlone)
{
    SessionRig rig;
    Captions captions(rig, 0);
    const RigClient player = rig.addClient();
    const Bytes frame = Counting(30);
    for (const int32_t place : {-1, 31, 1 << 30}) {
        captions.place = place;
        ASSERT_EQ(SendVideo(rig, frame), 0);
        const Bytes wire = DrainBytes(player.peer);
        EXPECT_EQ(Slice(wire, wire.size() - 35, 35), Hex("27 01 000000") + frame);
    }
    EXPECT_TRUE(captions.asked.empty());
}

TEST(Captions, DisabledCaptionsAskTheGeneratorNothing)
{
    SessionRig rig;
    Captions captions(rig, 0);
    rig.session->CcGen->Enabled = 0;
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendVideo(rig, Counting(30)), 0);
    EXPECT_TRUE(captions.asked.empty());
    EXPECT_EQ(DrainBytes(player.peer).size(), 47U);
}

TEST(Captions, AsAMessageThePairGoesToTheFirstClientInFrontOfTheFrame)
{
    SessionRig rig;
    Captions captions(rig, 1);
    const RigClient first = rig.addClient();
    const RigClient second = rig.addClient();
    ASSERT_EQ(SendVideo(rig, Counting(30), 40), 0);
    const Bytes wire = DrainBytes(first.peer);
    EXPECT_EQ(Slice(wire, 0, 22), Hex("09 000000 00000A 12 01000000 000000 06 C1 ABACADAE FF"));
    EXPECT_EQ(wire.size(), 22U + 47U);
    EXPECT_EQ(DrainBytes(second.peer).size(), 47U);
    EXPECT_EQ(captions.messageDeltas, std::vector<uint64_t>{40});
}

TEST(Captions, AnEmptyPairSendsNothingAndItsTimeIsCarriedOn)
{
    SessionRig rig;
    Captions captions(rig, 1);
    const RigClient player = rig.addClient();
    captions.sei[13] = 0x80;
    captions.sei[14] = 0x80;
    ASSERT_EQ(SendVideo(rig, Counting(30), 40), 0);
    ASSERT_EQ(SendVideo(rig, Counting(30), 33), 0);
    EXPECT_TRUE(captions.messageDeltas.empty());
    captions.sei[14] = 0x81;
    ASSERT_EQ(SendVideo(rig, Counting(30), 7), 0);
    ASSERT_EQ(SendVideo(rig, Counting(30), 5), 0);
    EXPECT_EQ(captions.messageDeltas, (std::vector<uint64_t>{80, 5}));
    DrainBytes(player.peer);
}

TEST(Captions, AGeneratorWithoutAnSeiIsNotAskedForAMessageAndItsTimeIsCarriedOn)
{
    SessionRig rig;
    Captions captions(rig, 1);
    const RigClient player = rig.addClient();
    const Bytes sei = captions.sei;
    captions.sei.clear();
    rig.log.clear();
    ASSERT_EQ(SendVideo(rig, Counting(30), 40), 0);
    ASSERT_EQ(SendVideo(rig, Counting(30), 33), 0);
    EXPECT_TRUE(captions.messageDeltas.empty());
    EXPECT_TRUE(rig.log.lines().empty());
    EXPECT_EQ(captions.asked.size(), 2U);
    captions.sei = sei;
    ASSERT_EQ(SendVideo(rig, Counting(30), 7), 0);
    EXPECT_EQ(captions.messageDeltas, std::vector<uint64_t>{80});
    DrainBytes(player.peer);
}

// Held together by the thread sanitizer.
TEST(Captions, TheModeMayChangeWhileFramesAreSent)
{
    SessionRig rig;
    Captions captions(rig, 0);
    const RigClient player = rig.addClient();
    std::atomic<bool> done{false};
    std::thread host([&] {
        for (uint8_t i = 0; !done; i++) {
            RtmpSenderSettings(rig.session, 0, 0, 0, 1, i % 3, 5, 10, 10);
        }
    });
    for (int i = 0; i < 300; i++) {
        const Bytes frame = Counting(30);
        EXPECT_EQ(RtmpSendData(rig.session, frame.data(), 30, 0, 0, 1000, RTMP_FRAME_VIDEO), 0);
        DrainBytes(player.peer);
    }
    done = true;
    host.join();
}

TEST(Captions, OnlyAPlayingFirstClientGetsMessages)
{
    SessionRig rig;
    Captions captions(rig, 1);
    rig.addClient(CLIENT_STATE_PAUSE_DONE);
    const RigClient second = rig.addClient();
    ASSERT_EQ(SendVideo(rig, Counting(30), 40), 0);
    EXPECT_TRUE(captions.messageDeltas.empty());
    EXPECT_EQ(DrainBytes(second.peer).size(), 47U);
}

TEST(Captions, AHostWithoutAMessageIsLoggedAndTheFrameGoesOut)
{
    SessionRig rig;
    Captions captions(rig, 1);
    HostFakes::get().captionMessage = nullptr;
    const RigClient player = rig.addClient();
    rig.log.clear();
    ASSERT_EQ(SendVideo(rig, Counting(30)), 0);
    char line[128];
    snprintf(line, sizeof line,
             "3 ERROR: SendMsgToConnectedClients: Cannot generate rtmp data message of client : %p",
             static_cast<void *>(player.client));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{line});
    EXPECT_EQ(DrainBytes(player.peer).size(), 47U);
}

TEST(Captions, AMessageThatCannotBeSentIsLoggedAndTheOthersGetTheFrame)
{
    SessionRig rig;
    Captions captions(rig, 1);
    const RigClient gone = rig.addClient();
    const RigClient player = rig.addClient();
    ASSERT_EQ(shutdown(gone.peer, SHUT_RDWR), 0);
    rig.log.clear();
    (void)SendVideo(rig, Counting(30));
    EXPECT_EQ(rig.log.count("3 ERROR: SendMsgToConnectedClients: Cannot send cc data message to server"), 1U);
    EXPECT_EQ(captions.messageDeltas.size(), 1U);
    EXPECT_EQ(DrainBytes(player.peer).size(), 47U);
}

TEST(Captions, AShortSeiReadsAsZeroWhereItEnds)
{
    SessionRig rig;
    Captions captions(rig, 1);
    captions.sei = Counting(12, 0xA0);
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendVideo(rig, Counting(30)), 0);
    EXPECT_EQ(Slice(DrainBytes(player.peer), 12, 10), Hex("000000 06 C1 AB000000 FF"));
}

TEST(Captions, OtherModesDoNothing)
{
    SessionRig rig;
    Captions captions(rig, 2);
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendVideo(rig, Counting(30)), 0);
    EXPECT_EQ(DrainBytes(player.peer).size(), 47U);
    EXPECT_TRUE(captions.messageDeltas.empty());
    EXPECT_TRUE(captions.growths.empty());
}
