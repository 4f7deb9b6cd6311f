// Messages that are ended in the middle, by a signal or by a cancel: the player's connection ends behind the
// half, and a player of whom nothing has been asked yet misses a message and no more.
#include "delivery/senders/threaded_queue.h"
#include "delivery/write/client_send.h"
#include "delivery/write/socket_writer.h"
#include "net/client_state.h"
#include "support/session_rig.h"
#include "support/unread.h"

#include <atomic>
#include <csignal>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int32_t kChunk = 4096;
constexpr size_t kLarge = 4 << 20; // more than any socket takes

Bytes Frame(size_t length)
{
    Bytes frame = Counting(length);
    frame[4] = 0x65; // IDR
    return frame;
}

// What a message with this body looks like on the wire, from the header's length field on.
Bytes OnTheWire(const Bytes &body)
{
    Bytes wire = Hex("000000 09 01000000");
    wire[0] = static_cast<uint8_t>(body.size() >> 16);
    wire[1] = static_cast<uint8_t>(body.size() >> 8);
    wire[2] = static_cast<uint8_t>(body.size());
    for (size_t at = 0; at < body.size(); at += kChunk) {
        if (at > 0) {
            wire.push_back(0xC5);
        }
        const Bytes chunk = Slice(body, at, std::min<size_t>(kChunk, body.size() - at));
        wire.insert(wire.end(), chunk.begin(), chunk.end());
    }
    return wire;
}

Bytes VideoOnTheWire(const Bytes &frame)
{
    return OnTheWire(Hex("17 01 000000") + frame);
}

// Everything that comes before the end of the connection; `ended`: there was one.
Bytes ReadToEnd(int peer, bool *ended)
{
    const Bytes all = ReadBytes(peer, 64 << 20, 5000);
    char byte;
    *ended = recv(peer, &byte, 1, MSG_DONTWAIT) == 0;
    return all;
}

void ExpectHalfAndEnd(int peer, const Bytes &wire)
{
    bool ended = false;
    const Bytes got = ReadToEnd(peer, &ended);
    EXPECT_TRUE(ended);
    ASSERT_GT(got.size(), 4U);
    ASSERT_LT(got.size(), 4 + wire.size());
    EXPECT_TRUE(Slice(got, 4, got.size() - 4) == Slice(wire, 0, got.size() - 4)) << "nothing behind the half";
}

bool IsOpen(int peer)
{
    char byte;
    return recv(peer, &byte, 1, MSG_DONTWAIT | MSG_PEEK) != 0;
}

bool IsBeingWrittenTo(RtmpClient *client)
{
    if (pthread_mutex_trylock(&client->WriteLock) != 0) {
        return true;
    }
    pthread_mutex_unlock(&client->WriteLock);
    return false;
}

// Some of a message lies at the peer, and the writer waits for the peer to take it.
bool WaitForHalf(const RigClient &player)
{
    return WaitUntil([&] {
        pollfd room = {player.client->Socket, POLLOUT, 0};
        return UnreadBytes(player.peer) > 0 && poll(&room, 1, 0) == 0 && IsBeingWrittenTo(player.client);
    });
}

// Fills the socket to the last byte, so that of a message nothing at all goes out. Returns what was written.
size_t FillSocket(const RigClient &player)
{
    const Bytes filler(65536, 0xEE);
    size_t filled = 0;
    for (size_t size = filler.size(); size > 0; size /= 2) {
        ssize_t sent;
        while ((sent = send(player.client->Socket, filler.data(), size, MSG_DONTWAIT)) > 0) {
            filled += static_cast<size_t>(sent);
        }
    }
    return filled;
}

int Send(SessionRig &rig, const Bytes &frame, uint64_t timestamp, int fd = 0)
{
    return RtmpSendData(rig.session, frame.data(), static_cast<int32_t>(frame.size()), fd,
                        reinterpret_cast<uintptr_t>(frame.data()), timestamp, RTMP_FRAME_VIDEO);
}

