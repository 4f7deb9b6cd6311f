#include "delivery/write/fan_out.h"
#include "net/client_state.h"
#include "state/client.h"
#include "support/session_rig.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int32_t kChunk = 128;

// A video frame of `length` bytes: NAL length, NAL header, then counting bytes.
Bytes VideoFrame(size_t length, uint8_t nalHeader)
{
    Bytes frame = Counting(length);
    const uint32_t nal = static_cast<uint32_t>(length - 4);
    frame[0] = static_cast<uint8_t>(nal >> 24);
    frame[1] = static_cast<uint8_t>(nal >> 16);
    frame[2] = static_cast<uint8_t>(nal >> 8);
    frame[3] = static_cast<uint8_t>(nal);
    frame[4] = nalHeader;
    return frame;
}

int SendVideo(SessionRig &rig, const Bytes &frame, uint64_t delta = 0, int fd = 0, uint64_t mapBase = 0)
{
    return SendMsgToConnectedClients(rig.session, frame.data(), static_cast<int32_t>(frame.size()), fd,
                                     mapBase, delta, RTMP_MSG_VIDEO);
}

int SendAudio(SessionRig &rig, const Bytes &frame, uint64_t delta = 0)
{
    return SendMsgToConnectedClients(rig.session, frame.data(), static_cast<int32_t>(frame.size()), 0, 0,
                                     delta, RTMP_MSG_AUDIO);
}

Bytes U24(size_t value)
{
    return {static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

// A type 0 header on chunk stream `csid`, message stream 1, with its three timestamp bytes cut out.
Bytes FullHeaderRest(size_t length, uint8_t type)
{
    return U24(length) + Bytes{type, 1, 0, 0, 0};
}

// Checks a type 0 header at the start of `bytes` and returns what follows it.
Bytes BehindFullHeader(const Bytes &bytes, uint8_t csid, size_t length, uint8_t type)
{
    EXPECT_GE(bytes.size(), 12U);
    EXPECT_EQ(bytes[0], csid);
    EXPECT_EQ(Slice(bytes, 4, 8), FullHeaderRest(length, type));
    return Slice(bytes, 12, bytes.size() - 12);
}

} // namespace

TEST(FanOut, AFrameThatFillsItsChunkWithTheTagHeaderIsOneChunk)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    const Bytes frame = VideoFrame(kChunk - 5, 0x65);
    ASSERT_EQ(SendVideo(rig, frame), 0);
    EXPECT_EQ(BehindFullHeader(DrainBytes(player.peer), 5, kChunk, 9), Hex("17 01 000000") + frame);
}

TEST(FanOut, OneByteMoreMakesASecondChunkBehindASeparator)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    const Bytes frame = VideoFrame(kChunk - 4, 0x41);
    ASSERT_EQ(SendVideo(rig, frame), 0);
    const Bytes expected =
        Hex("27 01 000000") + Slice(frame, 0, kChunk - 5) + Hex("C5") + Slice(frame, kChunk - 5, 1);
    EXPECT_EQ(BehindFullHeader(DrainBytes(player.peer), 5, kChunk + 1, 9), expected);
}

TEST(FanOut, TheFrameTypeFollowsTheFirstNalUnit)
{
    const struct {
        uint8_t nalHeader;
        uint8_t tag;
    } rows[] = {{0x65, 0x17}, {0x67, 0x17}, {0x68, 0x17}, {0x41, 0x27},
                {0x01, 0x27}, {0x06, 0x27}, {0x09, 0x27}};
    for (const auto &row : rows) {
        SessionRig rig;
        const RigClient player = rig.addClient();
        ASSERT_EQ(SendVideo(rig, VideoFrame(20, row.nalHeader)), 0);
        EXPECT_EQ(BehindFullHeader(DrainBytes(player.peer), 5, 25, 9)[0], row.tag) << int(row.nalHeader);
    }
}

