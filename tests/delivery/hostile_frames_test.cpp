// Frames as no encoder hands them over: lengths around the edges of chunks and far beyond them, files that
// are none, times that stand, step and jump. On both roads, on the host's thread and on a sender's.
#include "net/client_state.h"
#include "support/chunk_parser.h"
#include "support/large.h"
#include "support/session_rig.h"

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
        const RigClient player = rig.addClient();
        socket = std::make_unique<wire::ByteSocket>(wire::Connected{dup(player.peer)});
        socket->keepRecord(false);
        chunks = std::make_unique<wire::ChunkParser>(*socket);
        chunks->chunkSize = kChunk;
        chunks->standard = GetParam().steady;
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
    }
    // The player reads while the frame is written, which may be longer than its socket holds.
    void expectThrough(const Bytes &frame, uint64_t time)
    {
        std::thread reader([&] { expectFrame(frame); });
        EXPECT_EQ(offer(frame, time), 0);
        reader.join();
    }

    static constexpr int32_t kChunk = 4096;
    SessionRig rig;
    std::unique_ptr<wire::ByteSocket> socket;
    std::unique_ptr<wire::ChunkParser> chunks;
    std::vector<uint32_t> times;
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

TEST_P(HostileFrames, OfTimesThatStandStepAndJumpArriveInTheirOrder)
{
    const uint64_t base = 5000;
    const uint64_t rows[] = {
        base,
        base,
        base, // equal
        base + 40,
        base + 20, // backward
        0,
        base + (1 << 24) - 1,
        base + (1 << 24), // what three bytes hold, and one more
        base,
        base + (uint64_t{1} << 32) - 1,
        base + (uint64_t{1} << 32),
        base,
        uint64_t{1} << 63,
        (uint64_t{1} << 63) + 40,
        UINT64_MAX,
        0,
        base,
    };
    for (const uint64_t time : rows) {
        SCOPED_TRACE(time);
        expectThrough(FrameOf(60), time);
        ASSERT_FALSE(HasFailure());
    }
    if (GetParam().steady) {
        EXPECT_TRUE(std::is_sorted(times.begin(), times.end())) << testing::PrintToString(times);
        EXPECT_LE(times.back(), 1000U * std::size(rows)); // and none of it ran away
    }
}

INSTANTIATE_TEST_SUITE_P(On, HostileFrames, testing::ValuesIn(kFrameRoads),
                         [](const testing::TestParamInfo<FrameRoad> &row) { return row.param.name; });
