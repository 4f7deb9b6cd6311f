// The rows of the AMF0 table, and what a peer may make of each marker, length, count, depth and number.
#include "seed_folder.h"
#include "support/amf_rows.h"

#include <cstdio>

namespace {

constexpr uint8_t kUnnamed = 0;
constexpr uint8_t kNamed = 1;
constexpr uint8_t kFreedByHost = 2;
constexpr uint8_t kRepeated = 0x82; // and freed as a host frees

void WriteBody(SeedFolder &folder, const std::string &name, const Bytes &body, uint8_t choices = kUnnamed)
{
    folder.write(name, Bytes{choices} + body);
}

// `head`, `times` times `unit`, `tail`.
void WriteRepeated(SeedFolder &folder, const std::string &name, size_t times, const Bytes &head,
                   const Bytes &unit, const Bytes &tail)
{
    const Bytes lengths = BigEndian(times, 3) + BigEndian(head.size(), 1) + head;
    WriteBody(folder, name, lengths + BigEndian(unit.size(), 1) + unit + tail, kRepeated);
}

std::string Numbered(const char *what, size_t number)
{
    char text[64];
    snprintf(text, sizeof text, "%s_%03zu", what, number);
    return text;
}

void WriteMarkers(SeedFolder &folder)
{
    const Bytes filling = Hex("0000 0001 00 0000 0000 000009 05"); // of whatever the marker wants to read
    for (uint8_t marker = 0; marker <= 19; marker++) {
        const Bytes value = Bytes{marker} + filling;
        WriteBody(folder, Numbered("marker_at_the_top", marker), value);
        WriteBody(folder, Numbered("marker_in_an_object", marker), Hex("03 0001 'a'") + value);
        WriteBody(folder, Numbered("marker_in_a_strict_array", marker), Hex("0A 00000002") + value);
    }
}

void WriteCuts(SeedFolder &folder)
{
    const Bytes whole = Hex("02 0004 'play' 00 4000000000000000 03 0001 'a' 0A 00000001 05 000009 05");
    for (size_t length = 0; length < whole.size(); length++) {
        WriteBody(folder, Numbered("cut_behind_byte", length), Slice(whole, 0, length));
    }
}

void WriteLengths(SeedFolder &folder)
{
    const Bytes rest = Text("text5");
    for (const size_t length :
         {size_t{0}, size_t{1}, rest.size() - 1, rest.size(), rest.size() + 1, size_t{0xFFFF}}) {
        const std::string suffix = std::to_string(length);
        WriteBody(folder, "string_of_" + suffix, Hex("02") + BigEndian(length, 2) + rest);
        WriteBody(folder, "long_string_of_" + suffix, Hex("0C") + BigEndian(length, 4) + rest);
        WriteBody(folder, "name_of_" + suffix, BigEndian(length, 2) + rest + Hex("05 000009"), kNamed);
    }
    for (uint64_t length = 0xFFFFFFF0; length <= 0xFFFFFFFF; length += 5) {
        WriteBody(folder, Numbered("long_string_of_FFFFFFF", length & 15),
                  Hex("0C") + BigEndian(length, 4) + rest);
    }
    for (const uint64_t count : {0xFFFFFFFFU, 0U, 1U, 0x7FFFFFFFU, 0x80000000U}) {
        WriteBody(folder, "strict_array_of_" + std::to_string(count),
                  Hex("0A") + BigEndian(count, 4) + Hex("05 06"));
        WriteBody(folder, "ecma_array_of_" + std::to_string(count),
                  Hex("08") + BigEndian(count, 4) + Hex("0001 'a' 05 000009"));
    }
}

void WriteDepths(SeedFolder &folder)
{
    for (const size_t depth : {10, 64, 1001, 1023, 1024, 1025, 1026}) {
        WriteRepeated(folder, Numbered("nested_objects", depth), depth - 1, Hex("03"), Hex("0001 'n' 03"),
                      {});
        WriteRepeated(folder, Numbered("nested_strict_arrays", depth), depth, {}, Hex("0A 00000001"),
                      Hex("05"));
        WriteRepeated(folder, Numbered("nested_ecma_arrays", depth), depth - 1, Hex("08 00000001"),
                      Hex("0001 'n' 08 00000001"), {});
    }
    for (const size_t count : {65534, 65535}) {
        WriteRepeated(folder, Numbered("values", count), count, {}, Hex("05"), {});
        WriteRepeated(folder, Numbered("values_in_a_strict_array", count), count,
                      Hex("0A") + BigEndian(count, 4), Hex("06"), Hex("05"));
    }
}

void WriteNumbers(SeedFolder &folder)
{
    const std::pair<const char *, const char *> rows[] = {
        {"begins_0009", "0009000000000000"}, {"nan", "7FF8000000000000"},
        {"infinity", "7FF0000000000000"},    {"minus_infinity", "FFF0000000000000"},
        {"minus_0", "8000000000000000"},     {"1e300", "7E37E43C8800759C"},
        {"2_to_31", "41E0000000000000"},     {"2_to_53", "4340000000000000"},
        {"smallest", "0000000000000001"},
    };
    for (const auto &[name, bits] : rows) {
        WriteBody(folder, std::string("number_") + name, Hex("00") + Hex(bits) + Hex("05"));
        WriteBody(folder, std::string("date_") + name, Hex("0B") + Hex(bits) + Hex("FFC4 05"));
        WriteBody(folder, std::string("member_") + name, Hex("0001 'n' 00") + Hex(bits) + Hex("000009"),
                  kNamed);
    }
}

} // namespace

void Seeds_amf_decode(SeedFolder &folder)
{
    size_t row = 0;
    for (const AmfRow &each : AmfRows()) {
        WriteBody(folder, Numbered("row", row++), Hex(each.picture), kFreedByHost);
    }
    for (const RefusedAmfRow &each : RefusedAmfRows()) {
        WriteBody(folder, Numbered("refused_row", row++), Hex(each.picture));
    }
    WriteMarkers(folder);
    WriteCuts(folder);
    WriteLengths(folder);
    WriteDepths(folder);
    WriteNumbers(folder);
}
