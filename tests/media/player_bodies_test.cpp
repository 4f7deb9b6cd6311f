// What RTMP_PLAYERS_DESCRIPTION adds to a registration: bodies that are well-formed, beside the exact ones.
#include "rtmpcast/player.h"
#include "support/amf_bytes.h"
#include "support/calls.h"
#include "tests/media/media_fixture.h"

namespace {

using amf0::Boolean;
using amf0::Member;
using amf0::Number;

Bytes OnMetaData(const std::vector<Member> &members)
{
    return amf0::Values({amf0::String("onMetaData"), amf0::EcmaArray(members)}).bytes;
}

const std::vector<Member> kVideo720 = {{"width", Number(1280)},     {"height", Number(720)},
                                       {"videocodecid", Number(7)}, {"avclevel", Number(31)},
                                       {"avcprofile", Number(66)},  {"videodatarate", Number(2500)}};
const std::vector<Member> kAudio44 = {{"audiosamplerate", Number(44100)},
                                      {"audiochannels", Number(2)},
                                      {"stereo", Boolean(true)},
                                      {"audiocodecid", Number(10)}};

std::vector<Member> Both()
{
    std::vector<Member> both = kVideo720;
    both.insert(both.end(), kAudio44.begin(), kAudio44.end());
    return both;
}

// x264's, High, 1920x1080.
const Bytes kHigh1080 = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5, 0xC0,
                         0x44, 0x00, 0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x3C};

// Of any profile with chroma fields: format, bit depths, no matrices, 320x240.
Bytes SpsWithChroma(uint8_t profile, uint64_t format, uint64_t luma, uint64_t chroma)
{
    BitWriter written;
    written.u(8, 0x67).u(8, profile).u(8, 0).u(8, 30).ue(0).ue(format).text(format == 3 ? "0" : "");
    written.ue(luma).ue(chroma).text("0 0").ue(0).ue(2).ue(1).text("0").ue(19).ue(14).text("1 1 0 0 1");
    return Escaped(written.bytes());
}

Bytes ConfigOf(const Bytes &sps)
{
    return kStartCode + sps + kStartCode + kPps4;
}

Bytes ExactBoxOf(const Bytes &sps)
{
    return Join({Hex("17 00 000000 01"), Slice(sps, 1, 3), Hex("FF E1"), BigEndian(sps.size(), 2), sps,
                 Hex("01 0004"), kPps4});
}

} // namespace

class PlayerBodies : public MediaTest {
  protected:
    PlayerBodies()
    {
        server.PlayerFlags = RTMP_PLAYERS_DESCRIPTION;
    }
    int32_t add(const Bytes &video, const Bytes &audio, uint32_t bitrate = 2500000)
    {
        const ExactBytes videoConfig(video);
        const ExactBytes audioConfig(audio);
        const VideoMediaInfo videoInfo = VideoOf(videoConfig, bitrate);
        const AudioMediaInfo audioInfo = AudioOf(audioConfig);
        return RtmpAddMediaInfo(&session, video.empty() ? nullptr : &videoInfo,
                                audio.empty() ? nullptr : &audioInfo);
    }
    Bytes metadata()
    {
        const CodecInfo *info = session.CodecInfo;
        return Bytes(info->PlayerMetaData, info->PlayerMetaData + info->PlayerMetaDataLen);
    }
    Bytes avccBox()
    {
        const CodecInfo *info = session.CodecInfo;
        return Bytes(info->PlayerAvccBox, info->PlayerAvccBox + info->PlayerAvccBoxLen);
    }
    Bytes exactMetadata()
    {
        const CodecInfo *info = session.CodecInfo;
        return Bytes(info->MetaData, info->MetaData + info->MetaDataLen);
    }
    Bytes exactAvccBox()
    {
        const VdCodecInfo *video = session.CodecInfo->VdCodecInfo;
        return Bytes(video->AvccBox, video->AvccBox + video->AvccBoxLen);
    }
};

