#include "media/flv_tag.h"
#include "support/calls.h"
#include "tests/media/media_fixture.h"

namespace {

// "onMetaData" and the object's marker, and the object's end.
const Bytes kOpening = Hex("02 000A 'onMetaData' 03");
const Bytes kEnd = {0x00, 0x00, 0x09};

// Numbers as AMF0 writes them: marker 0 and an IEEE 754 double, worked out by hand. Their tails are zeros.
const Bytes kWidth1280 = Hex("0005 'width' 00 4094000000000000");          // 1.25 * 2^10
const Bytes kHeight720 = Hex("0006 'height' 00 4086800000000000");         // 1.40625 * 2^9
const Bytes kVideoCodec7 = Hex("000C 'videocodecid' 00 401C000000000000"); // 1.75 * 2^2
const Bytes kLevel31 = Hex("0008 'avclevel' 00 403F000000000000");         // 1.9375 * 2^4
const Bytes kProfile66 = Hex("000A 'avcprofile' 00 4050800000000000");     // 1.03125 * 2^6
const Bytes kVideo = kWidth1280 + kHeight720 + kVideoCodec7 + kLevel31 + kProfile66;
const Bytes kRate2500 = Hex("000D 'videodatarate' 00 40A3880000000000"); // 1.220703125 * 2^11
const Bytes kRate0 = Hex("000D 'videodatarate' 00 0000000000000000");
const Bytes kSampleRate44100 = Hex("000F 'audiosamplerate' 00 40E5888000000000"); // 44100 / 2^15
const Bytes kAudio =
    kSampleRate44100 + Hex("0006 'stereo'") + Hex("000C 'audiocodecid' 00 4024000000000000"); // 1.25 * 2^3
const Bytes kWhatStereoLeaves = {0x00, 0x00}; // the marker and the byte that were counted and not written

} // namespace

class FlvTag : public MediaTest {
  protected:
    FlvTag()
    {
        session.CodecInfo = static_cast<CodecInfo *>(calloc(1, sizeof(CodecInfo)));
    }
    void describeVideo(const Bytes &config, uint32_t bitrate)
    {
        CodecInfo *info = session.CodecInfo;
        info->VdCodecId = 7;
        info->VdConfigData = static_cast<uint8_t *>(malloc(config.size()));
        memcpy(info->VdConfigData, config.data(), config.size());
        info->VdConfigDataLen = static_cast<uint32_t>(config.size());
        info->VdCodecInfo = static_cast<VdCodecInfo *>(calloc(1, sizeof(VdCodecInfo)));
        *info->VdCodecInfo = {720, 1280, bitrate, 66, 0xC0, 31, {}, nullptr, 0};
        session.MediaKind = session.MediaKind == RTMP_MEDIA_AUDIO ? RTMP_MEDIA_BOTH : RTMP_MEDIA_VIDEO;
    }
    void describeAudio(uint32_t sampleRate, uint32_t channels)
    {
        CodecInfo *info = session.CodecInfo;
        info->AdCodecId = 10;
        info->AdCodecInfo = static_cast<AdCodecInfo *>(calloc(1, sizeof(AdCodecInfo)));
        info->AdCodecInfo->sampleRate = sampleRate;
        info->AdCodecInfo->channels = channels;
        session.MediaKind = session.MediaKind == RTMP_MEDIA_VIDEO ? RTMP_MEDIA_BOTH : RTMP_MEDIA_AUDIO;
    }
    Bytes metadata()
    {
        EXPECT_EQ(GenerateFlvMetadata(&session), 0);
        return Bytes(session.CodecInfo->MetaData,
                     session.CodecInfo->MetaData + session.CodecInfo->MetaDataLen);
    }
    Bytes avccBox()
    {
        EXPECT_EQ(CreateAVCCBox(&session), 0);
        const VdCodecInfo *video = session.CodecInfo->VdCodecInfo;
        return Bytes(video->AvccBox, video->AvccBox + video->AvccBoxLen);
    }
};