// One frame, whole, with a full header.
void ExpectWhole(int peer, const Bytes &frame)
{
    const Bytes wire = VideoOnTheWire(frame);
    const Bytes got = ReadBytes(peer, 4 + wire.size());
    ASSERT_EQ(got.size(), 4 + wire.size());
    EXPECT_EQ(got[0], 5);
    EXPECT_TRUE(Slice(got, 4, wire.size()) == wire);
    EXPECT_TRUE(IsOpen(peer));
}

class HalfSent : public testing::Test {
  protected:
    HalfSent()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {}; // and calls are not restarted
        sigaction(SIGUSR1, &action, nullptr);
    }

    // Runs `write` on a thread of its own and signals it, once it is `stuck`, until it has come back.
    template <typename Write, typename Stuck> int interrupt(Write write, Stuck stuck)
    {
        std::atomic<bool> done{false};
        int result = 0;
        std::thread writer([&] {
            result = write();
            done = true;
            WaitUntil([&] { return joined_.load(); });
        });
        EXPECT_TRUE(stuck());
        EXPECT_TRUE(WaitUntil([&] {
            pthread_kill(writer.native_handle(), SIGUSR1);
            return done.load();
        }));
        joined_ = true;
        writer.join();
        joined_ = false;
        return result;
    }

  private:
    std::atomic<bool> joined_{false};
};

std::string FailedFor(const RtmpClient *client)
{
    char line[128];
    snprintf(line, sizeof line,
             "3 ERROR: SendMsgToConnectedClients: Sending data message to client {%p} failed",
             static_cast<const void *>(client));
    return line;
}

} // namespace

TEST_F(HalfSent, APlayerWhoseFrameASettingsCallEndsIsEndedAndTheOthersGoOn)
{
    SessionRig rig(kChunk, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    const RigClient stalled = rig.addClient();
    const RigClient healthy = rig.addClient();
    const Bytes large = Frame(kLarge);
    ASSERT_EQ(Send(rig, large, 1000), 0);
    ASSERT_TRUE(WaitForHalf(stalled));
    ASSERT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0);
    const Bytes small = Frame(100);
    ASSERT_EQ(Send(rig, small, 1033), 0);
    ExpectWhole(healthy.peer, small);
    ExpectHalfAndEnd(stalled.peer, VideoOnTheWire(large));
    EXPECT_EQ(rig.session->Queue->Closed, 0);
    EXPECT_FALSE(rig.log.contains("failed"));
}

TEST_F(HalfSent, APlayerToWhomNothingOfTheFrameHadGoneStays)
{
    SessionRig rig(kChunk, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    const RigClient player = rig.addClient();
    const size_t filled = FillSocket(player);
    ASSERT_EQ(Send(rig, Frame(1000), 1000), 0);
    ASSERT_TRUE(WaitUntil([&] { return IsBeingWrittenTo(player.client); }));
    ASSERT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0);
    EXPECT_EQ(ReadBytes(player.peer, filled), Bytes(filled, 0xEE));
    const Bytes small = Frame(100);
    ASSERT_EQ(Send(rig, small, 1033), 0);
    ExpectWhole(player.peer, small);
}

TEST_F(HalfSent, APlayerWhoseFrameASignalEndsIsEndedAndTheFrameFails)
{
    SessionRig rig(kChunk);
    const RigClient stalled = rig.addClient();
    const RigClient healthy = rig.addClient();
    const Bytes large = Frame(kLarge);
    std::thread reader;
    rig.log.clear();
    const auto stuck = [&] {
        const bool half = WaitForHalf(stalled);
        reader = std::thread([&] { ReadBytes(healthy.peer, 4 + VideoOnTheWire(large).size(), 20000); });
        return half;
    };
    EXPECT_EQ(interrupt([&] { return Send(rig, large, 1000); }, stuck), -1);
    reader.join();
    const std::vector<std::string> lines = rig.log.lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], "3 ERROR: RtmpSendMsgBytes: Unable to send message: 4 (Interrupted system call)");
    EXPECT_EQ(lines[1], "3 ERROR: SendMessage: SendMessage: Error occured while sending message");
    EXPECT_EQ(lines[2], FailedFor(stalled.client));
    rig.log.clear();
    DrainBytes(healthy.peer);
    EXPECT_EQ(Send(rig, Frame(100), 1033), 0);
    EXPECT_TRUE(rig.log.lines().empty());
    ExpectHalfAndEnd(stalled.peer, VideoOnTheWire(large));
}