TEST_F(PlayerBodies, MetadataIsAWholeEcmaArray)
{
    ASSERT_EQ(add(kConfig720, kStereo44), 0);
    EXPECT_TRUE(Same(metadata(), Hex("02 000A 'onMetaData' 08 0000000A"
                                     "0005 'width' 00 4094000000000000"
                                     "0006 'height' 00 4086800000000000"
                                     "000C 'videocodecid' 00 401C000000000000"
                                     "0008 'avclevel' 00 403F000000000000"
                                     "000A 'avcprofile' 00 4050800000000000"
                                     "000D 'videodatarate' 00 40A3880000000000"
                                     "000F 'audiosamplerate' 00 40E5888000000000"
                                     "000D 'audiochannels' 00 4000000000000000"
                                     "0006 'stereo' 01 01"
                                     "000C 'audiocodecid' 00 4024000000000000"
                                     "0000 09")));
    EXPECT_TRUE(Same(metadata(), OnMetaData(Both())));
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_TRUE(lockIsFree());
}

TEST_F(PlayerBodies, MetadataDescribesWhatIsRegistered)
{
    ASSERT_EQ(add(kConfig720, {}), 0);
    EXPECT_TRUE(Same(metadata(), OnMetaData(kVideo720)));
    ASSERT_EQ(add({}, kStereo44), 0);
    EXPECT_TRUE(Same(metadata(), OnMetaData(kAudio44)));
    EXPECT_EQ(session.CodecInfo->PlayerAvccBox, nullptr);
}

TEST_F(PlayerBodies, AnUnknownBitrateIsLeftOut)
{
    std::vector<Member> members(kVideo720.begin(), kVideo720.end() - 1);
    ASSERT_EQ(add(kConfig720, {}, 0), 0);
    EXPECT_TRUE(Same(metadata(), OnMetaData(members)));
    members.push_back({"videodatarate", Number(0.5)});
    ASSERT_EQ(add(kConfig720, {}, 500), 0);
    EXPECT_TRUE(Same(metadata(), OnMetaData(members)));
}

TEST_F(PlayerBodies, StereoIsTrueForTwoChannels)
{
    const double channels[] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};
    for (uint32_t configuration = 0; configuration < 16; configuration++) {
        std::vector<Member> members = {{"audiosamplerate", Number(44100)}};
        if (channels[configuration] != 0) { // unknown: in a program config element, or reserved
            members.push_back({"audiochannels", Number(channels[configuration])});
        }
        members.push_back({"stereo", Boolean(configuration == 2)});
        members.push_back({"audiocodecid", Number(10)});
        ASSERT_EQ(add({}, {0x12, static_cast<uint8_t>(configuration << 3)}), 0);
        EXPECT_TRUE(Same(metadata(), OnMetaData(members))) << configuration;
    }
}

TEST_F(PlayerBodies, ARateThatTheConfigurationDoesNotTellIsLeftOut)
{
    ASSERT_EQ(add({}, {0x17, 0x90, 0x56, 0x22, 0x10}), 0); // an explicit frequency
    EXPECT_TRUE(Same(metadata(), OnMetaData({kAudio44.begin() + 1, kAudio44.end()})));
}

TEST_F(PlayerBodies, TheSizeIsTheCroppedOne)
{
    ASSERT_EQ(add(ConfigOf(kHigh1080), {}, 0), 0);
    EXPECT_TRUE(Same(metadata(), OnMetaData({{"width", Number(1920)},
                                             {"height", Number(1080)},
                                             {"videocodecid", Number(7)},
                                             {"avclevel", Number(40)},
                                             {"avcprofile", Number(100)}})));
    EXPECT_EQ(session.CodecInfo->VdCodecInfo->height, 1088U); // as hosts compare it
}

