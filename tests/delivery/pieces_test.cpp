#include "delivery/write/pieces.h"
#include "support/bytes.h"

namespace {

// Lengths of the pieces behind the header, "|" in front of those that start a chunk.
std::string Cut(uint32_t chunkSize, const std::vector<uint64_t> &parts)
{
    static const Bytes body(100000);
    uint64_t total = 0;
    for (uint64_t part : parts) {
        total += part;
    }
    const uint64_t room = PiecesFor(total, chunkSize, static_cast<uint32_t>(parts.size()));
    std::vector<RtmpPiece> pieces(room);
    PieceCutter cutter = CutInto(pieces.data(), chunkSize);
    for (uint64_t part : parts) {
        CutPart(&cutter, body.data(), part);
    }
    EXPECT_LE(cutter.Count, room);
    std::string out;
    for (uint32_t i = 1; i < cutter.Count; i++) {
        out += (pieces[i].StartsChunk ? " |" : " ") + std::to_string(pieces[i].Length);
    }
    return out;
}

} // namespace

TEST(Pieces, ABodyIsCutWhereChunksEnd)
{
    const struct {
        const char *sentence;
        uint32_t chunkSize;
        std::vector<uint64_t> parts;
        const char *pieces;
    } rows[] = {
        {"nothing at all", 128, {0}, ""},
        {"less than a chunk", 128, {100}, " 100"},
        {"exactly a chunk", 128, {128}, " 128"},
        {"one byte more", 128, {129}, " 128 |1"},
        {"exactly two chunks", 128, {256}, " 128 |128"},
        {"a tag header shares the first chunk", 128, {5, 123}, " 5 123"},
        {"and pushes one byte into the next", 128, {5, 124}, " 5 123 |1"},
        {"a prefix that fills its chunk", 128, {128, 10}, " 128 |10"},
        {"a prefix longer than a chunk", 128, {300, 200}, " 128 |128 |44 84 |116"},
        {"no payload behind the prefix", 128, {5, 0}, " 5"},
        {"chunks of one byte", 1, {2, 1}, " 1 |1 |1"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(Cut(row.chunkSize, row.parts), row.pieces) << row.sentence;
    }
}

TEST(Pieces, AServerRecordWithoutAChunkSizeUsesTheProtocolsDefault)
{
    RtmpServer server = {};
    EXPECT_EQ(OutgoingChunkSize(&server), 128U);
    server.ChunkSize = 4096;
    EXPECT_EQ(OutgoingChunkSize(&server), 4096U);
}