TEST_F(FlvTag, VideoHeadersFollowTheNalType)
{
    for (int header = 0; header < 256; header++) {
        const uint8_t nal = static_cast<uint8_t>(header);
        const int type = header % 32;
        const bool key = type == 5 || type == 7 || type == 8;
        Bytes out(6, 0xEE);
        EXPECT_EQ(GenerateFlvH264Hdr(&session, &nal, 0, 77, out.data(), 0), 5);
        EXPECT_EQ(out, (Bytes{static_cast<uint8_t>(key ? 0x17 : 0x27), 0x01, 0, 0, 0, 0xEE})) << header;
        EXPECT_EQ(GenerateFlvH264Hdr(&session, &nal, 9, 0, out.data(), 1), 5);
        EXPECT_EQ(out, (Bytes{0x17, 0x00, 0, 0, 0, 0xEE})) << header;
    }
}

TEST_F(FlvTag, OnlyAFlagOfOneMeansASequenceHeader)
{
    const uint8_t slice = 0x41;
    Bytes out(5);
    EXPECT_EQ(GenerateFlvH264Hdr(&session, &slice, 1, 0, out.data(), 2), 5);
    EXPECT_EQ(out, (Bytes{0x27, 0x01, 0, 0, 0}));
    EXPECT_EQ(GenerateFlvAACHdr(&session, out.data(), 2), 2);
    EXPECT_EQ(out[1], 1);
}

TEST_F(FlvTag, ASequenceHeaderNeedsNoNalUnit)
{
    Bytes out(5);
    EXPECT_EQ(GenerateFlvH264Hdr(&session, nullptr, 0, 0, out.data(), 1), 5);
    EXPECT_EQ(out, (Bytes{0x17, 0x00, 0, 0, 0}));
    EXPECT_EQ(GenerateFlvH264Hdr(&session, nullptr, 0, 0, out.data(), 0), 5);
    EXPECT_EQ(out, (Bytes{0x27, 0x01, 0, 0, 0}));
    EXPECT_EQ(GenerateFlvH264Hdr(&session, nullptr, 0, 0, nullptr, 1), -1);
}

TEST_F(FlvTag, AudioHeadersSay44kHzStereoWhateverTheStreamIs)
{
    describeAudio(8000, 1);
    Bytes out(3, 0xEE);
    EXPECT_EQ(GenerateFlvAACHdr(&session, out.data(), 1), 2);
    EXPECT_EQ(out, (Bytes{0xAF, 0x00, 0xEE}));
    EXPECT_EQ(GenerateFlvAACHdr(&session, out.data(), 0), 2);
    EXPECT_EQ(out, (Bytes{0xAF, 0x01, 0xEE}));
    EXPECT_EQ(GenerateFlvAACHdr(&session, nullptr, 0), -1);
}

