// Configurations and parameter sets that no encoder makes, to both readers of a sequence parameter set and to
// whoever registers them.
#include "media/sequence_parameters.h"
#include "media/sps.h"
#include "tests/media/media_fixture.h"

namespace {

const Bytes kHostileSeeds[] = {
    kSps720,
    kSps25,
    Hex("67 64 00 28 AC D9 40 78 02 27 E5 C0 44 00 00 03 00 04 00 00 03 00 C8 3C"),
    Hex("67 F4 00 1E 90 D9 68 0A 42 FE 3E 7C 04 40 00 00 03 00 40 00 00 0C 83 C5 8B A8"),
    Hex("67 6E 10 28 A6 D4 20 32 33 0C 71 18 88 62 10 19 19 86 38 8C 44 30 21 02 56 4E 6E 61 87 3E 73 4D"),
};

struct BothReaders {
    uint32_t width, height; // of the one
    int status;             // of the other
    SequenceParameters read;
};

BothReaders ReadByBoth(const Bytes &sps)
{
    const ExactBytes exact(sps);
    VdCodecInfo info = {};
    ParseSPSHeader(exact.data(), static_cast<uint32_t>(exact.size()), &info);
    BothReaders out = {info.width, info.height, 0, {}};
    out.status = ReadSequenceParameters(exact.data(), static_cast<uint32_t>(exact.size()), &out.read);
    return out;
}

// The one promises whole macroblocks, the other a size that the standard has (ITU-T H.264, A.3.1).
void ExpectSensible(const BothReaders &result)
{
    EXPECT_EQ(result.width % 16, 0U);
    EXPECT_EQ(result.height % 16, 0U);
    if (result.status == 0) {
        EXPECT_GE(result.read.Width, 1U);
        EXPECT_LE(result.read.Width, 16880U);
        EXPECT_GE(result.read.Height, 1U);
        EXPECT_LE(result.read.Height, 16880U);
    }
}

// Up to bit `at`; then the rest of that byte is as `fill` has it, and there is nothing more.
Bytes CutAtBit(const Bytes &sps, size_t at, uint8_t fill)
{
    Bytes out = Slice(sps, 0, at / 8 + 1);
    const uint8_t rest = static_cast<uint8_t>(0xFF >> at % 8);
    out.back() = static_cast<uint8_t>((out.back() & ~rest) | (fill & rest));
    return out;
}

BitWriter HostileSps(uint64_t profile)
{
    BitWriter written;
    written.u(8, 0x67).u(8, profile).u(8, 0).u(8, 40);
    return written;
}

// An Exp-Golomb prefix of so many zeros, and ones behind it.
BitWriter &LongCode(BitWriter &written, int zeros)
{
    for (int i = 0; i < zeros; i++) {
        written.text("0");
    }
    for (int i = 0; i <= zeros; i++) {
        written.text("1");
    }
    return written;
}

class HostileConfiguration : public MediaTest {
  protected:
    // Registers the bytes, and looks after what must hold whatever they are.
    int32_t registered(const Bytes &config)
    {
        const ExactBytes exact(config);
        const VideoMediaInfo video = VideoOf(exact);
        const int32_t result = RtmpAddMediaInfo(&session, &video, nullptr);
        EXPECT_EQ(session.CodecInfo != nullptr, result == 0) << ToHex(config);
        EXPECT_TRUE(lockIsFree());
        return result;
    }
    void expectRegistered(const Bytes &config)
    {
        EXPECT_EQ(registered(config), 0) << ToHex(config);
        ASSERT_NE(session.CodecInfo, nullptr);
        EXPECT_EQ(session.CodecInfo->VdCodecInfo->width, 1280U);
        EXPECT_EQ(session.CodecInfo->VdCodecInfo->height, 720U);
    }
    void expectRefused(const Bytes &config, const char *line)
    {
        log.clear();
        EXPECT_EQ(registered(config), RTMP_ERR_VIDEO_INFO) << ToHex(config);
        const Lines lines = log.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front(), line) << ToHex(config);
        EXPECT_EQ(lines.back(), "3 ERROR: RtmpAddMediaInfo: Cannot add video information");
    }

