// Chunks as no player cuts them, read by the serve loop.
#include "serve/served_peer.h"

namespace {

using wire::Chunks;
using wire::Outgoing;

constexpr char kHeard[] = "message: ACKNOWLEDGEMENT";

Bytes ChunkSizeIs(uint32_t size)
{
    return Chunks({.payload = BigEndian(size, 4), .type = 1, .chunkStream = 2});
}

// `rest` as the chunks behind the first one of a message on chunk stream 5.
Bytes Continued(const Bytes &rest, uint64_t size)
{
    Bytes out;
    for (size_t at = 0; at < rest.size(); at += std::min<uint64_t>(size, rest.size() - at)) {
        Append(out, Bytes{0xC5} + Slice(rest, at, std::min<uint64_t>(size, rest.size() - at)));
    }
    return out;
}

class HostileChunks : public testing::TestWithParam<Served> {
  protected:
    // Whether an acknowledgement is heard in these bytes, which are served to their end.
    bool isHeard(const Bytes &bytes)
    {
        served.rig.log.clear();
        ServedPeer peer(served.rig, GetParam());
        peer.send(bytes);
        EXPECT_EQ(peer.serve(), ROUND_ERROR); // there are no more
        return served.rig.log.count(kHeard) == 1;
    }
    ServedRig served{GetParam()};
};

// A size that a peer announces, and by what the server cuts from then on; 0: it reads no further.
struct AnnouncedSize {
    uint32_t announced;
    uint32_t exact;
    uint32_t standard;
};

// RTMP 1.0, 5.4.1: 31 bits. By default the size is taken whole; a message of whole chunks, two of them or
// more, is then never complete, and every message of more than a byte is one where chunks have one byte.
std::vector<AnnouncedSize> AnnouncedSizes()
{
    std::vector<AnnouncedSize> rows = {
        {0, 0, 128},
        {1, 0, 1},
        {2, 2, 2},
        {127, 127, 127},
        {128, 128, 128},
        {65536, 65536, 65536},
        {0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF},
        {0x80000000, 0x80000000, 128},
    };
    for (uint64_t size = 0xFFFFFFED; size <= 0xFFFFFFFF; size++) {
        const uint32_t whole = static_cast<uint32_t>(size);
        rows.push_back({whole, whole, whole & 0x7FFFFFFF});
    }
    return rows;
}

class AnnouncedChunkSize : public testing::TestWithParam<AnnouncedSize> {};

void ExpectObeyed(const AnnouncedSize &row, const Served &way)
{
    ServedRig served(way);
    const uint32_t size = way.standard() ? row.standard : row.exact;
    const uint32_t cut = size != 0 ? size : std::max(row.announced, 1U);
    const Bytes payload = Counting(301);
    const Bytes whole = Chunks({.payload = Slice(payload, 0, 5), .type = 3, .chunkStream = 5}, cut);
    const Bytes first = Slice(Chunks({.payload = payload, .type = 3, .chunkStream = 5}), 0, 12 + 128);
    const Bytes rows[] = {
        ChunkSizeIs(row.announced) + whole,
        first + ChunkSizeIs(row.announced) + Continued(Slice(payload, 128, 173), cut),
    };
    for (const Bytes &bytes : rows) {
        served.rig.log.clear();
        ServedPeer peer(served.rig, way);
        peer.send(bytes);
        EXPECT_EQ(peer.serve(), ROUND_ERROR); // it reads to the end
        EXPECT_EQ(served.rig.log.count(kHeard), size != 0 ? 1U : 0U);
    }
    served.expectAlone();
}

} // namespace

TEST_P(AnnouncedChunkSize, HoldsBetweenMessagesAndBetweenTwoChunksOfOne)
{
    for (const Served &way : kEveryServed) {
        SCOPED_TRACE(way.name);
        ExpectObeyed(GetParam(), way);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, AnnouncedChunkSize, testing::ValuesIn(AnnouncedSizes()),
                         [](const testing::TestParamInfo<AnnouncedSize> &row) {
                             char text[16];
                             snprintf(text, sizeof text, "0x%X", row.param.announced);
                             return std::string(text);
                         });

TEST_P(HostileChunks, AMessageOfWholeChunksIsCompleteAsItsRulesSay)
{
    for (const size_t count : {1, 2, 3, 4, 32}) {
        for (const int beside : {-1, 0, 1}) {
            const size_t length = count * 128 + static_cast<size_t>(beside);
            SCOPED_TRACE(length);
            const bool isComplete = GetParam().standard() || beside != 0 || count == 1;
            EXPECT_EQ(isHeard(Chunks({.payload = Counting(length), .type = 3, .chunkStream = 5})),
                      isComplete);
        }
    }
    served.expectAlone();
}

TEST_P(HostileChunks, OneByteEachCarryACommandWhereTheStandardHolds)
{
    ServedPeer peer(served.rig, GetParam());
    peer.send(ChunkSizeIs(1) + Chunks({.payload = wire::ConnectCommand()}, 1));
    EXPECT_EQ(peer.serve(), ROUND_ERROR);
    EXPECT_EQ(TimesIn(peer.replies(), "NetConnection.Connect.Success"), GetParam().standard() ? 1U : 0U);
}

TEST_P(HostileChunks, LengthsThatDifferWithinAMessageAreOfNoAccount)
{
    const Bytes payload = Counting(200);
    const Bytes first = Slice(Chunks({.payload = payload, .type = 3, .chunkStream = 5}), 0, 12 + 128);
    for (const uint32_t length : {0U, 1U, 71U, 72U, 73U, 199U, 201U, 0xFFFFFFU}) {
        SCOPED_TRACE(length);
        const Bytes again = Hex("45 000000") + BigEndian(length, 3) + Hex("14");
        EXPECT_TRUE(isHeard(first + again + Slice(payload, 128, 72)));
    }
    served.expectAlone();
}

INSTANTIATE_TEST_SUITE_P(Of, HostileChunks, testing::ValuesIn(kEveryServed), NameOfServed);