TEST_F(FlvTag, TheAvccBoxOfATwentyFiveByteSpsAndAFourBytePps)
{
    describeVideo(kStartCode + kSps25 + kStartCode + kPps4, 0);
    const Bytes box = avccBox();
    EXPECT_EQ(box.size(), 45U);
    EXPECT_EQ(box, (Bytes{0x17, 0x00, 0x00, 0x00, 0x00} +              // AVC sequence header
                    Bytes{0x01, 0x42, 0xC0, 0x1F, 0xFF, 0xE1} +        // version, profile, flags, level
                    Bytes{0x00, 0x19} + kSps25 +                       // one SPS
                    Bytes{0x01, 0x00, 0x04, 0x68, 0xCE, 0x3C, 0x80})); // one PPS
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(FlvTag, TheAvccBoxTakesProfileFlagsAndLevelFromTheRecord)
{
    describeVideo(kConfig720, 0);
    session.CodecInfo->VdCodecInfo->profileIdc = 0x64;
    session.CodecInfo->VdCodecInfo->constraintFlags = 0x0C;
    session.CodecInfo->VdCodecInfo->levelIdc = 0x28;
    EXPECT_EQ(Slice(avccBox(), 0, 13),
              (Bytes{0x17, 0, 0, 0, 0, 0x01, 0x64, 0x0C, 0x28, 0xFF, 0xE1, 0x00, 0x09}));
}

TEST_F(FlvTag, AnSpsOf65536BytesIsWrittenWholeBehindALengthOfZero)
{
    describeVideo(kStartCode + Bytes{0x67} + Bytes(65535, 0x42) + kStartCode + kPps4, 0);
    const Bytes box = avccBox();
    ASSERT_EQ(box.size(), 16U + 65536 + 4);
    EXPECT_EQ(Slice(box, 11, 4), (Bytes{0x00, 0x00, 0x67, 0x42}));
    EXPECT_EQ(Bytes(box.end() - 7, box.end()), (Bytes{0x01, 0x00, 0x04} + kPps4));
}

TEST_F(FlvTag, NoAvccBoxWithoutAnSpsOrWithoutAPps)
{
    describeVideo(kStartCode + kPps4 + kStartCode, 0);
    EXPECT_EQ(CreateAVCCBox(&session), -1);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo->AvccBox, nullptr);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractSpsHeader: SPS not found in video config data",
                                  "3 ERROR: CreateAVCCBox: Cannot extract SPS header"}));
    log.clear();
    free(session.CodecInfo->VdConfigData);
    free(session.CodecInfo->VdCodecInfo);
    describeVideo(kStartCode + kSps720 + kStartCode + kPps5, 0);
    EXPECT_EQ(CreateAVCCBox(&session), -1);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo->AvccBox, nullptr);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo->AvccBoxLen, 0);
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractPpsHeader: End of PPS not found",
                                  "3 ERROR: CreateAVCCBox: Cannot extract PPS header"}));
}

TEST_F(FlvTag, NoAvccBoxWithoutMemory)
{
    describeVideo(kConfig720, 0);
    calls::failNext(Call::Calloc, 1);
    EXPECT_EQ(CreateAVCCBox(&session), -1);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo->AvccBox, nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: CreateAVCCBox: Cannot allocate memory to "
                                 "codecInfo->VdCodecInfo->AvccBox"});
}

