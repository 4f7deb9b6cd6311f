// AMF0 bytes that nobody meant: the rows of the table, damaged at random from a fixed seed.
#include "amf/decode.h"
#include "amf/object.h"
#include "support/amf_rows.h"

#include <cstdlib>
#include <cstring>
#include <random>

namespace {

constexpr int kRounds = 200000;
constexpr size_t kLongest = 400;

std::vector<Bytes> Seeds()
{
    std::vector<Bytes> seeds;
    for (const AmfRow &row : AmfRows()) {
        seeds.push_back(Hex(row.picture));
    }
    for (const RefusedAmfRow &row : RefusedAmfRows()) {
        seeds.push_back(Hex(row.picture));
    }
    return seeds;
}

class Mutator {
  public:
    explicit Mutator(uint32_t seed) : random_(seed), seeds_(Seeds()) {}
    Bytes next()
    {
        Bytes bytes = pick();
        const size_t steps = below(6) + 1;
        for (size_t i = 0; i < steps; i++) {
            damage(&bytes);
        }
        if (bytes.size() > kLongest) {
            bytes.resize(kLongest);
        }
        return bytes;
    }

  private:
    size_t below(size_t end)
    {
        return random_() % end;
    }
    const Bytes &pick()
    {
        return seeds_[below(seeds_.size())];
    }
    uint8_t oddByte()
    {
        static constexpr uint8_t odd[] = {0,  1,  2,  3,  4,  5,    8,    9,    10,
                                          11, 12, 13, 17, 18, 0x7F, 0x80, 0xFE, 0xFF};
        return odd[below(sizeof odd)];
    }
    void damage(Bytes *bytes)
    {
        const long at = static_cast<long>(below(bytes->size() + 1));
        const bool inside = at < static_cast<long>(bytes->size());
        const Bytes other = pick();
        switch (below(7)) {
        case 0: // a bit
            if (inside) {
                (*bytes)[static_cast<size_t>(at)] ^= static_cast<uint8_t>(1U << below(8));
            }
            break;
        case 1: // a byte
            if (inside) {
                (*bytes)[static_cast<size_t>(at)] = oddByte();
            }
            break;
        case 2:
            bytes->insert(bytes->begin() + at, oddByte());
            break;
        case 3:
            if (inside) {
                bytes->erase(bytes->begin() + at);
            }
            break;
        case 4: // cut
            bytes->resize(static_cast<size_t>(at));
            break;
        case 5: // another row in the middle
            bytes->insert(bytes->begin() + at, other.begin(), other.end());
            break;
        default: // another row behind, or the same once more
            bytes->insert(bytes->end(), other.begin(), other.end());
            break;
        }
    }
    std::mt19937 random_;
    std::vector<Bytes> seeds_;
};

struct LineCounter {
    LineCounter()
    {
        logger = {[](void *context, uint8_t, const char *, va_list) { ++*static_cast<int *>(context); },
                  &lines};
        server.Logger = &logger;
    }
    int lines = 0;
    RtmpLogger logger = {};
    RtmpServer server = {};
};

bool LiesWithin(const AmfString &text, const uint8_t *input, size_t length)
{
    if (text.data == nullptr) {
        return text.len == 0;
    }
    const uint8_t *start = reinterpret_cast<const uint8_t *>(text.data);
    return start >= input && start + text.len <= input + length;
}

// Links, counts and borrowed texts of a list and the lists in it; returns its values.
int CheckList(const AmfObject &list, const uint8_t *input, size_t length)
{
    int32_t found = 0;
    int values = 0;
    const AmfObjProperty *before = nullptr;
    for (const AmfObjProperty *prop = list.first; prop != nullptr; prop = prop->next) {
        EXPECT_EQ(prop->prev, before);
        EXPECT_LT(prop->type, 18U);
        EXPECT_TRUE(LiesWithin(prop->name, input, length));
        if (prop->type == AMF_STRING) {
            EXPECT_TRUE(LiesWithin(prop->ObjVal.StrObj, input, length));
        } else if (prop->type == AMF_OBJECT) {
            values += CheckList(prop->ObjVal.object, input, length);
        }
        before = prop;
        found++;
    }
    EXPECT_EQ(list.last, before);
    EXPECT_EQ(list.count, found);
    return values + found;
}

void CheckWriting(RtmpServer *server, AmfObject *list)
{
    const uint32_t size = GetAmfEncBuffSize(server, list);
    uint8_t *payload = EncodeAmfBuffer(server, static_cast<int32_t>(size), list);
    ASSERT_NE(payload, nullptr);
    free(payload);
}

void CheckReading(LineCounter *log, const Bytes &bytes, uint8_t noNames)
{
    log->lines = 0;
    DecodedAmf decoded(&log->server, bytes, bytes.size(), noNames);
    const int32_t length = static_cast<int32_t>(bytes.size());
    EXPECT_GE(decoded.consumed, -1);
    EXPECT_LE(decoded.consumed, length);
    EXPECT_EQ(decoded.consumed == -1, log->lines > 0);
    const int values = CheckList(decoded.list, decoded.input.get(), bytes.size());
    EXPECT_LE(values, length); // a value takes at least its marker
    if (decoded.consumed < 0) {
        return;
    }
    // Nothing behind what was consumed had a part in it.
    const DecodedAmf again(&log->server, bytes, static_cast<size_t>(decoded.consumed), noNames);
    EXPECT_EQ(again.consumed, decoded.consumed);
    EXPECT_EQ(Describe(again.list), Describe(decoded.list));
    CheckWriting(&log->server, &decoded.list);
}

} // namespace

TEST(AmfFuzz, DamagedRowsNeverLeaveTheirBytes)
{
    Mutator mutator(20240229);
    LineCounter log;
    for (int round = 0; round < kRounds && !HasFailure(); round++) {
        const Bytes bytes = mutator.next();
        CheckReading(&log, bytes, 1);
        CheckReading(&log, bytes, 0);
        if (HasFailure()) {
            ADD_FAILURE() << "round " << round << ": " << testing::PrintToString(bytes);
        }
    }
}
