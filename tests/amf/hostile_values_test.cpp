// Values as no writer makes them: every marker in every place, lengths and counts that lie, and depths that
// nobody needs.
#include "amf/decode.h"
#include "amf/object.h"
#include "net/limits.h"
#include "support/amf_rows.h"
#include "support/calls.h"
#include "support/capture_logger.h"
#include "support/large.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace {

struct HostileAmf : testing::Test {
    HostileAmf()
    {
        server.Logger = log.get();
    }
    int32_t consumed(const Bytes &bytes)
    {
        log.clear();
        const DecodedAmf decoded(&server, bytes, bytes.size());
        count = decoded.list.count;
        return decoded.consumed;
    }
    int allocationsFor(const Bytes &bytes)
    {
        const FailingAllocation counted(0);
        (void)consumed(bytes);
        return counted.seen();
    }
    // All of it is read, or it is refused with a line.
    void expectRead(const Bytes &bytes, bool isRead)
    {
        EXPECT_EQ(consumed(bytes), isRead ? static_cast<int32_t>(bytes.size()) : -1);
        EXPECT_EQ(log.lines().empty(), isRead);
    }
    CaptureLogger log;
    RtmpServer server = {};
    int32_t count = 0;
};

// What stands behind the marker of each value that is read (AMF0, 2.1).
const std::map<uint32_t, const char *> kBodies = {
    {AMF_NUMBER, "3FF0000000000000"},
    {AMF_BOOLEAN, "01"},
    {AMF_STRING, "0001 'x'"},
    {AMF_OBJECT, "000009"},
    {AMF_NULL, ""},
    {AMF_UNDEFINED, ""},
    {AMF_REFERENCE, ""}, // its index is read as the next value
    {AMF_ECMA_ARRAY, "00000000 000009"},
    {AMF_OBJECT_END, ""},
    {AMF_STRICT_ARRAY, "00000000"},
    {AMF_DATE, "0000000000000000 0000"},
    {AMF_LONG_STRING, "00000001 'x'"},
    {AMF_UNSUPPORTED, ""},
};

struct HostileDepth : testing::TestWithParam<size_t> {};

} // namespace

TEST_F(HostileAmf, EveryMarkerIsReadOrRefusedAlikeAtTheTopInAnObjectAndInAStrictArray)
{
    for (uint32_t marker = 0; marker < 256; marker++) {
        SCOPED_TRACE(marker);
        const bool isRead = kBodies.count(marker) == 1;
        const Bytes value = Bytes{static_cast<uint8_t>(marker)} + Hex(isRead ? kBodies.at(marker) : "");
        expectRead(value, isRead);
        expectRead(Hex("03 0001 'n'") + value + Hex("000009"), isRead);
        expectRead(Hex("08 00000001 0001 'n'") + value + Hex("000009"), isRead);
        expectRead(Hex("0A 00000001") + value, isRead);
    }
}

TEST_F(HostileAmf, AStringMayBeAsLongAsTheRestAndNoLonger)
{
    constexpr size_t kRest = 20;
    for (const size_t length : {size_t{0}, size_t{1}, kRest - 1, kRest, kRest + 1, size_t{0xFFFF}}) {
        SCOPED_TRACE(length);
        const Bytes text = Hex("02") + BigEndian(length, 2) + Bytes(kRest, AMF_NULL);
        expectRead(text, length <= kRest);
        EXPECT_EQ(count, length <= kRest ? static_cast<int32_t>(1 + kRest - length) : 0); // nulls behind it
        // A name needs a marker and a byte more behind it: the object's end gives them.
        const Bytes name =
            Hex("03") + BigEndian(length, 2) + Bytes(kRest - 1, 'n') + Hex("05") + Hex("000009");
        EXPECT_EQ(consumed(name) > 0, length == kRest - 1);
    }
}

TEST_F(HostileAmf, ALongStringMayBeAsLongAsTheRestAndNoLonger)
{
    constexpr uint64_t kRest = 20;
    std::vector<uint64_t> lengths = {0, 1, kRest - 1, kRest, kRest + 1, 0xFFFF, 0x7FFFFFFF, 0x80000000};
    for (uint64_t length = 0xFFFFFFF0; length <= 0xFFFFFFFF; length++) {
        lengths.push_back(length);
    }
    for (const uint64_t length : lengths) {
        SCOPED_TRACE(length);
        expectRead(Hex("0C") + BigEndian(length, 4) + Bytes(kRest, AMF_NULL), length <= kRest);
    }
}

TEST_F(HostileAmf, CountsOfArraysCostNothing)
{
    const Bytes elements = Hex("05 05 05");
    const Bytes members = Hex("0001 'n' 05 000009");
    const int four = allocationsFor(Hex("0A 00000004") + elements); // one of them is missing
    const int none = allocationsFor(Hex("08 00000000") + members);
    EXPECT_GT(four, 0);
    EXPECT_LT(four, 10);
    for (const uint64_t counted : {0xFFFFFFFFULL, 0ULL, 0x7FFFFFFFULL, 0x80000000ULL}) {
        SCOPED_TRACE(counted);
        const Bytes strict = Hex("0A") + BigEndian(counted, 4);
        const Bytes named = Hex("08") + BigEndian(counted, 4);
        const bool isNegative = counted >= 0x80000000 || counted == 0; // no elements
        expectRead(strict, isNegative);
        expectRead(strict + elements, isNegative);
        expectRead(named + members, true); // nobody counts them
        expectRead(named, true);
        EXPECT_LE(allocationsFor(strict + elements), four + 3); // they stand behind the array: three values
        EXPECT_EQ(allocationsFor(named + members), none);
    }
    EXPECT_EQ(allocationsFor(Hex("0A 7FFFFFFF") + elements), four);
}

TEST_P(HostileDepth, IsReadUpToALimitAndRefusedBeyondIt)
{
    const size_t levels = GetParam();
    const bool isRead = levels <= kDeepestAmf;
    const struct {
        const char *opening, *closing;
    } rows[] = {{"03 0001 'n'", "000009"}, {"08 00000001 0001 'n'", "000009"}, {"0A 00000001", ""}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.opening);
        CaptureLogger log;
        RtmpServer server = {};
        server.Logger = log.get();
        const Bytes bytes =
            Repeated(Hex(row.opening), levels) + Hex("05") + Repeated(Hex(row.closing), levels);
        const DecodedAmf decoded(&server, bytes, bytes.size());
        EXPECT_EQ(decoded.consumed, isRead ? static_cast<int32_t>(bytes.size()) : -1);
        EXPECT_EQ(log.lines().size(), isRead ? 0U : kDeepestAmf + 1U);
    }
}

TEST_P(HostileDepth, IsFreedWithoutAStack)
{
    // Five million properties take half a gigabyte: that many on demand.
    const size_t levels = std::min<size_t>(GetParam(), UnlessLarge(100000, 5000000));
    AmfObject list = {};
    ASSERT_EQ(WriteAmfNull(nullptr, &list), 0);
    for (size_t i = 0; i < levels; i++) {
        AmfObject around = {};
        ASSERT_EQ(WriteAmfObject(nullptr, &around, &list), 0);
        list = around;
    }
    FreeAmfObject(nullptr, &list, 1);
    EXPECT_EQ(list.first, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Levels, HostileDepth, testing::Values(10, 64, 1000, 1024, 1025, 100000, 5000000),
                         testing::PrintToStringParamName());
