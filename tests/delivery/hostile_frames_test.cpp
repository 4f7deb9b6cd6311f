// Frames as no encoder hands them over: lengths around the edges of chunks and far beyond them, files that
// are none, times that stand, step and jump. On both roads, on the host's thread and on a sender's.
#include "net/client_state.h"
#include "support/chunk_parser.h"
#include "support/session_rig.h"
#include "support/slow_reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct FrameRoad {
    const char *name;
    bool steady;
    uint32_t senderMode;
};

constexpr FrameRoad kFrameRoads[] = {
    {"Exact", false, 0}, {"ExactThreaded", false, 1}, {"Steady", true, 0}, {"SteadyThreaded", true, 1}};

Bytes FrameOf(size_t length, uint8_t nalHeader = 0x65)
{
    Bytes frame = Counting(length);
    const Bytes start = BigEndian(length > 4 ? length - 4 : 0, 4) + Bytes{nalHeader};
    std::copy_n(start.begin(), std::min(length, start.size()), frame.begin());
    return frame;
}

// What a message tells of its time.
struct TimeHeader {
    int type;
    uint32_t field;
    bool extended;

    bool operator==(const TimeHeader &) const = default;
};

std::ostream &operator<<(std::ostream &out, const TimeHeader &header)
{
    return out << "type " << header.type << ": " << header.field << (header.extended ? ", extended" : "");
}

// A delta of 0 needs no field, and one that three bytes do not hold is extended.
TimeHeader AfterDelta(uint32_t delta)
{
    return {delta == 0 ? 3 : 2, delta, delta >= 0xFFFFFF};
}

class HostileFrames : public testing::TestWithParam<FrameRoad> {
  protected:
    HostileFrames()
        : rig({.chunkSize = kChunk, .senderMode = GetParam().senderMode, .steady = GetParam().steady})
    {
        join();
    }
    void TearDown() override
    {
        socket.reset(); // first: nobody writes to it for ever
    }
    void join()
    {
        player = rig.addClient();
        socket = std::make_unique<wire::ByteSocket>(wire::Connected{dup(player.peer)});
        socket->keepRecord(false);
        chunks = std::make_unique<wire::ChunkParser>(*socket);
        chunks->chunkSize = kChunk;
        chunks->standard = GetParam().steady;
    }
    int offerSound(const Bytes &sound, uint64_t time)
    {
        return RtmpSendData(rig.session, sound.data(), static_cast<int32_t>(sound.size()), 0, 0, time,
                            RTMP_FRAME_AUDIO);
    }
    int offer(const Bytes &frame, uint64_t time, int fd = 0, uint64_t mapBase = 0)
    {
        return RtmpSendData(rig.session, frame.data(), static_cast<int32_t>(frame.size()), fd, mapBase, time,
                            RTMP_FRAME_VIDEO);
    }
    // The next message is this frame.
    void expectFrame(const Bytes &frame)
    {
        const wire::Message message = chunks->next();
        EXPECT_EQ(message.type, 9);
        EXPECT_TRUE(Same(Slice(message.payload, 5, message.payload.size()), frame));
        times.push_back(message.timestamp);
        headers.push_back({message.headerType, message.field, message.extended});
    }
    void expectSound(const Bytes &sound)
    {
        const wire::Message message = chunks->next();
        EXPECT_EQ(message.type, 8);
        EXPECT_TRUE(Same(message.payload, Hex("AF 01") + sound));
    }
    // The player reads while the frame is written, which may be longer than its socket holds.
    void expectThrough(const Bytes &frame, uint64_t time)
    {
        std::thread reader(wire::OnAThread([&] { expectFrame(frame); }));
        EXPECT_EQ(offer(frame, time), 0);
        reader.join();
    }

    static constexpr int32_t kChunk = 4096;
    SessionRig rig;
    RigClient player = {};
    std::unique_ptr<wire::ByteSocket> socket;
    std::unique_ptr<wire::ChunkParser> chunks;
    std::vector<uint32_t> times;
    std::vector<TimeHeader> headers;
};

} // namespace

TEST_P(HostileFrames, OfEveryAwkwardLengthArriveWhole)
{
    constexpr size_t kC = kChunk;
    const size_t lengths[] = {
        10,
        1,
        2,
        3,
        4,
        5,
        6,
        kC - 6,
        kC - 5,
        kC - 4,
        kC - 3,
        kC - 1,
        kC,
        kC + 1,
        2 * kC - 6,
        2 * kC - 5,
        2 * kC - 4,
        2 * kC - 1,
        2 * kC,
        2 * kC + 1,
        7 * kC - 5,
        7 * kC - 4,
        510 * kC,
        511 * kC - 6,
        511 * kC - 5,
        511 * kC - 4,
        512 * kC - 6,
        512 * kC - 5,
        512 * kC - 4,
        2100000,
        16000000,
    };
    uint64_t time = 1000;
    for (const size_t length : lengths) {
        SCOPED_TRACE(length);
        expectThrough(FrameOf(length), time += 40);
        ASSERT_FALSE(HasFailure());
    }
}