    static constexpr char kTooShort[] = "3 ERROR: ExtractSpsHeader: Invalid video config data";
    static constexpr char kNoSps[] = "3 ERROR: ExtractSpsHeader: SPS not found in video config data";
    static constexpr char kNoEndOfSps[] = "3 ERROR: ExtractSpsHeader: End of SPS not found";
    static constexpr char kNoPps[] = "3 ERROR: ExtractPpsHeader: PPS not found in video config data";
    static constexpr char kNoEndOfPps[] = "3 ERROR: ExtractPpsHeader: End of PPS not found";
};

} // namespace

TEST(HostileSps, CutAtEveryBitIsReadAsFarAsItGoes)
{
    for (const Bytes &sps : kHostileSeeds) {
        for (size_t bit = 0; bit < 8 * sps.size(); bit++) {
            SCOPED_TRACE(std::to_string(bit) + " of " + ToHex(sps));
            ExpectSensible(ReadByBoth(CutAtBit(sps, bit, 0x00)));
            ExpectSensible(ReadByBoth(CutAtBit(sps, bit, 0xFF)));
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

TEST(HostileSps, OfZerosAloneHasNoSizeAndOfOnesAloneOneMacroblock)
{
    for (size_t length = 0; length <= 80; length++) {
        SCOPED_TRACE(length);
        const BothReaders zeros = ReadByBoth(Bytes(length));
        EXPECT_EQ(zeros.status, -1);
        ExpectSensible(zeros);
        const BothReaders ones = ReadByBoth(Bytes(length, 0xFF));
        ExpectSensible(ones);
        // Behind four bytes of header, fields of one bit that are 0, and flags that are set. The one reader
        // takes profile 255 for one without chroma fields: eight bits as far as the height, seven more as far
        // as the cropping. The other reads those fields and eight whole scaling lists: 278 bits in all.
        EXPECT_EQ(ones.status, length >= 6 ? 0 : -1);
        if (ones.status == 0) {
            EXPECT_EQ(ones.read.Width, 16U);
            EXPECT_EQ(ones.read.Height, 16U);
        }
        if (length >= 35) {
            EXPECT_EQ(ones.width, 16U);
            EXPECT_EQ(ones.height, 16U);
        }
    }
}

TEST(HostileSps, LongCodesInEveryPlaceAreReadOrRefused)
{
    constexpr int kFields = 9; // from seq_parameter_set_id on, of a profile that has the chroma fields
    for (const int zeros : {31, 32, 33, 63}) {
        for (int field = 0; field < kFields; field++) {
            SCOPED_TRACE(std::to_string(zeros) + " zeros in field " + std::to_string(field));
            BitWriter written = HostileSps(100);
            for (int i = 0; i < kFields; i++) {
                if (i == field) {
                    LongCode(written, zeros);
                } else {
                    written.ue(i == 1 ? 1 : 0);
                }
                written.text(i == 3 ? "0 0" : ""); // transform bypass, no matrix
            }
            written.text("1 1 0 0 1");
            const BothReaders result = ReadByBoth(Escaped(written.bytes()));
            EXPECT_EQ(result.status, -1); // no field may be so large
            ExpectSensible(result);
        }
    }
}

TEST(HostileSps, OffsetCyclesOfAnyCountEnd)
{
    for (const uint64_t counted : {uint64_t{255}, uint64_t{256}, uint64_t{0xFFFFFFFF}}) {
        for (const int given : {0, 255, 256, 1000}) {
            SCOPED_TRACE(std::to_string(counted) + " counted, given " + std::to_string(given));
            BitWriter written = HostileSps(66);
            written.ue(0).ue(0).ue(1).text("0").se(0).se(0);
            counted == 0xFFFFFFFF ? written.u(32, 0).u(1, 1).u(32, 0) : written.ue(counted);
            for (int i = 0; i < given; i++) {
                written.se(1);
            }
            written.ue(2).text("0").ue(39).ue(29).text("1 1 0 0 1");
            const BothReaders result = ReadByBoth(Escaped(written.bytes()));
            ExpectSensible(result);
            const bool isWhole = counted == 255 && given == 255;
            EXPECT_EQ(result.status == 0 && result.read.Width == 640 && result.read.Height == 480, isWhole);
        }
    }
}

TEST_F(HostileConfiguration, OfOneToFiveBytesIsRefusedWhateverTheyAre)
{
    const uint8_t bytes[] = {0x00, 0x01, 0x67, 0x68};
    for (size_t length = 1; length <= 5; length++) {
        for (size_t code = 0; code < size_t{1} << 2 * length; code++) {
            Bytes config(length);
            for (size_t i = 0; i < length; i++) {
                config[i] = bytes[code >> 2 * i & 3];
            }
            const char *why = config == Hex("00000001 67") ? kNoEndOfSps : kNoSps;
            expectRefused(config, length <= 4 ? kTooShort : why);
        }
        ASSERT_FALSE(HasFailure());
    }
}

// A start code of four bytes ends what is in front of it, also where nothing is behind it; one of three, and
// one that is cut, belong to what they end. A PPS of up to four bytes needs no end, and one byte is a PPS.
TEST_F(HostileConfiguration, StartCodesInItsLastFourBytesEndWhatIsInFrontOfThem)
{
    for (const char *end : {"00", "0000", "000000", "01", "0001", "000001", "67", "0167", "000167",
                            "00000167", "68", "00000168"}) {
        SCOPED_TRACE(end);
        expectRefused(kConfig720 + Hex(end), kNoEndOfPps);
        expectRefused(kStartCode + kPps4 + kStartCode + kSps720 + Hex(end), kNoEndOfSps);
        expectRefused(kStartCode + kSps720 + Hex(end), kNoEndOfSps);
    }
    for (const char *end : {"00000001", "0000000167", "000000016742", "0000000168"}) {
        SCOPED_TRACE(end);
        expectRegistered(kConfig720 + Hex(end));
        expectRegistered(kStartCode + kPps4 + kStartCode + kSps720 + Hex(end));
        if (Hex(end).back() == 0x68) {
            expectRegistered(kStartCode + kSps720 + Hex(end));
        } else {
            expectRefused(kStartCode + kSps720 + Hex(end), kNoPps);
        }
    }
}

TEST_F(HostileConfiguration, CutAtEveryByteIsRefusedByWhatItLacks)
{
    for (size_t length = 1; length < kConfig720.size(); length++) {
        SCOPED_TRACE(length);
        const Bytes config = Slice(kConfig720, 0, length);
        if (length < 4 + kSps720.size() + 4) { // without the second start code
            expectRefused(config, length <= 4 ? kTooShort : kNoEndOfSps);
        } else if (length == 4 + kSps720.size() + 4) {
            expectRefused(config, kNoPps);
        } else {
            expectRegistered(config); // with a PPS of one to three bytes
        }
    }
}

// A bit of a start code or of the type of a NAL unit is missed, and so is the one that must be 0; any bit of
// what the units contain, and one of the two of nal_ref_idc, makes another configuration.
TEST_F(HostileConfiguration, WithABitTurnedIsRefusedWhereAParameterSetIsNoLongerFound)
{
    for (size_t bit = 0; bit < 8 * kConfig720.size(); bit++) {
        SCOPED_TRACE(bit);
        Bytes config = kConfig720;
        config[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
        const bool isReference = bit % 8 == 1 || bit % 8 == 2;
        const size_t pps = 4 + kSps720.size() + 4;
        if (bit / 8 < 4 || (bit / 8 == 4 && !isReference)) {
            expectRefused(config, kNoSps);
        } else if (bit / 8 >= pps - 4 && bit / 8 < pps) {
            expectRefused(config, kNoEndOfSps);
        } else if (bit / 8 == pps && !isReference) {
            expectRefused(config, kNoPps);
        } else {
            EXPECT_EQ(registered(config), 0);
        }
    }
    expectRegistered(kConfig720);
}
