// Parameter sets of encoders, damaged ones and ones that nobody writes.
#include "seed_folder.h"
#include "tests/media/bits.h"

namespace {

enum SetsMode : uint8_t {
    SPS_BYTES = 0,
    SPS_FIELDS = 1,
    CONFIGURATION = 3,
    ASSEMBLED = 4,
    BITS = 5,
    STRICT_BITS = 6
};
constexpr uint8_t kScalingLists = 7;

const Bytes kSeedSps = Hex("67 42C01F DA014016E4"); // 1280x720
const Bytes kSeedPps = Hex("68 CE3C80");

struct EncoderSps {
    const char *name;
    const char *bytes;
};

// x264's and an AVC-Intra camera's.
const EncoderSps kEncoderSps[] = {
    {"baseline_720", "67 42C01F D9005005BB0110000003001000000303 20F1832480"},
    {"high_1080", "67 640028 ACD9407802 27E5C044000003000400000300C83C"},
    {"high_1080_interlaced", "67 640028 ACD94078044FDE0220000003002000000643"},
    {"high_422_10", "67 7A0028 B6CB403C0113F1380880000003008000001907 8C1950"},
    {"high_444_10", "67 F4001E 90D9680A42FE3E7C044000000300400000 0C83C58BA8"},
    {"monochrome", "67 64000D F2D02A10F1F1F80B64000003004000000300C83C50AA80"},
    {"intra_with_matrices", "676E1028A6D42032330C7118886210191986388C44302102564E6E61873E734D980C03069C0B73E6"
                            "C0B518630D39E05B02D4C6191A798C323424F0168113F787080000030008000003019420"},
};

Bytes StartCode(size_t zeros)
{
    return Bytes(zeros, 0) + Bytes{1};
}

// Profile, constraints, level and seq_parameter_set_id 0.
BitWriter SeedSpsOf(uint8_t profile)
{
    BitWriter written;
    written.u(8, 0x67).u(8, profile).u(8, 0).u(8, 40).ue(0);
    return written;
}

Bytes WithPicture(BitWriter written)
{
    return written.ue(0).ue(2).ue(4).text("0").ue(79).ue(44).text("1 1 0 0 1").bytes();
}

void WriteReal(SeedFolder &folder)
{
    for (const EncoderSps &sps : kEncoderSps) {
        const Bytes bytes = Hex(sps.bytes);
        folder.write(std::string("sps_") + sps.name, Bytes{SPS_BYTES} + bytes);
        folder.write(std::string("configuration_") + sps.name,
                     Bytes{CONFIGURATION} + StartCode(3) + bytes + StartCode(3) + kSeedPps);
    }
    const Bytes bytes = Hex(kEncoderSps[1].bytes);
    for (size_t length = 0; length < bytes.size(); length++) {
        folder.write("sps_cut_behind_" + std::to_string(length), Bytes{SPS_BYTES} + Slice(bytes, 0, length));
    }
}

void WriteCodes(SeedFolder &folder)
{
    folder.write("sps_all_zeros", Bytes{SPS_BYTES, 0x67} + Bytes(60, 0x00));
    folder.write("sps_all_ones", Bytes{SPS_BYTES, 0x67} + Bytes(60, 0xFF));
    for (const int zeros : {31, 32, 33}) {
        BitWriter written;
        written.u(8, 0x67).u(8, 66).u(16, 31).u(zeros, 0).u(1, 1).u(zeros < 33 ? zeros : 32, 0xFFFFFFFF);
        folder.write("sps_id_behind_" + std::to_string(zeros) + "_zeros", Bytes{SPS_BYTES} + written.bytes());
    }
    for (const uint64_t cycle :
         {uint64_t{0}, uint64_t{254}, uint64_t{255}, uint64_t{256}, uint64_t{0xFFFFFFFF}}) {
        BitWriter written = SeedSpsOf(66);
        written.ue(0).ue(1).text("0").se(1).se(-1).ue(cycle);
        for (uint64_t i = 0; i < cycle && i < 256; i++) {
            written.se(static_cast<int64_t>(i % 3) - 1);
        }
        written.ue(4).text("0").ue(79).ue(44).text("1 1 0 0 1");
        folder.write("sps_cycle_of_" + std::to_string(cycle), Bytes{SPS_BYTES} + written.bytes());
    }
    folder.write("sps_escaped", Bytes{SPS_BYTES} + Escaped(Hex("67 42C01F DA 000000 01 000003 000002 E4")));
}

// `shape`: a character a list: - absent, d default, z ends at once behind some entries, f full.
void PutLists(BitWriter &written, const std::string &shape)
{
    for (size_t i = 0; i < shape.size(); i++) {
        written.text(shape[i] == '-' ? "0" : "1");
        const int size = i < 6 ? 16 : 64;
        for (int entry = 0; shape[i] == 'f' && entry < size; entry++) {
            written.se(entry % 2 == 0 ? 3 : -2);
        }
        if (shape[i] == 'd') {
            written.se(-8);
        } else if (shape[i] == 'z') {
            written.se(2).se(-10);
        }
    }
}

void WriteShapes(SeedFolder &folder)
{
    for (const char *shape :
         {"--------", "dddddddd", "zzzzzzzz", "ffffffff", "f-d-z-fz", "------f-", "-------f"}) {
        for (const uint8_t profile : {uint8_t{100}, uint8_t{244}, uint8_t{144}}) {
            BitWriter written = SeedSpsOf(profile);
            written.ue(profile == 100 ? 1 : 3).text(profile == 100 ? "" : "0").ue(0).ue(0).text("0 1");
            PutLists(written, profile == 244 ? std::string(shape) + "f-dz" : shape);
            folder.write("lists_" + std::to_string(profile) + shape, Bytes{SPS_BYTES} + WithPicture(written));
        }
    }
    BitWriter lists;
    PutLists(lists, "fdz-");
    for (const uint8_t is8x8 : {uint8_t{0}, uint8_t{1}}) {
        folder.write("lists_alone_" + std::to_string(is8x8), Bytes{kScalingLists, is8x8} + lists.bytes());
    }
}

void WriteConfigurations(SeedFolder &folder)
{
    const Bytes both = kSeedSps + StartCode(3) + kSeedPps;
    for (size_t length = 1; length <= 5; length++) {
        folder.write("configuration_of_" + std::to_string(length) + "_bytes",
                     Bytes{CONFIGURATION} + Slice(StartCode(3) + kSeedSps, 0, length));
    }
    for (const size_t zeros : {1, 2, 3, 4, 7}) {
        folder.write("start_codes_of_" + std::to_string(zeros) + "_zeros",
                     Bytes{CONFIGURATION} + StartCode(zeros) + kSeedSps + StartCode(zeros) + kSeedPps);
        folder.write("start_code_of_" + std::to_string(zeros) + "_zeros_at_the_end",
                     Bytes{CONFIGURATION} + StartCode(3) + both + StartCode(zeros));
    }
    for (size_t more = 0; more <= 4; more++) {
        folder.write("pps_with_" + std::to_string(more) + "_more_bytes",
                     Bytes{CONFIGURATION} + StartCode(3) + both + Bytes(more, 0x11));
    }
    folder.write("pps_in_front", Bytes{CONFIGURATION} + StartCode(3) + kSeedPps + StartCode(3) + kSeedSps);
    folder.write("sps_alone", Bytes{CONFIGURATION} + StartCode(3) + kSeedSps);
    folder.write("header_without_reference",
                 Bytes{CONFIGURATION} + StartCode(3) + Hex("07 42C01F") + StartCode(3));
    folder.write("trailing_zeros",
                 Bytes{CONFIGURATION} + StartCode(2) + kSeedSps + StartCode(5) + kSeedPps + Bytes(6, 0));
}

// Choices, then a byte or more for each field.
void WriteFields(SeedFolder &folder)
{
    const Bytes fields = Hex("01 C01F 00 00 02 01 4F 2C 01 01 00 00");
    for (uint8_t profile = 0; profile < 16; profile++) {
        folder.write("fields_" + std::to_string(profile),
                     Bytes{SPS_FIELDS, static_cast<uint8_t>(0x40 | profile)} + fields);
        folder.write("fields_with_lists_" + std::to_string(profile),
                     Bytes{SPS_FIELDS, profile} + Hex("C01F 00 03 00 01 01 00 01 0C 01 11 05 F1 F2 03") +
                         fields);
    }
    folder.write("assembled", Bytes{ASSEMBLED, 0x13} + Hex("05 C01F 00 00 02 01 4F 2C 01 01 00 00 0000") +
                                  Hex("63 05 CE3C801122 02 03 112233"));
    folder.write("bits",
                 Bytes{BITS} + Hex("0A 00 05 28 A0 01 02 03 04 FC FF 12345678 9ABCDEF0 0000000000000001"));
    folder.write("strict_bits", Bytes{STRICT_BITS} + Hex("06 18 01 02 C9 04 05 A6 4240000003 01 000003 80"));
}

} // namespace

void Seeds_parameter_sets(SeedFolder &folder)
{
    WriteReal(folder);
    WriteCodes(folder);
    WriteShapes(folder);
    WriteConfigurations(folder);
    WriteFields(folder);
}