TEST_F(PlayerBodies, TheSizeOfABrokenSpsIsTheExactOne)
{
    const Bytes cut = Slice(kSps720, 0, 8); // without the bits behind the height
    ASSERT_EQ(add(ConfigOf(cut), {}, 0), 0);
    const VdCodecInfo *video = session.CodecInfo->VdCodecInfo;
    EXPECT_TRUE(Same(metadata(), OnMetaData({{"width", Number(video->width)},
                                             {"height", Number(video->height)},
                                             {"videocodecid", Number(7)},
                                             {"avclevel", Number(31)},
                                             {"avcprofile", Number(66)}})));
    EXPECT_EQ(video->width, 1280U);
    EXPECT_TRUE(Same(avccBox(), exactAvccBox()));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(PlayerBodies, TheRecordOfAHighProfileHasItsExtension)
{
    ASSERT_EQ(add(ConfigOf(kHigh1080), {}), 0);
    EXPECT_TRUE(Same(avccBox(), ExactBoxOf(kHigh1080) + Hex("FD F8 F8 00")));
    EXPECT_TRUE(Same(exactAvccBox(), ExactBoxOf(kHigh1080)));
}

TEST_F(PlayerBodies, TheExtensionTellsChromaFormatAndBitDepths)
{
    struct Row {
        uint8_t profile;
        uint64_t format, luma, chroma;
        const char *extension;
    };
    const Row rows[] = {{100, 0, 0, 0, "FC F8 F8 00"}, {110, 1, 2, 2, "FD FA FA 00"},
                        {122, 2, 2, 1, "FE FA F9 00"}, {144, 3, 4, 4, "FF FC FC 00"},
                        {244, 3, 6, 5, "FF FE FD 00"}, {44, 3, 0, 0, "FF F8 F8 00"},
                        {83, 1, 0, 0, "FD F8 F8 00"},  {118, 1, 0, 0, "FD F8 F8 00"}};
    for (const Row &row : rows) {
        const Bytes sps = SpsWithChroma(row.profile, row.format, row.luma, row.chroma);
        ASSERT_EQ(add(ConfigOf(sps), {}), 0);
        EXPECT_TRUE(Same(avccBox(), ExactBoxOf(sps) + Hex(row.extension))) << int{row.profile};
    }
}

TEST_F(PlayerBodies, TheRecordOfBaselineMainAndExtendedHasNone)
{
    for (const uint8_t profile : {66, 77, 88}) {
        Bytes sps = kSps720;
        sps[1] = profile;
        ASSERT_EQ(add(ConfigOf(sps), {}), 0);
        EXPECT_TRUE(Same(avccBox(), ExactBoxOf(sps))) << int{profile};
    }
}

TEST_F(PlayerBodies, ABrokenSpsOfAHighProfileGetsNoExtension)
{
    const Bytes sps = Slice(kHigh1080, 0, 8);
    ASSERT_EQ(add(ConfigOf(sps), {}), 0);
    EXPECT_TRUE(Same(avccBox(), ExactBoxOf(sps)));
}

TEST_F(PlayerBodies, ConfigurationMayHaveAnyStartCodes)
{
    const Bytes prefix = {0, 0, 1};
    const Bytes strict = kStartCode + kHigh1080 + kStartCode + kPps5 + kStartCode;
    ASSERT_EQ(add(strict, kStereo44), 0);
    const Bytes box = avccBox();
    const Bytes exactBox = exactAvccBox();
    const Bytes exactMeta = exactMetadata();
    const Bytes configs[] = {
        prefix + kHigh1080 + prefix + kPps5,
        kStartCode + kHigh1080 + prefix + kPps5 + Bytes{0, 0, 0},
        kStartCode + kHigh1080 + kStartCode + kPps5 + prefix + Hex("06 05 04 DC45E9BD 80 000001 65 88 84"),
        prefix + Hex("09 F0") + prefix + kHigh1080 + Bytes{0, 0} + kStartCode + kPps5,
    };
    for (const Bytes &config : configs) {
        ASSERT_EQ(add(config, kStereo44), 0) << ToHex(config);
        EXPECT_TRUE(Same(avccBox(), box));
        EXPECT_TRUE(Same(exactAvccBox(), exactBox));
        EXPECT_TRUE(Same(exactMetadata(), exactMeta));
        const CodecInfo *info = session.CodecInfo;
        EXPECT_TRUE(Same(Bytes(info->VdConfigData, info->VdConfigData + info->VdConfigDataLen), strict));
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(PlayerBodies, AConfigurationWithoutParameterSetsIsRefusedAsEver)
{
    EXPECT_EQ(add(Bytes{0, 0, 1} + kSps720, {}), -92);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractSpsHeader: SPS not found in video config data",
                                  "3 ERROR: ParseVdConfigData: Cannot extract SPS header",
                                  "3 ERROR: AddVideoInfo: Parsing of video configuration information failed",
                                  "3 ERROR: RtmpAddMediaInfo: Cannot add video information"}));
    EXPECT_EQ(session.CodecInfo, nullptr);
}

