// What stands in front of the further chunks of a frame for players of RTMP_PLAYERS_CHUNKS_OUT, on each road
// to the socket: gathered from memory, out of a file, through TLS.
#include "delivery/write/fan_out.h"
#include "rtmpcast/player.h"
#include "support/session_rig.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

enum SeparatorRoad { ROAD_MEMORY, ROAD_FILE, ROAD_TLS };

struct SeparatorRow {
    const char *sentence;
    uint32_t flags;
    uint32_t chunkStream;
    uint64_t time; // of the frame
    const char *header;
    const char *separator;
};

constexpr uint32_t kSeparatorFlags = RTMP_PLAYERS_CHUNKS_OUT | RTMP_PLAYERS_TIMELINE;

// 300 bytes and a tag of 5: 00 01 31. A first message has a full header.
constexpr SeparatorRow kSeparatorRows[] = {
    {"a short time", kSeparatorFlags, 5, 0xFFFFFE, "05 FFFFFE 000131 09 01000000", "C5"},
    {"a long time", kSeparatorFlags, 5, 0xFFFFFF, "05 FFFFFF 000131 09 01000000 00FFFFFF", "C5 00FFFFFF"},
    {"a longer time", kSeparatorFlags, 5, 0x12345678, "05 FFFFFF 000131 09 01000000 12345678", "C5 12345678"},
    {"two bytes", kSeparatorFlags, 65, 0x28, "00 01 000028 000131 09 01000000", "C0 01"},
    {"three bytes", kSeparatorFlags, 321, 0x28, "01 0101 000028 000131 09 01000000", "C1 0101"},
    {"all seven", kSeparatorFlags, 577, 0x12345678, "01 0102 FFFFFF 000131 09 01000000 12345678",
     "C1 0102 12345678"},
    {"the default", RTMP_PLAYERS_TIMELINE, 577, 0x12345678, "01 0201 FFFFFF 000131 09 01000000 12345678",
     "C1"},
};

Bytes SeparatedBytes(const SeparatorRow &row, const Bytes &frame)
{
    const Bytes separator = Hex(row.separator);
    return Join({Hex(row.header), Hex("27 01 000000"), Slice(frame, 0, 123), separator,
                 Slice(frame, 123, 128), separator, Slice(frame, 251, 49)});
}

} // namespace

class StandardSeparators : public testing::TestWithParam<SeparatorRoad> {};

TEST_P(StandardSeparators, RepeatTheIdAndTheExtendedTime)
{
    Bytes frame = Counting(300);
    frame[4] = 0x41;
    for (const SeparatorRow &row : kSeparatorRows) {
        SCOPED_TRACE(row.sentence);
        SessionRig rig(128);
        const RigClient rigClient = rig.addClient();
        RtmpClient *client = rigClient.client;
        client->PlayerFlags = row.flags;
        client->StatusChunkStreamId = row.chunkStream;
        client->TimelineTime = row.time;
        char handle = 0;
        Bytes written;
        if (GetParam() == ROAD_TLS) {
            client->Tls = &handle;
            HostFakes::get().sslWrite = [&written](void *, const void *bytes, int length) {
                const int taken = length / 2 + length % 2; // so that separators are cut, too
                const uint8_t *from = static_cast<const uint8_t *>(bytes);
                written.insert(written.end(), from, from + taken);
                return taken;
            };
        }
        const int file = memfd_create("frame", 0);
        ASSERT_EQ(write(file, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        const int fd = GetParam() == ROAD_FILE ? file : 0;
        EXPECT_EQ(SendMsgToConnectedClients(rig.session, frame.data(), 300, fd,
                                            reinterpret_cast<uint64_t>(frame.data()), 0, RTMP_MSG_VIDEO),
                  0);
        EXPECT_TRUE(
            Same(GetParam() == ROAD_TLS ? written : DrainBytes(rigClient.peer), SeparatedBytes(row, frame)));
        client->Tls = nullptr;
        HostFakes::get().reset();
        close(file);
    }
}

INSTANTIATE_TEST_SUITE_P(OnEachRoad, StandardSeparators, testing::Values(ROAD_MEMORY, ROAD_FILE, ROAD_TLS));
