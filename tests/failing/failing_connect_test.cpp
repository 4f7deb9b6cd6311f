// The handshake of a publisher without memory, and without a digest.
#include "net/connect_handshake.h"
#include "support/calls.h"
#include "support/socket_client.h"

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
