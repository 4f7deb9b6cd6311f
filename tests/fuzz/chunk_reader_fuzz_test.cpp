// Seeded byte streams against the chunk reader, checked chunk by chunk against a second reader written here
// over plain vectors.
#include "message/chunk_reader.h"
#include "message/recv_list.h"
#include "rtmpcast/player.h"
#include "support/socket_client.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>

namespace {

// ------------------------------------------------------------------------------------- the second reader

struct ModelMessage {
    uint32_t id = 0, type = 0, form = 0, typeId = 0, length = 0;
    Bytes timestamp = Bytes(3), delta = Bytes(3), extended = Bytes(4), streamId = Bytes(4);
    Bytes payload;
    bool complete = false;
    bool isTimeExtended = false; // which the standard asks of type 3 chunks behind it
};

struct EndOfStream {};

// By which rules a stream is read.
enum class Rules { Exact, Standard };

class Model {
  public:
    Model(Bytes stream, uint64_t chunkSize, Rules rules)
        : stream_(std::move(stream)), chunkSize_(chunkSize), standard_(rules == Rules::Standard)
    {
    }

    // The message that the next chunk belongs to; nothing once the connection is over.
    std::optional<ModelMessage> next()
    {
        try {
            return readChunk();
        } catch (const EndOfStream &) {
            return std::nullopt;
        }
    }
    size_t chunkStreams() const
    {
        return stored_.size();
    }

  private:
    Bytes take(uint64_t count)
    {
        if ((count == 0 && !standard_) || count > stream_.size() - at_) {
            throw EndOfStream();
        }
        at_ += count;
        return Slice(stream_, at_ - count, count);
    }

    ModelMessage readChunk()
    {
        ModelMessage fresh;
        const uint8_t first = take(1)[0];
        fresh.type = first / 64;
        fresh.id = first & (standard_ ? 0b111111 : 0b101111);
        if (fresh.id == 0) {
            fresh.form = 1;
            fresh.id = take(1)[0] + 64U;
        } else if (fresh.id == 1) {
            fresh.form = 2;
            const Bytes two = take(2);
            fresh.id = two[1] * 256U + two[0] + 64U;
        }
        readMessageHeader(fresh);
        const auto found = stored_.find(fresh.id);
        if (standard_ && fresh.type == 3 && found != stored_.end() && found->second.isTimeExtended) {
            fresh.isTimeExtended = true;
            fresh.extended = take(4);
        }
        if (found != stored_.end() && !found->second.complete) {
            found->second.isTimeExtended = fresh.isTimeExtended;
            return goOn(found->second);
        }
        if (fresh.type >= 2) {
            if (found == stored_.end()) {
                throw EndOfStream();
            }
            fresh.length = found->second.length;
            fresh.typeId = found->second.typeId;
        }
        if (standard_ && fresh.type >= 1 && found != stored_.end()) {
            fresh.streamId = found->second.streamId;
        }
        fresh.payload = take(std::min<uint64_t>(chunkSize_, fresh.length));
        fresh.complete = fresh.payload.size() == fresh.length;
        stored_[fresh.id] = fresh;
        return fresh;
    }

    void readMessageHeader(ModelMessage &fresh)
    {
        if (fresh.type == 3) {
            return;
        }
        const Bytes time = take(3);
        (fresh.type == 0 ? fresh.timestamp : fresh.delta) = time;
        if (fresh.type < 2) {
            const Bytes rest = take(4);
            fresh.length = rest[0] * 65536U + rest[1] * 256U + rest[2];
            fresh.typeId = rest[3];
        }
        if (fresh.type == 0) {
            fresh.streamId = take(4);
        }
        if (time == Bytes{255, 255, 255}) {
            fresh.extended = take(4);
            fresh.isTimeExtended = true;
        }
    }

    ModelMessage goOn(ModelMessage &open)
    {
        const uint64_t remaining = open.length - open.payload.size();
        open.payload = open.payload + take(std::min(chunkSize_, remaining));
        open.complete = standard_ ? open.payload.size() == open.length : remaining < chunkSize_;
        return open;
    }

