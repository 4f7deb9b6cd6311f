// Single values, numbers that are none of the range in every place where one becomes an integer, and
// commands.
#include "seed_folder.h"
#include "support/amf_bytes.h"
#include "support/amf_rows.h"

namespace {

enum PropMode : uint8_t {
    PROP_UNNAMED,
    PROP_NAMED,
    PROP_STRICT_ARRAY,
    PROP_SCALARS,
    PROP_NUMBER,
    PROP_COMMAND
};
constexpr uint8_t kAllRules = 0x80;
constexpr uint8_t kJoined = 0x20;

void WriteValues(SeedFolder &folder)
{
    size_t row = 0;
    for (const AmfRow &each : AmfRows()) {
        const Bytes bytes = Hex(each.picture);
        folder.write("value_" + std::to_string(row), Bytes{PROP_UNNAMED} + bytes);
        folder.write("named_value_" + std::to_string(row), Bytes{PROP_NAMED} + Hex("0001 'n'") + bytes);
        folder.write("elements_" + std::to_string(row), Bytes{PROP_STRICT_ARRAY} + Hex("00000002") + bytes);
        row++;
    }
    for (const char *count : {"FFFFFFFF", "00000000", "7FFFFFFF", "80000000", "000000"}) {
        folder.write(std::string("elements_count_") + count,
                     Bytes{PROP_STRICT_ARRAY} + Hex(count) + Hex("05 05"));
    }
}

struct OddNumber {
    const char *name;
    const char *bits;
};

const OddNumber kOddNumbers[] = {
    {"0", "0000000000000000"},
    {"minus_0", "8000000000000000"},
    {"1", "3FF0000000000000"},
    {"minus_1", "BFF0000000000000"},
    {"half", "3FE0000000000000"},
    {"nan", "7FF8000000000000"},
    {"minus_nan", "FFF8000000000001"},
    {"infinity", "7FF0000000000000"},
    {"minus_infinity", "FFF0000000000000"},
    {"1e300", "7E37E43C8800759C"},
    {"2_to_31", "41E0000000000000"},
    {"2_to_31_minus_1", "41DFFFFFFFC00000"},
    {"minus_2_to_31", "C1E0000000000000"},
    {"2_to_32", "41F0000000000000"},
    {"2_to_53", "4340000000000000"},
    {"2_to_63", "43E0000000000000"},
    {"smallest", "0000000000000001"},
    {"begins_0009", "0009000000000000"},
    {"aac", "4090000000000000"},
    {"all_codecs", "40AFFE0000000000"},
};

void WriteOddNumbers(SeedFolder &folder)
{
    for (const OddNumber &number : kOddNumbers) {
        const Bytes bits = Hex(number.bits);
        folder.write(std::string("scalar_") + number.name, Bytes{PROP_SCALARS} + bits);
        folder.write(std::string("number_") + number.name, Bytes{PROP_NUMBER} + bits + Bytes{0});
        folder.write(std::string("number_today_") + number.name,
                     Bytes{PROP_NUMBER | kAllRules} + bits + Bytes{1});
    }
    folder.write("text_of_6", Bytes{PROP_SCALARS} + Hex("0006 '123456'"));
}

void WriteCommand(SeedFolder &folder, const std::string &name, const std::vector<amf0::Value> &values)
{
    const Bytes body = amf0::Values(values).bytes;
    folder.write("command_" + name, Bytes{PROP_COMMAND} + body);
    folder.write("command_joined_" + name, Bytes{PROP_COMMAND | kAllRules | kJoined} + body);
}

void WriteCommands(SeedFolder &folder)
{
    using namespace amf0;
    const Value connect = Object({{"app", String("live")},
                                  {"flashVer", String("LNX 11,1")},
                                  {"tcUrl", String("rtmp://host/live")},
                                  {"fpad", Boolean(false)},
                                  {"audioCodecs", Number(3191)},
                                  {"videoCodecs", Number(252)},
                                  {"objectEncoding", Number(0)}});
    WriteCommand(folder, "connect", {String("connect"), Number(1), connect});
    WriteCommand(folder, "connect_keys_cut",
                 {String("connect"), Number(1), Object({{"", Null()}, {"ap", Number(1)}})});
    WriteCommand(folder, "connect_keys_twice",
                 {String("connect"), Number(1), Object({{"app", String("live")}, {"app", Number(1)}})});
    WriteCommand(folder, "createStream", {String("createStream"), Number(2), Null()});
    WriteCommand(
        folder, "play",
        {String("play"), Number(3), Null(), String("live"), Number(-2000), Number(-1), Boolean(true)});
    WriteCommand(folder, "play_unknown", {String("play"), Number(3), Null(), String("mp4:%s%n?x=1")});
    WriteCommand(folder, "play_empty", {String("play"), Number(3), Null(), String("")});
    WriteCommand(folder, "pause", {String("pause"), Number(4), Null(), Boolean(true), Number(1000)});
    WriteCommand(folder, "seek", {String("seek"), Number(5), Null(), Number(1e300)});
    WriteCommand(folder, "publish", {String("publish"), Number(5), Null(), String("cam"), String("live")});
    WriteCommand(folder, "ping", {String("ping"), Number(0), Null()});
    WriteCommand(folder, "record", {String("recordError"), Number(0), Null()});
    WriteCommand(folder, "setChallenge",
                 {String("setChallenge"), Number(0), Null(), Number(4711), String("abc")});
    for (const size_t length : {0, 1023, 1024, 1025}) {
        const Value info = Object({{"level", String("error")},
                                   {"code", String(std::string(length, 'c'))},
                                   {"description", String(std::string(length, 'd'))}});
        WriteCommand(folder, "status_of_" + std::to_string(length),
                     {String("onStatus"), Number(0), Null(), info});
        WriteCommand(folder, "error_of_" + std::to_string(length),
                     {String("_error"), Number(7), Null(), info});
    }
    const Value statistics = Object({{"viewers", Number(3)},
                                     {"allViewers", Number(9)},
                                     {"b", Boolean(true)},
                                     {"o", Object({})},
                                     {"s", String("text")},
                                     {"z", Null()}});
    WriteCommand(folder, "moduleInfo", {String("moduleInfo"), Number(0), Null(), statistics});
    WriteCommand(folder, "moduleInfo_text", {String("moduleInfo"), Number(0), Null(), String("text")});
    WriteCommand(folder, "ill_typed", {Number(1), String("connect"), Boolean(true)});
    WriteCommand(folder, "nothing", {});
}

} // namespace

void Seeds_amf_prop(SeedFolder &folder)
{
    WriteValues(folder);
    WriteOddNumbers(folder);
    WriteCommands(folder);
}
