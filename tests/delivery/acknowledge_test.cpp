#include "delivery/replies/acknowledge.h"

#include "rtmpcast/player.h"
#include "rtmpcast/publish.h"
#include "support/session_rig.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

using Lines = std::vector<std::string>;

class Acknowledge : public testing::Test {
  protected:
    Acknowledge()
    {
        player.client->PlayerFlags = RTMP_PLAYERS_ACKNOWLEDGE;
        player.client->WindowAckSize = 1000;
        rig.log.clear();
    }

    // The values that are acknowledged after `received` bytes have come in all.
    Bytes after(uint32_t received)
    {
        player.client->BytesReceived = received;
        AcknowledgeReceived(player.client);
        return DrainBytes(player.peer);
    }
    // type 3, four bytes, on chunk stream 2, with a full header each time
    static testing::AssertionResult IsAcknowledgement(const Bytes &bytes, const std::string &value)
    {
        return Matches(bytes, "02 ?????? 000004 03 00000000 " + value);
    }

    SessionRig rig;
    RigClient player = rig.addClient();
};

TEST_F(Acknowledge, IsSentWithTheNumberOfBytesOncePerWindow)
{
    EXPECT_EQ(after(999), Bytes{});
    EXPECT_TRUE(IsAcknowledgement(after(1000), "000003E8"));
    EXPECT_EQ(after(1000), Bytes{});
    EXPECT_EQ(after(1999), Bytes{});
    EXPECT_TRUE(IsAcknowledgement(after(2500), "000009C4"));
    EXPECT_EQ(after(3499), Bytes{}); // a window behind the last one that was sent
    EXPECT_TRUE(IsAcknowledgement(after(3500), "00000DAC"));
    EXPECT_EQ(rig.log.lines(), Lines{});
}

TEST_F(Acknowledge, IsTakenForNoOtherControlMessageAndNoOtherForIt)
{
    const auto streamBegin = [this] {
        EXPECT_EQ(SendMsgToClient(player.client,
                                  GenerateRtmpMsg(player.client, nullptr, RTMP_MSG_STREAM_BEGIN),
                                  RTMP_MSG_STREAM_BEGIN),
                  0);
        return DrainBytes(player.peer);
    };
    EXPECT_TRUE(Matches(streamBegin(), "02 ?????? 000006 04 00000000 0000 ????????"));
    EXPECT_TRUE(IsAcknowledgement(after(1000), "000003E8"));
    for (int i = 0; i < 2; i++) { // not shortened against the stream begin in front of the acknowledgement
        EXPECT_TRUE(Matches(streamBegin(), "42 ?????? 000006 04 0000 ????????"));
    }
    EXPECT_TRUE(IsAcknowledgement(after(2000), "000007D0"));
}

TEST_F(Acknowledge, IsNotSentWithoutTheRuleOrAWindow)
{
    player.client->PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_ACKNOWLEDGE;
    EXPECT_EQ(after(5000), Bytes{});
    player.client->PlayerFlags = RTMP_PLAYERS_ALL;
    player.client->WindowAckSize = 0;
    EXPECT_EQ(after(5000), Bytes{});
    EXPECT_EQ(rig.log.lines(), Lines{});
}

TEST_F(Acknowledge, CountsOnBehindTheLargestNumber)
{
    player.client->BytesAcknowledged = 0xFFFFFF00;
    EXPECT_EQ(after(0x000002E7), Bytes{}); // 999 bytes on
    EXPECT_TRUE(IsAcknowledgement(after(0x000002E8), "000002E8"));
}

TEST_F(Acknowledge, TheLargestWindowIsKept)
{
    player.client->WindowAckSize = 0xFFFFFFFF;
    EXPECT_EQ(after(0xFFFFFFFE), Bytes{});
    EXPECT_TRUE(IsAcknowledgement(after(0xFFFFFFFF), "FFFFFFFF"));
}

TEST_F(Acknowledge, IsTriedAgainAWindowLaterWhenItCannotBeSent)
{
    shutdown(player.client->Socket, SHUT_WR);
    player.client->BytesReceived = 1000;
    AcknowledgeReceived(player.client);
    EXPECT_EQ(rig.log.count("3 ERROR: AcknowledgeReceived: Cannot send response message to client"), 1U);
    player.client->BytesReceived = 1999;
    AcknowledgeReceived(player.client);
    EXPECT_EQ(rig.log.count("3 ERROR: AcknowledgeReceived"), 1U);
    player.client->BytesReceived = 2000;
    AcknowledgeReceived(player.client);
    EXPECT_EQ(rig.log.count("3 ERROR: AcknowledgeReceived"), 2U);
}

} // namespace
