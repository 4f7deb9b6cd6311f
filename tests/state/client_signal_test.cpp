#include "state/client_signal.h"

#include "net/client_state.h"
#include "state/client.h"
#include "support/session_rig.h"

#include <poll.h>
#include <sys/socket.h>

namespace {

// True when the peer can still be written to and has not been told of an end.
bool IsOpen(const RigClient &each)
{
    const uint8_t byte = 0x5A;
    uint8_t came = 0;
    return send(each.client->Socket, &byte, 1, MSG_NOSIGNAL) == 1 && recv(each.peer, &came, 1, 0) == 1;
}

} // namespace

TEST(ClientSignal, OnlyAConnectionThatIsBeingWrittenToIsShut)
{
    SessionRig rig;
    const RigClient idle = rig.addClient();
    const RigClient stuck = rig.addClient();
    ASSERT_EQ(pthread_mutex_lock(&stuck.client->WriteLock), 0); // as whoever writes to it holds it
    std::thread([&] { ShutStuckWrites(rig.session); }).join();
    EXPECT_TRUE(IsOpen(idle));
    uint8_t byte;
    EXPECT_EQ(recv(stuck.peer, &byte, 1, 0), 0);
    ASSERT_EQ(pthread_mutex_unlock(&stuck.client->WriteLock), 0);
}

TEST(ClientSignal, AConnectionThatIsClosedUnderAWriteEndsAtOnceAndTheWriteIsWaitedFor)
{
    SessionRig rig;
    const RigClient each = rig.addClient(CLIENT_STATE_CONNECT_DONE);
    std::thread owner;
    {
        ASSERT_EQ(pthread_mutex_lock(&each.client->WriteLock), 0); // the write
        owner = std::thread([&] { CloseClientSocket(each.client); });
        uint8_t byte;
        EXPECT_EQ(recv(each.peer, &byte, 1, 0), 0); // the peer sees the end although the write goes on
        EXPECT_EQ(SocketInUse(each.client), each.client->Socket) << "it is the writer's as long as it writes";
        ASSERT_EQ(pthread_mutex_unlock(&each.client->WriteLock), 0);
    }
    owner.join();
    EXPECT_EQ(SocketInUse(each.client), -1);
}
