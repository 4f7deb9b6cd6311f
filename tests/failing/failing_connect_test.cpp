// The handshake of a publisher without memory, and without a digest.
#include "net/connect_handshake.h"
#include "support/calls.h"
#include "support/scripted_peer.h"
#include "support/socket_client.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

using Lines = std::vector<std::string>;

const std::string kHandshake = "3 ERROR: RtmpPublisherHandshake: ";

} // namespace

TEST(ConnectHandshakeFailing, WithoutMemoryNothingIsSent)
{
    SocketClient client;
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(ConnectHandshake(client.get(), 1), -1);
    }
    EXPECT_EQ(client.takeLines(), Lines{kHandshake + "Cannot allocate memory to handshake packets"});
    ASSERT_EQ(shutdown(client->Socket, SHUT_WR), 0);
    EXPECT_TRUE(client.receive(1).empty());
}

TEST(ConnectHandshakeFailing, WithoutADigestC1IsNotSent)
{
    SocketClient client;
    {
        const FailingCall failing(Call::Hmac);
        EXPECT_EQ(ConnectHandshake(client.get(), 1), -1);
    }
    EXPECT_EQ(client.takeLines(), Lines{kHandshake + "Cannot sign C1"});
    ASSERT_EQ(shutdown(client->Socket, SHUT_WR), 0);
    EXPECT_TRUE(client.receive(1).empty());
}

// A service that signs is not answered as one that does not.
TEST(ConnectHandshakeFailing, WithoutADigestNoC2IsSent)
{
    constexpr int ofC1 = 1;
    constexpr int most = 5; // of S1 at each of its two places, and two of C2
    Bytes s1 = Counting(1536);
    const size_t at = wire::DigestOffset(s1, 2);
    const Bytes digest = wire::PacketDigest(s1, at, wire::ServerKey().substr(0, 36));
    std::copy(digest.begin(), digest.end(), s1.begin() + static_cast<std::ptrdiff_t>(at));
    for (int number = ofC1 + 1; number <= most; number++) {
        SCOPED_TRACE(number);
        SocketClient client;
        client.send(Hex("03") + s1 + Counting(1536));
        {
            const FailingCall failing(Call::Hmac, number);
            EXPECT_EQ(ConnectHandshake(client.get(), 1), -1);
        }
        EXPECT_EQ(client.takeLines(), Lines{kHandshake + "Cannot sign C2"});
        ASSERT_EQ(shutdown(client->Socket, SHUT_WR), 0);
        EXPECT_EQ(client.receive(2 * 1537).size(), 1537U);
    }
}