TEST_F(PlayerBodies, WithoutTheFlagThereAreNoneAndTheExactOnesAreTheSame)
{
    ASSERT_EQ(add(ConfigOf(kHigh1080), kStereo44), 0);
    const Bytes exactMeta = exactMetadata();
    server.PlayerFlags = RTMP_PLAYERS_ALL & ~RTMP_PLAYERS_DESCRIPTION;
    ASSERT_EQ(add(ConfigOf(kHigh1080), kStereo44), 0);
    EXPECT_EQ(session.CodecInfo->PlayerMetaData, nullptr);
    EXPECT_EQ(session.CodecInfo->PlayerMetaDataLen, 0U);
    EXPECT_EQ(session.CodecInfo->PlayerAvccBox, nullptr);
    EXPECT_EQ(session.CodecInfo->PlayerAvccBoxLen, 0U);
    EXPECT_TRUE(Same(exactMetadata(), exactMeta));
    EXPECT_TRUE(Same(exactAvccBox(), ExactBoxOf(kHigh1080)));
    EXPECT_EQ(add(Bytes{0, 0, 1} + kSps720 + Bytes{0, 0, 1} + kPps4, {}), -92);
    EXPECT_EQ(add(kStartCode + kSps720 + kStartCode + kPps5, {}), -92);
}

// The lines behind the first two are those of the exact bodies.
TEST_F(PlayerBodies, WithoutMemoryTheRegistrationFailsAndLeavesNothing)
{
    Lines seen;
    int n = 1;
    for (calls::failNext(Call::Calloc, n); add(ConfigOf(kHigh1080), kStereo44) != 0;
         calls::failNext(Call::Calloc, ++n)) {
        seen.push_back(log.lines()[0]);
        EXPECT_EQ(session.CodecInfo, nullptr);
        if (seen.back().find("PlayerAvccBox") != std::string::npos) {
            EXPECT_EQ(
                log.lines(),
                (Lines{"3 ERROR: CreatePlayerAvccBox: Cannot allocate memory to codecInfo->PlayerAvccBox",
                       "3 ERROR: AddVideoInfo: Cannot generate avcc box",
                       "3 ERROR: RtmpAddMediaInfo: Cannot add video information"}));
        }
        if (seen.back().find("PlayerMetaData") != std::string::npos) {
            EXPECT_EQ(
                log.lines(),
                (Lines{"3 ERROR: GeneratePlayerMetadata: Cannot allocate memory to codecInfo->PlayerMetaData",
                       "3 ERROR: RtmpAddMediaInfo: Cannot generate meta information"}));
        }
        log.clear();
    }
    calls::failNext(Call::Calloc, 0);
    ASSERT_EQ(seen.size(), 28U + 2U); // the exact bodies' allocations, and two
    EXPECT_NE(seen[4].find("PlayerAvccBox"), std::string::npos);
    EXPECT_NE(seen.back().find("PlayerMetaData"), std::string::npos);
}

TEST_F(PlayerBodies, ThoseOfAnEarlierRegistrationStayForMessagesUnderWay)
{
    ASSERT_EQ(add(kConfig720, kStereo44), 0);
    const CodecInfo *first = session.CodecInfo;
    const Bytes meta = metadata();
    ASSERT_EQ(add(ConfigOf(kHigh1080), kStereo44), 0);
    EXPECT_TRUE(Same(Bytes(first->PlayerMetaData, first->PlayerMetaData + first->PlayerMetaDataLen), meta));
    EXPECT_EQ(first->PlayerAvccBoxLen, 29U);
    EXPECT_EQ(session.RetiredCodecInfo, first); // the fixture frees it, and the leak checker looks
}
