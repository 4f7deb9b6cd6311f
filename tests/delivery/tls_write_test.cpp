// Messages to a client that carries a TLS handle: piece by piece through SSL_write, whatever it answers.
#include "delivery/write/client_send.h"
#include "delivery/write/fan_out.h"
#include "net/client_state.h"
#include "support/session_rig.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int32_t kChunk = 128;

// A session with one client over a TLS handle that is the test's own.
class TlsWrite : public testing::Test {
  protected:
    TlsWrite() : rig(kChunk), player(rig.addClient())
    {
        player.client->Tls = &handle;
        HostFakes::get().sslWrite = [this](void *tls, const void *bytes, int length) {
            EXPECT_EQ(tls, &handle);
            const int result = answer ? answer(calls.size(), length) : length;
            const uint8_t *from = static_cast<const uint8_t *>(bytes);
            calls.emplace_back(from, from + length);
            if (result > 0) {
                written.insert(written.end(), from, from + result);
            }
            return result;
        };
        rig.log.clear();
    }

    // 300 bytes behind a tag of 5: chunks of 128, 128 and 49.
    int send(int fd = 0, uint64_t mapBase = 0, const uint8_t *data = nullptr)
    {
        return SendMsgToConnectedClients(rig.session, data != nullptr ? data : frame.data(),
                                         static_cast<int32_t>(frame.size()), fd, mapBase, 0, RTMP_MSG_VIDEO);
    }

    std::string failedSend() const // the frame's line
    {
        char text[100];
        snprintf(text, sizeof text,
                 "3 ERROR: SendMsgToConnectedClients: Sending data message to client {%p} failed",
                 static_cast<void *>(player.client));
        return text;
    }

    bool peerSeesEnd() const
    {
        char byte;
        return recv(player.peer, &byte, 1, MSG_DONTWAIT) == 0;
    }

    SessionRig rig;
    RigClient player;
    char handle = 0;
    const Bytes frame = Counting(300, 0x40);
    std::function<int(size_t call, int length)> answer;
    std::vector<Bytes> calls;
    Bytes written;
};

const std::string kUnable = "3 ERROR: RtmpSendBytes: Unable to send buffer: ";
const std::string kSendMessage = "3 ERROR: SendMessage: SendMessage: Error occured while sending message";

} // namespace

TEST_F(TlsWrite, EveryPieceAndSeparatorIsWrittenInOrder)
{
    EXPECT_EQ(send(), 0);
    ASSERT_EQ(calls.size(), 7U);
    EXPECT_EQ(calls[0].size(), 12U);
    EXPECT_EQ(calls[1], Hex("27 01 000000"));
    EXPECT_EQ(calls[2], Slice(frame, 0, 123));
    EXPECT_EQ(calls[3], Hex("C5"));
    EXPECT_EQ(calls[4], Slice(frame, 123, 128));
    EXPECT_EQ(calls[5], Hex("C5"));
    EXPECT_EQ(calls[6], Slice(frame, 251, 49));
    EXPECT_TRUE(rig.log.lines().empty());
    EXPECT_TRUE(DrainBytes(player.peer).empty()) << "nothing past the handle";
}

// One failed piece hides behind the bytes of the others, on purpose.
TEST_F(TlsWrite, AFailedPieceIsMaskedWhenOthersWroteBytes)
{
    answer = [](size_t call, int length) {
        errno = EIO;
        return call == 4 ? -1 : length;
    };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(calls.size(), 7U) << "what follows is still written";
    EXPECT_EQ(written.size(), 12U + 5 + 300 + 2 - 128);
    EXPECT_EQ(rig.log.lines(), std::vector{kUnable + "5 (Input/output error)"});
}

TEST_F(TlsWrite, FailuresAreMaskedUntilTheyOutnumberTheBytes)
{
    answer = [](size_t call, int) {
        errno = EIO;
        return call == 3 ? 1 : -1; // the first separator is written, six pieces fail
    };
    EXPECT_EQ(send(), -1);
}

TEST_F(TlsWrite, FiveBytesDoNotMaskSixFailures)
{
    answer = [](size_t call, int length) {
        errno = EIO;
        return call == 1 ? length : -1; // the tag is written
    };
    EXPECT_EQ(send(), -1);
}