TEST_F(HalfSent, APlayerWhoseFrameASignalEndsBeforeItsFirstByteStays)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    const size_t filled = FillSocket(player);
    const auto stuck = [&] { return WaitUntil([&] { return IsBeingWrittenTo(player.client); }); };
    EXPECT_EQ(interrupt([&] { return Send(rig, Frame(1000), 1000); }, stuck), -1);
    EXPECT_EQ(ReadBytes(player.peer, filled), Bytes(filled, 0xEE));
    const Bytes small = Frame(100);
    ASSERT_EQ(Send(rig, small, 1033), 0);
    ExpectWhole(player.peer, small);
}

TEST_F(HalfSent, AReplyThatASignalEndsEndsTheConnection)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient(CLIENT_STATE_CONNECT_DONE);
    const Bytes body = Counting(kLarge);
    RtmpSendPkt *message = static_cast<RtmpSendPkt *>(calloc(1, sizeof(RtmpSendPkt)));
    message->ChunkStreamId = 5;
    message->MsgTypeId = 9;
    message->MsgStreamId[0] = 1;
    message->PayloadLength = static_cast<uint32_t>(body.size());
    message->PayloadData = static_cast<uint8_t *>(malloc(body.size()));
    memcpy(message->PayloadData, body.data(), body.size());
    EXPECT_EQ(interrupt([&] { return SendMsgToClient(player.client, message, RTMP_MSG_CONNECT); },
                        [&] { return WaitForHalf(player); }),
              -1);
    ExpectHalfAndEnd(player.peer, OnTheWire(body));
}

TEST_F(HalfSent, APlayerWhoseFrameFromAFileIsEndedIsEndedToo)
{
    SessionRig rig(kChunk, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    const RigClient stalled = rig.addClient();
    const Bytes large = Frame(kLarge);
    const int fd = memfd_create("frame", 0);
    ASSERT_EQ(write(fd, large.data(), large.size()), static_cast<ssize_t>(large.size()));
    ASSERT_EQ(Send(rig, large, 1000, fd), 0);
    ASSERT_TRUE(WaitForHalf(stalled));
    ASSERT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0);
    ExpectHalfAndEnd(stalled.peer, VideoOnTheWire(large));
    close(fd);
}

TEST_F(HalfSent, AFileThatEndsBeforeItsFrameEndsTheConnection)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    const Bytes frame = Frame(20000);
    const int fd = memfd_create("short", 0);
    ASSERT_EQ(write(fd, frame.data(), 5000), 5000);
    EXPECT_EQ(Send(rig, frame, 1000, fd), -1);
    ExpectHalfAndEnd(player.peer, VideoOnTheWire(frame));
    close(fd);
}

// However often: a sender that is ended between two messages, or behind the last byte of one, ends nobody.
TEST_F(HalfSent, APlayerIsEndedOnlyInTheMiddleOfAMessage)
{
    SessionRig rig(kChunk, RTMP_MEDIA_BOTH, RTMP_SENDER_THREADED);
    const RigClient player = rig.addClient();
    const Bytes frame = Frame(30000);
    const Bytes wire = VideoOnTheWire(frame);
    for (uint64_t i = 0; i < 60; i++) {
        ASSERT_EQ(Send(rig, frame, 1000 + i), 0);
        while (UnreadBytes(player.peer) == 0) { // ended as soon as the first bytes are there
        }
        ASSERT_EQ(RtmpBWMSettings(rig.session, 1, 30), 0);
        const size_t got = ReadBytes(player.peer, static_cast<size_t>(UnreadBytes(player.peer))).size();
        ASSERT_TRUE(IsOpen(player.peer)) << got << " bytes, round " << i;
        ASSERT_EQ(player.client->MessageState, MESSAGE_WHOLE);
    }
}