TEST(FanOut, AFrameShorterThanItsNalLengthIsAnInterFrame)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    const Bytes frame = Hex("0000");
    ASSERT_EQ(SendVideo(rig, frame), 0);
    EXPECT_EQ(BehindFullHeader(DrainBytes(player.peer), 5, 7, 9), Hex("27 01 000000 0000"));
}

TEST(FanOut, AudioGoesOutOnItsOwnChunkStreamBehindTwoBytes)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendAudio(rig, Hex("2110 04FF")), 0);
    EXPECT_EQ(BehindFullHeader(DrainBytes(player.peer), 6, 6, 8), Hex("AF 01 211004FF"));
}

TEST(FanOut, LaterFramesCarryTheirDeltaInTheShortestHeader)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    const Bytes frame = VideoFrame(20, 0x41);
    const Bytes longer = VideoFrame(21, 0x41);
    ASSERT_EQ(SendVideo(rig, frame), 0);
    DrainBytes(player.peer);
    ASSERT_EQ(SendVideo(rig, frame, 33), 0); // same length: only the delta differs
    EXPECT_EQ(DrainBytes(player.peer), Hex("85 000021 27 01 000000") + frame);
    ASSERT_EQ(SendVideo(rig, longer, 40), 0); // another length
    EXPECT_EQ(DrainBytes(player.peer), Hex("45 000028 00001A 09 27 01 000000") + longer);
}

TEST(FanOut, TheSameDeltaAsTheReferenceNeedsNoMessageHeaderAtAll)
{
    SessionRig rig;
    const RigClient player = rig.addClient();
    const Bytes frame = VideoFrame(20, 0x41);
    ASSERT_EQ(SendVideo(rig, frame), 0);
    DrainBytes(player.peer);
    ASSERT_EQ(SendVideo(rig, frame, 0), 0); // the reference's delta is 0 too
    EXPECT_EQ(DrainBytes(player.peer), Hex("C5 27 01 000000") + frame);
}

TEST(FanOut, OnlyPlayingClientsGetFrames)
{
    SessionRig rig;
    const RigClient paused = rig.addClient(CLIENT_STATE_PAUSE_DONE);
    const RigClient created = rig.addClient(CLIENT_STATE_CREATESTREAM_DONE);
    const RigClient playing = rig.addClient();
    ASSERT_EQ(SendVideo(rig, VideoFrame(20, 0x41)), 0);
    EXPECT_TRUE(DrainBytes(paused.peer).empty());
    EXPECT_TRUE(DrainBytes(created.peer).empty());
    EXPECT_EQ(DrainBytes(playing.peer).size(), 12U + 5U + 20U);
}

TEST(FanOut, ABrokenClientIsReportedAndTheNextOneIsServed)
{
    SessionRig rig;
    const RigClient broken = rig.addClient();
    const RigClient healthy = rig.addClient();
    shutdown(broken.client->Socket, SHUT_RDWR);
    rig.log.clear();
    const Bytes frame = VideoFrame(20, 0x41);
    EXPECT_EQ(SendVideo(rig, frame), -1);
    EXPECT_EQ(DrainBytes(healthy.peer).size(), 12U + 5U + 20U);
    char line[128];
    snprintf(line, sizeof line,
             "3 ERROR: SendMsgToConnectedClients: Sending data message to client {%p} failed",
             static_cast<void *>(broken.client));
    EXPECT_EQ(rig.log.lines(), (std::vector<std::string>{
                                   "3 ERROR: RtmpSendMsgBytes: Unable to send message: 32 (Broken pipe)",
                                   "6 INFO: RtmpSendMsgBytes: ========= Client Disconnected ========",
                                   "3 ERROR: SendMessage: SendMessage: Error occured while sending message",
                                   line,
                               }));
    EXPECT_EQ(broken.client->SendPktCount, 0U); // its next frame would start with a full header again
}