TEST_F(FlvTag, MetadataOfVideoAndAudio)
{
    describeVideo(kConfig720, 2500000);
    describeAudio(44100, 2);
    EXPECT_EQ(metadata(), kOpening + kVideo + kRate2500 + kAudio + kEnd + kWhatStereoLeaves);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(FlvTag, MetadataOfAudioAlone)
{
    describeAudio(44100, 2);
    EXPECT_EQ(metadata(), kOpening + kAudio + kEnd + kWhatStereoLeaves);
    EXPECT_EQ(session.CodecInfo->MetaDataLen, 14U + 17 + 9 + 8 + 14 + 9 + 3 + 2);
}

TEST_F(FlvTag, MetadataOfVideoAloneEndsWithItsObject)
{
    describeVideo(kConfig720, 2500000);
    EXPECT_EQ(metadata(), kOpening + kVideo + kRate2500 + kEnd);
}

TEST_F(FlvTag, AnUnknownBitrateHasNoMemberAndASmallOneIsZero)
{
    describeVideo(kConfig720, 0);
    EXPECT_EQ(metadata(), kOpening + kVideo + kEnd);
    free(session.CodecInfo->MetaData);
    session.CodecInfo->VdCodecInfo->bitrate = 999;
    EXPECT_EQ(metadata(), kOpening + kVideo + kRate0 + kEnd);
}

TEST_F(FlvTag, StereoIsZeroForTwoChannelsAndOneForAnyOtherCountAndOnlyItsNameIsSent)
{
    describeAudio(44100, 2);
    for (const uint32_t channels : {0U, 1U, 2U, 6U}) {
        session.CodecInfo->AdCodecInfo->channels = channels;
        EXPECT_EQ(metadata(), kOpening + kAudio + kEnd + kWhatStereoLeaves) << channels;
        EXPECT_EQ(calls::lastBoolean(), channels == 2 ? "stereo=0" : "stereo=1") << channels;
        free(session.CodecInfo->MetaData);
        session.CodecInfo->MetaData = nullptr;
    }
}

TEST_F(FlvTag, ASampleRateOfZeroIsWritten)
{
    describeAudio(0, 2);
    EXPECT_EQ(Slice(metadata(), 0, 40), kOpening + Hex("000F 'audiosamplerate' 00 0000000000000000"));
}

TEST_F(FlvTag, AnotherVideoCodecFailsBehindWidthAndHeight)
{
    describeVideo(kConfig720, 0);
    session.CodecInfo->VdCodecId = 2;
    calls::failNext(Call::Calloc,
                    7); // two for the name of the message, two each for width and height: never reached
    EXPECT_EQ(GenerateFlvMetadata(&session), -1);
    EXPECT_FALSE(calls::hasFailed(Call::Calloc));
    EXPECT_EQ(session.CodecInfo->MetaData, nullptr);
    EXPECT_EQ(session.CodecInfo->MetaDataLen, 0U);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: GenerateFlvMetadata: Video codec not supported"});
    calls::failNext(Call::Calloc, 6); // the name "height"
    EXPECT_EQ(GenerateFlvMetadata(&session), -1);
    EXPECT_TRUE(calls::hasFailed(Call::Calloc));
    EXPECT_EQ(log.lines().back(), "3 ERROR: GenerateFlvMetadata: Cannot encode Amf heigth");
}

TEST_F(FlvTag, AnotherAudioCodecFails)
{
    describeAudio(44100, 2);
    session.CodecInfo->AdCodecId = 2;
    EXPECT_EQ(GenerateFlvMetadata(&session), -1);
    EXPECT_EQ(session.CodecInfo->MetaData, nullptr);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: GenerateFlvMetadata: Audio codec not supported"});
}

TEST_F(FlvTag, EveryFailedAllocationOfTheMetadataIsNamedAndLeavesNothing)
{
    describeVideo(kConfig720, 2500000);
    describeAudio(44100, 2);
    // One property and one text each; the object is a property alone, the body one buffer.
    const std::string prop = ": Cannot allocate memory to amfObjProperty";
    const std::string text = prop + "->ObjVal.StrObj.StrData";
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"WriteAmfString", "Cannot encode Amf onMetaData"},
        {"WriteAmfNumber", "Cannot encode Amf width"},
        {"WriteAmfNumber", "Cannot encode Amf heigth"},
        {"WriteAmfNumber", "Cannot encode Amf videocodecid"},
        {"WriteAmfNumber", "Cannot encode Amf avc level"},
        {"WriteAmfNumber", "Cannot encode Amf avc profile"},
        {"WriteAmfNumber", "Cannot encode Amf video data rate"},
        {"WriteAmfNumber", "Cannot encode Amf audio sample rate"},
        {"WriteAmfBoolean", "Cannot encode Amf no. of channels"},
        {"WriteAmfNumber", "Cannot encode Amf audio codecid"}};
    std::vector<Lines> expected;
    for (const auto &[writer, failure] : steps) {
        for (const std::string &detail : {prop, text}) {
            expected.push_back({"3 ERROR: " + writer + detail, "3 ERROR: GenerateFlvMetadata: " + failure});
        }
    }
    expected.push_back(
        {"3 ERROR: WriteAmfObject" + prop, "3 ERROR: GenerateFlvMetadata: Cannot encode ecma array"});
    expected.push_back({"3 ERROR: EncodeAmfBuffer: Cannot allocate memory to payloadData",
                        "3 ERROR: GenerateFlvMetadata: Error occured while generating metadata"});
    for (size_t n = 0; n < expected.size(); n++) {
        log.clear();
        calls::failNext(Call::Calloc, static_cast<int>(n + 1));
        EXPECT_EQ(GenerateFlvMetadata(&session), -1) << n;
        EXPECT_EQ(log.lines(), expected[n]) << n;
        EXPECT_EQ(session.CodecInfo->MetaData, nullptr) << n;
        EXPECT_EQ(session.CodecInfo->MetaDataLen, 0U) << n;
    }
    calls::failNext(Call::Calloc, static_cast<int>(expected.size() + 1));
    EXPECT_EQ(metadata(), kOpening + kVideo + kRate2500 + kAudio + kEnd + kWhatStereoLeaves);
    EXPECT_FALSE(calls::hasFailed(Call::Calloc));
    calls::failNext(Call::Calloc, 0);
}
