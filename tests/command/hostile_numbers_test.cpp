// Numbers that are no integers, wherever one becomes an integer; and texts of services at the ends of their
// fields.
#include "command_fixture.h"

#include <cmath>
#include <cstring>
#include <limits>

using namespace amf0;
using namespace received;

namespace {

struct HostileNumber {
    const char *name;
    Bytes value; // the eight bytes
    int32_t integer;
};

const HostileNumber kHostileNumbers[] = {
    {"ThatBeginsLikeAnObjectsEnd", Hex("0000090000000000"), 0},
    {"ThatBeginsLikeTheRestOfAnObjectsEnd", Hex("0009000000000000"), 0},
    {"NaN", Hex("7FF8000000000000"), 0},
    {"SignallingNaN", Hex("FFF0000000000001"), 0},
    {"Infinity", Hex("7FF0000000000000"), INT32_MAX},
    {"MinusInfinity", Hex("FFF0000000000000"), INT32_MIN},
    {"MinusZero", Hex("8000000000000000"), 0},
    {"TenToThe300", Hex("7E37E43C8800759C"), INT32_MAX},
    {"MinusTenToThe300", Hex("FE37E43C8800759C"), INT32_MIN},
    {"TwoToThe31", Hex("41E0000000000000"), INT32_MAX},
    {"OneBelowTwoToThe31", Hex("41DFFFFFFFC00000"), INT32_MAX},
    {"MinusTwoToThe31", Hex("C1E0000000000000"), INT32_MIN},
    {"TwoToThe53", Hex("4340000000000000"), INT32_MAX},
    {"TheSmallest", Hex("0000000000000001"), 0},
};

class HostileNumbers : public CommandFixture, public testing::WithParamInterface<HostileNumber> {
  protected:
    Value number() const
    {
        return {Hex("00") + GetParam().value, {9}};
    }
    // Unnamed, such a number ends the values in front of it (AMF0, 2.11).
    bool endsTheValues() const
    {
        return GetParam().value[0] == 0 && GetParam().value[1] == 9;
    }
};

class ServiceTexts : public CommandFixture, public testing::WithParamInterface<size_t> {};

} // namespace

TEST_P(HostileNumbers, InConnectAreFlagsOfCodecs)
{
    const uint32_t codecs = static_cast<uint32_t>(GetParam().integer);
    const Value command[] = {String("connect"), Number(1)};
    const Parsed audio = parse({command[0], command[1], Object({{"audioCodecs", number()}})});
    EXPECT_EQ(audio.result, codecs == 0xFFF || (codecs & 0x400) != 0 ? 0 : -1);
    const Parsed video = parse({command[0], command[1], Object({{"videoCodecs", number()}})});
    EXPECT_EQ(video.result, codecs == 0xFF || (codecs & 0x80) != 0 ? 0 : -1);
    double value;
    uint64_t bits = 0;
    for (const uint8_t byte : GetParam().value) {
        bits = bits << 8 | byte;
    }
    memcpy(&value, &bits, sizeof value);
    const Parsed encoding = parse({command[0], command[1], Object({{"objectEncoding", number()}})});
    EXPECT_EQ(encoding.result, value == 0 ? 0 : -1);
}

TEST_P(HostileNumbers, OfASessionIdSaturate)
{
    withContext();
    strcpy(context->SessionIdText, "before");
    EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), number()}).result, 0);
    EXPECT_EQ(context->SessionIdText, endsTheValues() ? "before" : std::to_string(GetParam().integer));
}

TEST_P(HostileNumbers, OfViewersSaturate)
{
    withContext();
    const auto report = [this](const Value &count) {
        return parse({String("moduleInfo"), Number(0), Null(), Object({{"viewers", count}})}).result;
    };
    EXPECT_EQ(report(Number(77)), 0);
    HostFakes::get().statusReports.clear();
    EXPECT_EQ(report(number()), 0);
    EXPECT_EQ(report(Number(GetParam().integer)), 0); // no news
    EXPECT_EQ(HostFakes::get().statusReports().size(), 1U);
}

TEST_P(HostileNumbers, OfTransactionsAreKeptAsTheyCame)
{
    withContext();
    context->ResultTransactionId = 9;
    EXPECT_EQ(parse({String("_result"), number()}).result, 0);
    const uint64_t kept = [this] {
        uint64_t bits;
        memcpy(&bits, &context->ResultTransactionId, sizeof bits);
        return bits;
    }();
    EXPECT_TRUE(Same(BigEndian(kept, 8), endsTheValues() ? Bytes(8) : GetParam().value));
}

INSTANTIATE_TEST_SUITE_P(Number, HostileNumbers, testing::ValuesIn(kHostileNumbers),
                         [](const testing::TestParamInfo<HostileNumber> &row) { return row.param.name; });

TEST_P(ServiceTexts, AreKeptUpToTheEndOfTheirField)
{
    withContext();
    const std::string text(GetParam(), 't');
    const std::string kept = text.substr(0, 1023);
    const Value info =
        Object({{"level", String(text)}, {"code", String(text)}, {"description", String(text)}});
    for (const char *name : {"_error", "onStatus", "onClientLogin", "_result"}) {
        EXPECT_EQ(parse({String(name), Number(2), Null(), info}).result, 0) << name;
        EXPECT_EQ(parse({String(name), Number(2), Null(), String(text)}).result, 0) << name;
    }
    EXPECT_EQ(context->ErrorCode, kept);
    EXPECT_EQ(context->ErrorDescription, kept);
    EXPECT_EQ(context->StatusLevel, kept);
    EXPECT_EQ(context->StatusCode, kept);
    EXPECT_EQ(context->StatusDescription, kept);
    EXPECT_EQ(context->StatusHostContext[0], 0U); // what lies behind it
    EXPECT_EQ(parse({String("setChallenge"), Number(0), Null(), Number(1), String(text)}).result, 0);
    EXPECT_EQ(parse({String("moduleInfo"), Number(0), Null(), Object({{text, String(text)}})}).result, 0);
}

INSTANTIATE_TEST_SUITE_P(Length, ServiceTexts, testing::Values(0, 1, 1023, 1024, 4095, 4096, 4097, 65535),
                         testing::PrintToStringParamName());