TEST(FanOut, AFrameInAFileGoesOutWithTheSameBytes)
{
    for (const size_t length : {20U, 123U, 124U, 1000U, 5000U}) {
        SessionRig copying(kChunk);
        SessionRig zeroCopy(kChunk);
        const RigClient first = copying.addClient();
        const RigClient second = zeroCopy.addClient();
        const Bytes frame = VideoFrame(length, 0x65);
        const size_t offset = 777; // the frame lies anywhere in the file
        const int fd = memfd_create("frames", 0);
        ASSERT_GE(fd, 1);
        ASSERT_EQ(ftruncate(fd, 65536), 0);
        uint8_t *map =
            static_cast<uint8_t *>(mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        ASSERT_NE(map, MAP_FAILED);
        memcpy(map + offset, frame.data(), frame.size());
        ASSERT_EQ(SendVideo(copying, frame), 0);
        ASSERT_EQ(SendMsgToConnectedClients(zeroCopy.session, map + offset, static_cast<int32_t>(length), fd,
                                            reinterpret_cast<uintptr_t>(map), 0, RTMP_MSG_VIDEO),
                  0);
        Bytes copied = DrainBytes(first.peer);
        Bytes sent = DrainBytes(second.peer);
        // Only the two clients' ages may differ.
        ASSERT_GT(copied.size(), 12U);
        ASSERT_EQ(sent.size(), copied.size());
        std::copy(copied.begin() + 1, copied.begin() + 4, sent.begin() + 1);
        EXPECT_EQ(sent, copied) << length;
        munmap(map, 65536);
        close(fd);
    }
}

TEST(FanOut, AFileThatEndsBeforeTheFrameDoesIsAFailureAndNoHang)
{
    SessionRig rig(kChunk);
    rig.addClient();
    const Bytes frame = VideoFrame(200, 0x65);
    const int fd = memfd_create("short", 0);
    ASSERT_EQ(write(fd, frame.data(), 50), 50);
    rig.log.clear();
    EXPECT_EQ(SendMsgToConnectedClients(rig.session, frame.data(), 200, fd,
                                        reinterpret_cast<uintptr_t>(frame.data()), 0, RTMP_MSG_VIDEO),
              -1);
    EXPECT_TRUE(
        rig.log.contains("3 ERROR: SendFile: SendFile: Error occured while sending message using sendfile"));
    EXPECT_TRUE(rig.log.contains("failed (zero copy)"));
    close(fd);
}

TEST(FanOut, AChunkStreamThatNoHeaderCanNameFailsForItsPlayerAlone)
{
    SessionRig rig;
    const RigClient wrong = rig.addClient();
    const RigClient player = rig.addClient();
    wrong.client->AudioChunkStreamId = 65600; // RTMP 1.0, 5.3.1.1: the last is 65599
    const Bytes frame = Counting(100);
    rig.log.clear();
    EXPECT_EQ(SendMsgToConnectedClients(rig.session, frame.data(), 100, 0, 0, 0, RTMP_MSG_AUDIO), -1);
    EXPECT_EQ(rig.log.count("3 ERROR: SendMsgToConnectedClients: Generation of chunk header failed"), 1U);
    EXPECT_TRUE(DrainBytes(wrong.peer).empty());
    EXPECT_EQ(DrainBytes(player.peer).size(), 12U + 2 + 100);
}

TEST(FanOut, AFrameInAFileForWhoeverIsGoneFailsAndTheOthersGetIt)
{
    SessionRig rig(kChunk);
    const RigClient gone = rig.addClient();
    const RigClient player = rig.addClient();
    shutdown(gone.peer, SHUT_RDWR);
    const Bytes frame = VideoFrame(200, 0x65);
    const int fd = memfd_create("frame", 0);
    ASSERT_EQ(write(fd, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    rig.log.clear();
    EXPECT_EQ(SendMsgToConnectedClients(rig.session, frame.data(), 200, fd,
                                        reinterpret_cast<uintptr_t>(frame.data()), 0, RTMP_MSG_VIDEO),
              -1);
    EXPECT_EQ(rig.log.count("3 ERROR: SendMsgToConnectedClients: Sending data message to client {"), 1U);
    EXPECT_EQ(rig.log.count("} failed (zero copy)"), 1U);
    EXPECT_EQ(DrainBytes(player.peer).size(), 12 + 5 + frame.size() + (5 + frame.size() - 1) / kChunk);
    close(fd);
}

TEST(FanOut, AWriteThatEndsShortGoesOnWhereItEnded)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    const int small = 4096;
    setsockopt(player.client->Socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const Bytes frame = VideoFrame(3000000, 0x65); // far beyond one write's pieces, and beyond the buffer
    Bytes received;
    std::thread reader([&] {
        const size_t chunks = (frame.size() + 5 + kChunk - 1) / kChunk;
        received = ReadBytes(player.peer, 12 + 5 + frame.size() + chunks - 1, 60000);
    });
    EXPECT_EQ(SendVideo(rig, frame), 0);
    reader.join();
    Bytes expected = Hex("17 01 000000") + Slice(frame, 0, kChunk - 5);
    for (size_t at = kChunk - 5; at < frame.size(); at += kChunk) {
        expected.push_back(0xC5);
        const size_t end = std::min(frame.size(), at + kChunk);
        expected.insert(expected.end(), frame.begin() + static_cast<long>(at),
                        frame.begin() + static_cast<long>(end));
    }
    EXPECT_TRUE(BehindFullHeader(received, 5, frame.size() + 5, 9) == expected);
}

TEST(FanOut, FramesAndRepliesFromTwoThreadsNeverInterleaveOnASocket)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    constexpr int kCount = 300;
    std::thread replies([&] {
        for (int i = 0; i < kCount; i++) {
            EXPECT_EQ(SendMsgToClient(player.client,
                                      GenerateRtmpMsg(player.client, nullptr, RTMP_MSG_STREAM_BEGIN),
                                      RTMP_MSG_STREAM_BEGIN),
                      0);
        }
    });
    Bytes received;
    std::thread reader([&] {
        // Every message is whole: on chunk stream 5 five chunks follow each other, whatever chunk stream 2
        // does.
        int frames = 0;
        int begins = 0;
        while (frames < kCount || begins < kCount) {
            const Bytes first = ReadBytes(player.peer, 1, 30000);
            ASSERT_EQ(first.size(), 1U);
            const uint8_t csid = first[0] & 0x3F;
            const size_t header = std::vector<size_t>{11, 7, 3, 0}[first[0] >> 6];
            ASSERT_EQ(ReadBytes(player.peer, header).size(), header);
            if (csid == 2) {
                ASSERT_EQ(ReadBytes(player.peer, 6), Hex("0000 00000001"));
                begins++;
                continue;
            }
            ASSERT_EQ(csid, 5);
            const Bytes body = ReadBytes(player.peer, 605 + 4);
            ASSERT_EQ(body.size(), 609U);
            for (size_t at = 128; at < 609; at += 129) {
                ASSERT_EQ(body[at], 0xC5);
            }
            frames++;
        }
    });
    for (int i = 0; i < kCount; i++) {
        EXPECT_EQ(SendVideo(rig, VideoFrame(600, 0x41), 33), 0);
    }
    replies.join();
    reader.join();
}

TEST(FanOut, SteadyStreamingKeepsOnePieceList)
{
    SessionRig rig(kChunk);
    const RigClient player = rig.addClient();
    ASSERT_EQ(SendVideo(rig, VideoFrame(2000, 0x65)), 0);
    const void *pieces = rig.session->Pieces;
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(SendVideo(rig, VideoFrame(1500, 0x41), 33), 0);
        EXPECT_EQ(static_cast<const void *>(rig.session->Pieces), pieces);
    }
    DrainBytes(player.peer);
}