// Sound has two bytes in front of it where pictures have five, and waits for the picture behind it.
TEST_P(HostileFrames, OfSoundOfEveryAwkwardLengthArriveWhole)
{
    constexpr size_t kC = kChunk;
    expectThrough(FrameOf(60), 1000);
    uint64_t time = 1000;
    for (const size_t length : {size_t{1}, size_t{2}, size_t{3}, kC - 3, kC - 2, kC - 1, kC, 2 * kC - 3,
                                2 * kC - 2, 2 * kC - 1, 7 * kC - 2, 511 * kC - 2, 512 * kC - 2}) {
        SCOPED_TRACE(length);
        const Bytes sound = FrameOf(length);
        const Bytes picture = FrameOf(60);
        std::thread reader(wire::OnAThread([&] {
            expectSound(sound);
            expectFrame(picture);
        }));
        // Wide apart: by default the first of each kind is stamped by the clock, which a busy machine moves
        // on.
        EXPECT_EQ(offerSound(sound, time += 1000), 0);
        EXPECT_EQ(offer(picture, time += 1000), 0);
        reader.join();
        ASSERT_FALSE(HasFailure());
    }
}

// A small part of a frame fits into the socket. By default the host, or the sender's thread, waits for room.
TEST_P(HostileFrames, ToAPlayerThatReadsOneByteAtATimeArriveWhole)
{
    const int least = 2048;
    ASSERT_EQ(setsockopt(player.client->Socket, SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
    wire::SlowReader reader(player.peer, 1);
    chunks = std::make_unique<wire::ChunkParser>(*reader.socket);
    chunks->chunkSize = kChunk;
    chunks->standard = GetParam().steady;
    // On the steady road a player begins with the newest key frame: there is one.
    const Bytes frames[] = {FrameOf(10000), FrameOf(10001, 0x41), FrameOf(10002, 0x41), FrameOf(10003, 0x41)};
    std::thread host([&] {
        uint64_t time = 1000;
        for (const Bytes &frame : frames) {
            EXPECT_EQ(offer(frame, time += 40), 0);
        }
    });
    wire::OnAThread([&] {
        for (const Bytes &frame : frames) {
            expectFrame(frame);
        }
    })();
    host.join();
}

TEST_P(HostileFrames, OfFilesThatAreNoneCostNoLaterFrame)
{
    const Bytes frame = FrameOf(200);
    const uint64_t base = reinterpret_cast<uintptr_t>(frame.data());
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    const int file = memfd_create("short", 0);
    ASSERT_EQ(write(file, frame.data(), 50), 50);
    const struct {
        const char *sentence;
        int fd;
        uint64_t mapBase;
    } rows[] = {
        {"a descriptor that is closed", 1000000, base}, {"the reading end of a pipe", pipes[0], base},
        {"the writing end of a pipe", pipes[1], base},  {"a file that is too short", file, base},
        {"an address below the map", file, base + 1},   {"an address far below the map", file, UINT64_MAX},
        {"an address far above the map", file, 1},
    };
    uint64_t time = 1000;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        const int result = offer(frame, time += 40, row.fd, row.mapBase);
        if (GetParam().steady) {
            EXPECT_EQ(result, 0); // it is copied, and no file is looked at
            expectFrame(frame);
        } else if (GetParam().senderMode == 0) {
            EXPECT_EQ(result, -1);
            EXPECT_TRUE(rig.log.contains("3 ERROR: SendFile: SendFile: Error occured while sending message"));
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_TRUE(rig.log.waitFor("3 ERROR: SendFile: SendFile: Error occured while sending message"));
            RtmpThreadedQueueReset(rig.session); // a failed send has ended its thread
        }
        rig.log.clear();
        if (!GetParam().steady) { // whoever has half a message is ended; the next one gets the next frame
            socket.reset();
            rig.dropClients();
            join();
        }
        const Bytes next = FrameOf(300);
        expectThrough(next, time += 40);
        ASSERT_FALSE(HasFailure());
    }
    close(file);
    close(pipes[0]);
    close(pipes[1]);
}

// On the exact road each message has the difference to the frame before it, as 32 bits hold it, and none
// behind a frame of time 0, which says that there was none.
TEST_P(HostileFrames, OfTimesThatStandStepAndJumpArriveInTheirOrder)
{
    const uint64_t base = 5000;
    const struct {
        uint64_t time;
        uint32_t delta;
    } rows[] = {
        {base, 0},
        {base, 0},
        {base + 40, 40},
        {base + 20, 0xFFFFFFEC}, // backward
        {0, 0xFFFFEC64},
        {base, 0},
        {base + 0xFFFFFE, 0xFFFFFE}, // what three bytes hold, one more, and two
        {base, 0xFF000002},
        {base + 0xFFFFFF, 0xFFFFFF},
        {base + 0x1FFFFFF, 0x1000000},
        {base, 0xFE000001},
        {base + 0xFFFFFFFF, 0xFFFFFFFF}, // what four bytes hold, and one more
        {base + 0x100000000, 1},
        {base, 0},
        {base + 0x100000000, 0},
        {uint64_t{1} << 63, 0xFFFFEC78},
        {(uint64_t{1} << 63) + 40, 40},
        {UINT64_MAX, 0xFFFFFFD7},
        {0, 1},
        {base, 0},
    };
    expectThrough(FrameOf(60), base);
    EXPECT_EQ(headers[0].type, 0); // with the age of the connection
    for (const auto &row : rows) {
        SCOPED_TRACE(row.time);
        expectThrough(FrameOf(60), row.time);
        ASSERT_FALSE(HasFailure());
        if (!GetParam().steady) {
            EXPECT_EQ(headers.back(), AfterDelta(row.delta));
        }
    }
    if (GetParam().steady) {
        EXPECT_TRUE(std::is_sorted(times.begin(), times.end())) << testing::PrintToString(times);
        EXPECT_LE(times.back(), 1000U * std::size(rows)); // and none of it ran away
    }
}

INSTANTIATE_TEST_SUITE_P(On, HostileFrames, testing::ValuesIn(kFrameRoads),
                         [](const testing::TestParamInfo<FrameRoad> &row) { return row.param.name; });