TEST_F(TlsWrite, TwelveBytesMaskSixFailures)
{
    answer = [](size_t call, int length) {
        errno = EIO;
        return call == 0 ? length : -1; // the header is written
    };
    EXPECT_EQ(send(), 0);
}

TEST_F(TlsWrite, NothingWrittenAtAllIsAFailure)
{
    answer = [](size_t, int) {
        errno = EPIPE;
        return -1;
    };
    EXPECT_EQ(send(), -1);
    std::vector<std::string> lines(7, kUnable + "32 (Broken pipe)");
    lines.push_back(kSendMessage);
    lines.push_back(failedSend());
    EXPECT_EQ(rig.log.lines(), lines);
    EXPECT_EQ(player.client->SendPktCount, 0U) << "the next frame starts with a full header";
}

// Whatever the result says: the peer would take the next message for the piece that is missing.
TEST_F(TlsWrite, AMessageWithAMissingPieceIsTheLast)
{
    answer = [](size_t call, int length) {
        errno = EIO;
        return call == 4 ? -1 : length;
    };
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(peerSeesEnd());
    calls.clear();
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(calls.empty()) << "no frame follows";
    RtmpSendPkt *reply = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    reply->ChunkStreamId = 3;
    EXPECT_EQ(SendMsgToClient(player.client, reply, RTMP_MSG_CONNECT), -1);
    EXPECT_TRUE(calls.empty()) << "nor a reply";
    EXPECT_TRUE(rig.log.contains("3 ERROR: RtmpSendMsgBytes: Unable to send message: 32 (Broken pipe)"));
}

TEST_F(TlsWrite, AMessageOfWhichNothingIsOutIsJustMissed)
{
    answer = [](size_t, int) {
        errno = EPIPE;
        return -1;
    };
    EXPECT_EQ(send(), -1);
    EXPECT_FALSE(peerSeesEnd());
    calls.clear();
    answer = nullptr;
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(calls.size(), 7U);
    EXPECT_FALSE(peerSeesEnd());
}

// A handle that says 0 has been closed by the peer. The sum is 0, and that is no failure.
TEST_F(TlsWrite, AClosedHandleIsReportedToTheHost)
{
    answer = [](size_t, int) { return 0; };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>(7, "6 INFO: RtmpSendBytes: Connection was closed by peer"));
    const std::pair<void *, int> error = {&handle, 0};
    EXPECT_EQ(HostFakes::get().tlsErrors(), std::vector(7, error));
}

TEST_F(TlsWrite, ShortWritesGoOnWhereTheyEnded)
{
    answer = [](size_t, int length) { return length > 50 ? 50 : length; };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(calls.size(), 11U) << "123 and 128 bytes take three writes each";
    EXPECT_EQ(Slice(written, 12, written.size() - 12), Hex("27 01 000000") + Slice(frame, 0, 123) +
                                                           Hex("C5") + Slice(frame, 123, 128) + Hex("C5") +
                                                           Slice(frame, 251, 49));
}

TEST_F(TlsWrite, AWriteThatWaitsForInputAlthoughThereIsRoomGoesOnAMomentLater)
{
    answer = [](size_t call, int length) {
        errno = EAGAIN; // as of a handle that is in the middle of a renegotiation
        return call == 2 ? -1 : length;
    };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(calls.size(), 8U);
    EXPECT_EQ(calls[2], calls[3]) << "the same bytes once more";
    EXPECT_EQ(written.size(), 12U + 5 + 300 + 2);
    EXPECT_TRUE(rig.log.lines().empty());
}

TEST_F(TlsWrite, AFrameInAFileIsReadFromMemory)
{
    const int file = memfd_create("frame", 0);
    ASSERT_EQ(ftruncate(file, 4096), 0);
    void *map = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(map, MAP_FAILED);
    std::copy(frame.begin(), frame.end(), static_cast<uint8_t *>(map));
    EXPECT_EQ(send(file, reinterpret_cast<uint64_t>(map), static_cast<uint8_t *>(map)), 0);
    EXPECT_EQ(calls.size(), 7U);
    EXPECT_EQ(calls[6], Slice(frame, 251, 49));
    EXPECT_TRUE(DrainBytes(player.peer).empty()) << "sendfile would have written here";
    munmap(map, 4096);
    close(file);
}