    Bytes stream_;
    size_t at_ = 0;
    uint64_t chunkSize_;
    bool standard_;
    std::map<uint32_t, ModelMessage> stored_;
};

// ------------------------------------------------------------------------------------------- the streams

class Generator {
  public:
    Generator(uint32_t seed, Rules rules) : random_(seed), standard_(rules == Rules::Standard) {}

    uint32_t below(uint32_t limit)
    {
        return random_() % limit;
    }
    Bytes noise(size_t count)
    {
        Bytes out(count);
        for (uint8_t &byte : out) {
            byte = static_cast<uint8_t>(random_());
        }
        return out;
    }
    uint32_t chunkSize()
    {
        static const uint32_t sizes[] = {1, 2, 5, 16, 128, 4096, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
        return below(40) == 0 ? 0 : sizes[below(9)];
    }

    // A stream that mostly makes sense: few chunk streams, short messages, all header types and forms.
    Bytes plausible(uint32_t chunkSize)
    {
        Bytes out;
        const uint32_t chunks = 1 + below(40);
        for (uint32_t i = 0; i < chunks; i++) {
            out = out + plausibleChunk(chunkSize);
        }
        for (uint32_t flips = below(3) == 0 ? 1 + below(4) : 0; flips > 0; flips--) {
            out[below(static_cast<uint32_t>(out.size()))] = static_cast<uint8_t>(random_());
        }
        out.resize(below(4) == 0 ? below(static_cast<uint32_t>(out.size())) : out.size());
        return out;
    }

  private:
    Bytes basicHeader(uint32_t &id)
    {
        struct Form {
            const char *bytes;
            uint32_t id;
        };
        static const Form exact[] = {{"02", 2},     {"03", 3},     {"13", 3},        {"2F", 47},
                                     {"00 00", 64}, {"10 00", 64}, {"01 00 00", 64}, {"11 FF FF", 65599}};
        static const Form standard[] = {{"02", 2},     {"03", 3},  {"13", 19},       {"2F", 47},
                                        {"00 00", 64}, {"10", 16}, {"01 00 00", 64}, {"01 FF FF", 65599}};
        const Form &form = (standard_ ? standard : exact)[below(8)];
        id = form.id;
        return Hex(form.bytes);
    }

    // Mostly type 3 within a message; between messages the types that the chunk stream allows.
    uint32_t headerType(bool open, bool used)
    {
        if (open && below(3) > 0) {
            return 3;
        }
        return open || used || below(50) == 0 ? below(4) : below(2);
    }

    Bytes plausibleChunk(uint32_t chunkSize)
    {
        uint32_t id;
        Bytes out = basicHeader(id);
        uint32_t &remaining = remaining_[id];
        uint32_t &length = length_[id];
        const uint32_t type = headerType(remaining > 0, length > 0);
        bool &streamIsExtended = extended_[id];
        const bool extended = type < 3 ? below(5) == 0 : standard_ && streamIsExtended;
        streamIsExtended = extended;
        uint32_t announced = length;
        out[0] = static_cast<uint8_t>(out[0] | type << 6);
        if (type < 3) {
            out = out + (extended ? Hex("FFFFFF") : noise(3));
        }
        if (type < 2) {
            announced = (standard_ ? 0 : 1) + below(below(4) == 0 ? 600 : 40);
            out = out + Bytes{0, static_cast<uint8_t>(announced >> 8), static_cast<uint8_t>(announced)} +
                  noise(1);
        }
        out = out + noise(type == 0 ? 4 : 0) + noise(extended ? 4 : 0);
        if (remaining == 0) {
            remaining = length = announced;
        }
        const uint32_t piece = std::min(chunkSize, remaining);
        remaining -= piece;
        return out + noise(piece);
    }

    std::mt19937 random_;
    bool standard_;
    std::map<uint32_t, uint32_t> remaining_, length_;
    std::map<uint32_t, bool> extended_;
};

// ---------------------------------------------------------------------------------------- the comparison

template <size_t Count> Bytes FieldOf(const uint8_t (&field)[Count])
{
    return Bytes(field, field + Count);
}

void ExpectSame(const RtmpRecvPkt *pkt, const ModelMessage &expected)
{
    EXPECT_EQ(pkt->ChunkStreamId, expected.id);
    EXPECT_EQ(pkt->HeaderType, expected.type);
    EXPECT_EQ(pkt->BasicHeaderForm, expected.form);
    EXPECT_EQ(pkt->MsgTypeId, expected.typeId);
    EXPECT_EQ(pkt->MsgLength, expected.length);
    EXPECT_EQ(pkt->Complete, expected.complete ? 1U : 0U);
    EXPECT_EQ(FieldOf(pkt->Timestamp), expected.timestamp);
    EXPECT_EQ(FieldOf(pkt->TimestampDelta), expected.delta);
    EXPECT_EQ(FieldOf(pkt->ExtendedTimestamp), expected.extended);
    EXPECT_EQ(FieldOf(pkt->MsgStreamId), expected.streamId);
    ASSERT_EQ(pkt->ReceivedBytes, expected.payload.size());
    EXPECT_EQ(Bytes(pkt->PayloadData, pkt->PayloadData + pkt->ReceivedBytes), expected.payload);
}

// Returns the chunks read. Every stream ends: a chunk takes at least one byte.
size_t ReadAgainstTheModel(const Bytes &stream, uint32_t chunkSize, Rules rules)
{
    SocketClient client;
    client->PlayerFlags = rules == Rules::Standard ? RTMP_PLAYERS_ALL : RTMP_PLAYERS_EXACT;
    client->InChunkSize = chunkSize;
    Model model(stream, chunkSize, rules);
    client.send(stream);
    client.endOfInput();
    for (size_t chunks = 0;; chunks++) {
        const std::optional<ModelMessage> expected = model.next();
        RtmpRecvPkt *pkt = ReadRtmpMessage(client.get());
        EXPECT_EQ(pkt != nullptr, expected.has_value()) << "chunk " << chunks;
        if (pkt != nullptr && IsRecvStrmPktExists(client.get(), pkt) != 0) {
            EXPECT_EQ(AddRecvPkt(client.get(), pkt), 0);
        }
        if (pkt == nullptr || !expected.has_value()) {
            EXPECT_EQ(client->RecvPktCount, model.chunkStreams());
            EXPECT_EQ(client.log.count("3 ERROR: ReadRtmpMessage: "), 1U);
            return chunks;
        }
        ExpectSame(pkt, *expected);
        if (testing::Test::HasFailure()) {
            return chunks;
        }
    }
}

// RTMPCAST_FUZZ_ROUNDS lengthens a campaign.
uint32_t Rounds(uint32_t normal)
{
    const char *wanted = getenv("RTMPCAST_FUZZ_ROUNDS");
    return wanted != nullptr ? static_cast<uint32_t>(strtoul(wanted, nullptr, 10)) : normal;
}

class ChunkReaderFuzz : public testing::TestWithParam<Rules> {};

TEST_P(ChunkReaderFuzz, PlausibleStreamsAreReadAsTheModelReadsThem)
{
    size_t chunks = 0;
    for (uint32_t seed = 1; seed <= Rounds(600); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Generator generator(seed, GetParam());
        const uint32_t chunkSize = generator.chunkSize();
        chunks += ReadAgainstTheModel(generator.plausible(chunkSize), chunkSize, GetParam());
        ASSERT_FALSE(testing::Test::HasFailure());
    }
    EXPECT_GT(chunks, 5U * Rounds(600)); // the streams do reach beyond their first chunks
}

TEST_P(ChunkReaderFuzz, RandomBytesAreReadAsTheModelReadsThem)
{
    for (uint32_t seed = 1; seed <= Rounds(600); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Generator generator(seed, GetParam());
        const uint32_t chunkSize = generator.chunkSize();
        ReadAgainstTheModel(generator.noise(generator.below(2000)), chunkSize, GetParam());
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(Rules, ChunkReaderFuzz, testing::Values(Rules::Exact, Rules::Standard),
                         [](const testing::TestParamInfo<Rules> &row) {
                             return row.param == Rules::Exact ? "Exact" : "Standard";
                         });

} // namespace
