#include "delivery/write/pieces.h"
#include "delivery/write/socket_writer.h"
#include "state/client.h"
#include "support/session_rig.h"

#include <csignal>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

struct FrameInFile {
    explicit FrameInFile(const Bytes &bytes) : fd(memfd_create("frame", 0))
    {
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    ~FrameInFile()
    {
        close(fd);
    }
    int fd;
};

} // namespace

TEST(SocketWriter, AFileForAPlayerWhoIsGoneFailsWithoutASignal)
{
    signal(SIGPIPE, SIG_DFL);
    SessionRig rig;
    const RigClient player = rig.addClient();
    shutdown(player.peer, SHUT_RDWR);
    const Bytes bytes = Counting(100);
    const FrameInFile file(bytes);
    const RtmpPiece piece = {bytes.data(), 100, 0};
    const RtmpSendPkt message = {};
    rig.log.clear();
    EXPECT_EQ(
        SendFile(player.client, &piece, 1, &message, file.fd, reinterpret_cast<uintptr_t>(bytes.data())), -1);
    EXPECT_EQ(rig.log.lines(),
              Lines{"3 ERROR: SendFile: SendFile: Error occured while sending message using sendfile"});

    sigset_t set;
    sigpending(&set);
    EXPECT_EQ(sigismember(&set, SIGPIPE), 0);
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    EXPECT_EQ(sigismember(&set, SIGPIPE), 0);
}

TEST(SocketWriter, ASeparatorForAPlayerWhoIsGoneFailsBeforeThePieceBehindIt)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    shutdown(player.peer, SHUT_RDWR);
    const Bytes bytes = Counting(100);
    const FrameInFile file(bytes);
    const RtmpPiece piece = {bytes.data(), 100, 1};
    const RtmpSendPkt message = {};
    rig.log.clear();
    EXPECT_EQ(
        SendFile(player.client, &piece, 1, &message, file.fd, reinterpret_cast<uintptr_t>(bytes.data())), -1);
    const Lines lines = rig.log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(),
              "3 ERROR: SendFile: SendFIle: Error occured while sending message using RtmpSendBytes");
    EXPECT_EQ(rig.log.count("sendfile"), 0U);
}

TEST(SocketWriter, AHostThatHoldsTheSignalBackFindsItPending)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    SessionRig rig;
    const RigClient player = rig.addClient();
    shutdown(player.peer, SHUT_RDWR);
    const Bytes bytes = Counting(100);
    const FrameInFile file(bytes);
    const RtmpPiece piece = {bytes.data(), 100, 0};
    const RtmpSendPkt message = {};
    EXPECT_EQ(
        SendFile(player.client, &piece, 1, &message, file.fd, reinterpret_cast<uintptr_t>(bytes.data())), -1);
    sigpending(&set);
    EXPECT_EQ(sigismember(&set, SIGPIPE), 1);
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    const timespec atOnce = {};
    EXPECT_EQ(sigtimedwait(&set, nullptr, &atOnce), SIGPIPE);
}
