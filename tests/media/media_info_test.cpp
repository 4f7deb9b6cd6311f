#include "net/atomic.h"
#include "support/calls.h"
#include "support/produced.h"
#include "tests/media/media_fixture.h"

#include <thread>

namespace {

const std::string kNoVideo = "3 ERROR: RtmpAddMediaInfo: Cannot add video information";
const std::string kNoAudio = "3 ERROR: RtmpAddMediaInfo: Cannot add audio information";
const std::string kBadVideo = "3 ERROR: AddVideoInfo: Parsing of video configuration information failed";
const std::string kBadAudio = "3 ERROR: AddAudioInfo: Parsing of audio configuration information failed";
const std::string kNoAvcc = "3 ERROR: AddVideoInfo: Cannot generate avcc box";
const std::string kNoMetadata = "3 ERROR: RtmpAddMediaInfo: Cannot generate meta information";

} // namespace

class MediaInfo : public MediaTest {
  protected:
    int32_t add(const Bytes *video, const Bytes *audio, uint32_t bitrate = 0)
    {
        const ExactBytes videoConfig(video == nullptr ? Bytes{} : *video);
        const ExactBytes audioConfig(audio == nullptr ? Bytes{} : *audio);
        const VideoMediaInfo videoInfo = VideoOf(videoConfig, bitrate);
        const AudioMediaInfo audioInfo = AudioOf(audioConfig);
        return RtmpAddMediaInfo(&session, video == nullptr ? nullptr : &videoInfo,
                                audio == nullptr ? nullptr : &audioInfo);
    }
    int32_t addAudio(const Bytes &config)
    {
        return add(nullptr, &config);
    }
    int32_t addVideo(const Bytes &config, uint32_t bitrate = 0)
    {
        return add(&config, nullptr, bitrate);
    }
    std::string audioSummary()
    {
        const AdCodecInfo *audio = session.CodecInfo->AdCodecInfo;
        return std::to_string(audio->sampleRate) + " Hz, " + std::to_string(audio->channels);
    }
    Bytes aacSequenceHeader()
    {
        const AdCodecInfo *audio = session.CodecInfo->AdCodecInfo;
        return Bytes(audio->AacSeqHdr, audio->AacSeqHdr + audio->AacSeqHdrLen);
    }
    // A failed registration: its code, its whole transcript, and nothing in the session.
    void expectFailure(int32_t code, int32_t expected, const Lines &lines)
    {
        EXPECT_EQ(code, expected);
        EXPECT_EQ(log.lines(), lines);
        EXPECT_EQ(session.CodecInfo, nullptr);
        EXPECT_TRUE(lockIsFree());
        log.clear();
    }
};

TEST_F(MediaInfo, AudioOnly)
{
    EXPECT_EQ(addAudio(kStereo44), 0);
    EXPECT_EQ(session.MediaKind, 0U);
    EXPECT_EQ(session.MediaInfoAdded, 1U);
    const CodecInfo *info = session.CodecInfo;
    EXPECT_EQ(info->VdCodecInfo, nullptr);
    EXPECT_EQ(info->VdConfigData, nullptr);
    EXPECT_EQ(info->AdCodecId, 10U);
    EXPECT_EQ(Bytes(info->AdConfigData, info->AdConfigData + info->AdConfigDataLen), kStereo44);
    EXPECT_EQ(audioSummary(), "44100 Hz, 2");
    EXPECT_EQ(info->AdCodecInfo->opaque, 44U);
    EXPECT_EQ(aacSequenceHeader(), (Bytes{0xAF, 0x00, 0x12, 0x10}));
    EXPECT_EQ(info->MetaDataLen, 76U);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_TRUE(lockIsFree());
}

TEST_F(MediaInfo, VideoOnly)
{
    EXPECT_EQ(addVideo(kConfig720, 2500000), 0);
    EXPECT_EQ(session.MediaKind, 1U);
    EXPECT_EQ(session.MediaInfoAdded, 1U);
    const CodecInfo *info = session.CodecInfo;
    EXPECT_EQ(info->AdCodecInfo, nullptr);
    EXPECT_EQ(info->VdCodecId, 7U);
    EXPECT_EQ(Bytes(info->VdConfigData, info->VdConfigData + info->VdConfigDataLen), kConfig720);
    const VdCodecInfo *video = info->VdCodecInfo;
    EXPECT_EQ(video->width, 1280U);
    EXPECT_EQ(video->height, 720U);
    EXPECT_EQ(video->bitrate, 2500000U);
    EXPECT_EQ(video->profileIdc, 66U);
    EXPECT_EQ(video->constraintFlags, 0xC0U);
    EXPECT_EQ(video->levelIdc, 31U);
    EXPECT_EQ(video->opaque[0] + video->opaque[1] * 100 + video->opaque[2] * 10000, 332211U);
    EXPECT_EQ(Bytes(video->AvccBox, video->AvccBox + video->AvccBoxLen),
              (Bytes{0x17, 0x00, 0x00, 0x00, 0x00, 0x01, 0x42, 0xC0, 0x1F, 0xFF, 0xE1, 0x00, 0x09} + kSps720 +
               Bytes{0x01, 0x00, 0x04} + kPps4));
    EXPECT_NE(info->MetaData, nullptr);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(MediaInfo, VideoAndAudio)
{
    EXPECT_EQ(add(&kConfig720, &kStereo44), 0);
    EXPECT_EQ(session.MediaKind, 2U);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo->AvccBoxLen, 29);
    EXPECT_EQ(aacSequenceHeader(), (Bytes{0xAF, 0x00, 0x12, 0x10}));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(MediaInfo, RateAndChannelsOfTheAudioSpecificConfig)
{
    const std::vector<std::pair<Bytes, std::string>> rows = {
        {{0x12, 0x10}, "44100 Hz, 2"},       {{0x11, 0x90}, "48000 Hz, 2"},
        {{0x13, 0x88}, "22050 Hz, 1"},       {{0x10, 0x08}, "96000 Hz, 1"},
        {{0x10, 0xB0}, "88200 Hz, 6"},       {{0x11, 0x38}, "64000 Hz, 7"},
        {{0x12, 0x98}, "32000 Hz, 3"},       {{0x13, 0x00}, "24000 Hz, 0"},
        {{0x14, 0x20}, "16000 Hz, 4"},       {{0x14, 0xA8}, "12000 Hz, 5"},
        {{0x15, 0x10}, "11025 Hz, 2"},       {{0x15, 0x90}, "8000 Hz, 2"},
        {{0x16, 0x7F}, "7350 Hz, 15"},       {{0x16, 0x90}, "0 Hz, 2"},
        {{0x17, 0x10}, "0 Hz, 2"},           {{0x17, 0x80, 0x56, 0x22}, "0 Hz, 0"},
        {{0x2B, 0x92, 0x08}, "22050 Hz, 2"}, {{0x02, 0x10}, "44100 Hz, 2"}, // SBR; object type 0
        {{0xFA, 0x10}, "44100 Hz, 2"}};
    for (const auto &[config, summary] : rows) {
        EXPECT_EQ(addAudio(config), 0);
        EXPECT_EQ(audioSummary(), summary);
        EXPECT_EQ(aacSequenceHeader(), (Bytes{0xAF, 0x00, config[0], config[1]}));
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(MediaInfo, ASecondConfigurationByteThatIsNotThereReadsAsZero)
{
    EXPECT_EQ(addAudio({0x12}), 0);
    EXPECT_EQ(audioSummary(), "44100 Hz, 0");
    EXPECT_EQ(aacSequenceHeader(), (Bytes{0xAF, 0x00, 0x12, 0x00}));
}

TEST_F(MediaInfo, MissingArgumentsAreRefusedOnStandardOutput)
{
    const ExactBytes config(kStereo44);
    const AudioMediaInfo audio = AudioOf(config);
    testing::internal::CaptureStdout();
    EXPECT_EQ(RtmpAddMediaInfo(nullptr, nullptr, &audio), -99);
    EXPECT_EQ(RtmpAddMediaInfo(&session, nullptr, nullptr), -99);
    const std::string line = "RTMPWriter: ERROR: RtmpAddMediaInfo: Invalid input arguments\n";
    EXPECT_EQ(produced::CapturedStdout(), line + line);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(session.MediaKind, 3U);
}

TEST_F(MediaInfo, MissingConfigurationsAreRefusedTheAudiosFirst)
{
    const ExactBytes bytes(kConfig720);
    const VideoMediaInfo video = VideoOf(bytes);
    const AudioMediaInfo audio = AudioOf(bytes);
    for (const int32_t length : {0, -1}) {
        VideoMediaInfo shortVideo = video;
        AudioMediaInfo shortAudio = audio;
        shortVideo.configLen = length;
        shortAudio.configLen = length;
        EXPECT_EQ(RtmpAddMediaInfo(&session, &shortVideo, &shortAudio), -99);
        EXPECT_EQ(RtmpAddMediaInfo(&session, &shortVideo, &audio), -99);
        EXPECT_EQ(RtmpAddMediaInfo(&session, &shortVideo, nullptr), -99);
    }
    VideoMediaInfo noVideo = video;
    AudioMediaInfo noAudio = audio;
    noVideo.configData = nullptr;
    noAudio.configData = nullptr;
    EXPECT_EQ(RtmpAddMediaInfo(&session, &video, &noAudio), -99);
    EXPECT_EQ(RtmpAddMediaInfo(&session, &noVideo, &audio), -99);
    const std::string noAudioLine = "3 ERROR: RtmpAddMediaInfo: Audio config information not passed";
    const std::string noVideoLine = "3 ERROR: RtmpAddMediaInfo: Video config information not passed";
    EXPECT_EQ(log.lines(), (Lines{noAudioLine, noVideoLine, noVideoLine, noAudioLine, noVideoLine,
                                  noVideoLine, noAudioLine, noVideoLine}));
    EXPECT_EQ(session.MediaKind, 3U);
    EXPECT_EQ(session.CodecInfo, nullptr);
}

TEST_F(MediaInfo, ABadArgumentLeavesAnEarlierRegistrationAlone)
{
    ASSERT_EQ(addAudio(kStereo44), 0);
    const CodecInfo *before = session.CodecInfo;
    EXPECT_EQ(addVideo({}), -99);
    EXPECT_EQ(session.CodecInfo, before);
    EXPECT_EQ(session.MediaKind, 0U);
}

TEST_F(MediaInfo, AnotherVideoCodecIsRefused)
{
    const ExactBytes config(kConfig720);
    VideoMediaInfo video = VideoOf(config);
    video.codecId = 2;
    const int32_t code = RtmpAddMediaInfo(&session, &video, nullptr);
    expectFailure(code, -92, {"3 ERROR: ParseVdConfigData: Unsupported video codec", kBadVideo, kNoVideo});
    EXPECT_EQ(session.MediaInfoAdded, 0U);
}

TEST_F(MediaInfo, AnotherAudioCodecIsRefusedWithOrWithoutVideo)
{
    const ExactBytes videoConfig(kConfig720);
    const ExactBytes audioConfig(kStereo44);
    const VideoMediaInfo video = VideoOf(videoConfig);
    AudioMediaInfo audio = AudioOf(audioConfig);
    audio.codecId = 2;
    const Lines lines = {"3 ERROR: ParseAdConfigData: Unsupported audio codec", kBadAudio, kNoAudio};
    expectFailure(RtmpAddMediaInfo(&session, nullptr, &audio), -93, lines);
    expectFailure(RtmpAddMediaInfo(&session, &video, &audio), -93, lines);
    EXPECT_EQ(session.MediaKind, 2U);
    EXPECT_EQ(session.MediaInfoAdded, 0U);
}

TEST_F(MediaInfo, WhenBothAreBadTheVideoIsReported)
{
    const ExactBytes videoConfig(kConfig720);
    const ExactBytes audioConfig(kStereo44);
    VideoMediaInfo video = VideoOf(videoConfig);
    AudioMediaInfo audio = AudioOf(audioConfig);
    video.codecId = 0;
    audio.codecId = 0;
    expectFailure(RtmpAddMediaInfo(&session, &video, &audio), -92,
                  {"3 ERROR: ParseVdConfigData: Unsupported video codec", kBadVideo, kNoVideo});
}

TEST_F(MediaInfo, EveryCutOfAVideoConfigurationIsRefusedAsItsPlaceSays)
{
    const Bytes whole = kConfig720; // 4 + 9 | 4 + 4
    for (size_t cut = 1; cut < whole.size(); cut++) {
        const int32_t code = addVideo(Slice(whole, 0, cut));
        const auto extract = [&](const std::string &detail) {
            expectFailure(code, -92,
                          {"3 ERROR: ExtractSpsHeader: " + detail,
                           "3 ERROR: ParseVdConfigData: Cannot extract SPS header", kBadVideo, kNoVideo});
        };
        SCOPED_TRACE(cut);
        if (cut <= 4) {
            extract("Invalid video config data");
        } else if (cut < 17) {
            extract("End of SPS not found");
        } else if (cut == 17) {
            expectFailure(code, -92,
                          {"3 ERROR: ExtractPpsHeader: PPS not found in video config data",
                           "3 ERROR: CreateAVCCBox: Cannot extract PPS header", kNoAvcc, kNoVideo});
        } else { // a PPS of one to three bytes may end the data
            EXPECT_EQ(code, 0);
            EXPECT_EQ(session.CodecInfo->VdCodecInfo->AvccBoxLen, static_cast<int32_t>(16 + 9 + cut - 17));
        }
    }
    EXPECT_EQ(addVideo(whole), 0);
}

TEST_F(MediaInfo, ALongPpsMustBeFollowedByAStartCode)
{
    const Bytes config = kStartCode + kSps720 + kStartCode + kPps5;
    expectFailure(addVideo(config), -92,
                  {"3 ERROR: ExtractPpsHeader: End of PPS not found",
                   "3 ERROR: CreateAVCCBox: Cannot extract PPS header", kNoAvcc, kNoVideo});
    EXPECT_EQ(addVideo(config + kStartCode), 0);
}

TEST_F(MediaInfo, AVideoBitrateAboveTheLimitRaisesBoth)
{
    EXPECT_EQ(addVideo(kConfig720, 8000000), 0);
    EXPECT_EQ(server.BaseBandwidth, 8000000U);
    EXPECT_EQ(server.PeerBandwidth, 8500000U);
}

TEST_F(MediaInfo, AVideoBitrateUpToTheLimitLeavesThem)
{
    for (const uint32_t bitrate : {0U, 4000000U, 6000000U}) {
        EXPECT_EQ(addVideo(kConfig720, bitrate), 0);
        EXPECT_EQ(server.BaseBandwidth, 6000000U) << bitrate;
        EXPECT_EQ(server.PeerBandwidth, 6500000U) << bitrate;
    }
    EXPECT_EQ(addVideo(kConfig720, 6000001), 0);
    EXPECT_EQ(server.PeerBandwidth, 6500001U);
}

TEST_F(MediaInfo, ABitrateOfTheLimitItselfTouchesNeither)
{
    server.PeerBandwidth = 1;
    EXPECT_EQ(addVideo(kConfig720, 6000000), 0);
    EXPECT_EQ(server.PeerBandwidth, 1U);
}

TEST_F(MediaInfo, AnUnknownBitrateRaisesNothingEvenFromZero)
{
    server.BaseBandwidth = 0;
    server.PeerBandwidth = 1;
    EXPECT_EQ(addVideo(kConfig720, 0), 0);
    EXPECT_EQ(server.PeerBandwidth, 1U);
}

TEST_F(MediaInfo, TheRaisedLimitIsTruncatedToThirtyTwoBits)
{
    EXPECT_EQ(addVideo(kConfig720, 0xFFFFFFFF), 0);
    EXPECT_EQ(server.BaseBandwidth, 0xFFFFFFFFU);
    EXPECT_EQ(server.PeerBandwidth, 499999U);
}

TEST_F(MediaInfo, ARefusedVideoHasRaisedTheLimits)
{
    EXPECT_EQ(addVideo(kConfig720 + kPps5, 9000000), -92); // nine bytes of PPS, no start code behind them
    EXPECT_EQ(server.BaseBandwidth, 9000000U);
    EXPECT_EQ(server.PeerBandwidth, 9500000U);
}

TEST_F(MediaInfo, ANewRegistrationReplacesTheOldOneWhichStaysReadable)
{
    ASSERT_EQ(addVideo(kConfig720), 0);
    const CodecInfo *first = session.CodecInfo;
    ASSERT_EQ(add(&kConfig720, &kStereo44), 0);
    const CodecInfo *second = session.CodecInfo;
    ASSERT_EQ(addAudio(kStereo44), 0);
    EXPECT_EQ(session.MediaKind, 0U);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo, nullptr);
    EXPECT_EQ(session.RetiredCodecInfo, second);
    EXPECT_EQ(second->NextRetired, first);
    EXPECT_EQ(first->NextRetired, nullptr);
    EXPECT_EQ(session.CodecInfo->NextRetired, nullptr);
    EXPECT_EQ(first->VdCodecInfo->AvccBox[0], 0x17);
}

TEST_F(MediaInfo, AFailedRegistrationEndsAnEarlierOneWhoseFlagStays)
{
    ASSERT_EQ(addAudio(kStereo44), 0);
    CodecInfo *earlier = session.CodecInfo;
    EXPECT_EQ(addVideo(kStartCode + kSps720), -92);
    EXPECT_EQ(session.CodecInfo, nullptr);
    EXPECT_EQ(session.RetiredCodecInfo, earlier);
    EXPECT_EQ(session.MediaKind, 1U);
    EXPECT_EQ(session.MediaInfoAdded, 1U);
}

TEST_F(MediaInfo, WithoutTheLockNothingChanges)
{
    ASSERT_EQ(addAudio(kStereo44), 0);
    const CodecInfo *before = session.CodecInfo;
    calls::failAlways(Call::SystemLock, &server.LiveSessionListLock);
    EXPECT_EQ(addVideo(kConfig720), -78);
    calls::failNever(Call::SystemLock);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpAddMediaInfo: Cannot lock Rtmp session list"});
    EXPECT_EQ(session.CodecInfo, before);
    EXPECT_EQ(session.MediaKind, 0U);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(MediaInfo, AFailedUnlockUndoesTheRegistration)
{
    calls::failAlways(Call::SystemUnlock, &server.LiveSessionListLock);
    EXPECT_EQ(addVideo(kConfig720), -77);
    calls::failNever(Call::SystemUnlock);
    EXPECT_EQ(log.lines(), Lines{"3 ERROR: RtmpAddMediaInfo: Cannot unlock Rtmp session list"});
    EXPECT_EQ(session.CodecInfo, nullptr);
    EXPECT_EQ(session.MediaInfoAdded, 0U);
    EXPECT_FALSE(lockIsFree()); // the failed call left it taken
    EXPECT_EQ(RtmpMutexUnlock(&server.LiveSessionListLock), 0);
}

TEST_F(MediaInfo, EveryFailedAllocationIsNamedAndLeavesNothing)
{
    const std::string memory = ": Cannot allocate memory to rtmpSession->CodecInfo";
    const std::vector<std::pair<int32_t, Lines>> expected = {
        {-89, {"3 ERROR: RtmpAddMediaInfo" + memory}},
        {-92, {"3 ERROR: AddVideoInfo" + memory + "->VdConfigData", kNoVideo}},
        {-92, {"3 ERROR: AddVideoInfo" + memory + "->VdCodecInfo", kNoVideo}},
        {-92,
         {"3 ERROR: CreateAVCCBox: Cannot allocate memory to codecInfo->VdCodecInfo->AvccBox", kNoAvcc,
          kNoVideo}},
        {-93, {"3 ERROR: AddAudioInfo" + memory + "->AdConfigData", kNoAudio}},
        {-93, {"3 ERROR: AddAudioInfo" + memory + "->AdCodecInfo", kNoAudio}},
        {-91,
         {"3 ERROR: WriteAmfString: Cannot allocate memory to amfObjProperty",
          "3 ERROR: GenerateFlvMetadata: Cannot encode Amf onMetaData", kNoMetadata}}};
    for (size_t n = 0; n < expected.size(); n++) {
        SCOPED_TRACE(n);
        ASSERT_EQ(add(&kConfig720, &kStereo44), 0); // what is there before the failure goes, too
        calls::failNext(Call::Calloc, static_cast<int>(n + 1));
        const int32_t code = add(&kConfig720, &kStereo44, 2500000);
        expectFailure(code, expected[n].first, expected[n].second);
    }
}

TEST_F(MediaInfo, AnyFailedAllocationOfTheMetadataIsAMetadataFailure)
{
    int n = 7;
    calls::failNext(Call::Calloc, n);
    while (add(&kConfig720, &kStereo44, 2500000) != 0) {
        EXPECT_TRUE(calls::hasFailed(Call::Calloc));
        EXPECT_EQ(log.lines().back(), kNoMetadata);
        EXPECT_EQ(log.lines().size(), 3U);
        EXPECT_EQ(session.CodecInfo, nullptr);
        log.clear();
        calls::failNext(Call::Calloc, ++n);
    }
    EXPECT_FALSE(calls::hasFailed(Call::Calloc));
    EXPECT_EQ(n, 6 + 22 + 1);
    calls::failNext(Call::Calloc, 0);
}

TEST_F(MediaInfo, PlayersNeverSeeAHalfBuiltOrFreedRecord)
{
    ASSERT_EQ(add(&kConfig720, &kStereo44), 0);
    bool done = false;
    uint64_t seen = 0;
    std::thread player([&] {
        while (!LoadShared(&done) || seen == 0) {
            const CodecInfo *info = LoadShared(&session.CodecInfo);
            if (info != nullptr) {
                const VdCodecInfo *video = info->VdCodecInfo;
                const bool whole = info->MetaData[info->MetaDataLen - 1] == 0 &&
                                   info->AdCodecInfo->AacSeqHdrLen == 4 &&
                                   video->AvccBox[video->AvccBoxLen - 1] == 0x80;
                ASSERT_TRUE(whole);
                seen++;
            }
        }
    });
    const Bytes cut = Slice(kConfig720, 0, 12);
    for (int i = 0; i < 300; i++) {
        EXPECT_EQ(i % 3 == 2 ? add(&cut, &kStereo44) : 0, i % 3 == 2 ? -92 : 0);
        EXPECT_EQ(add(&kConfig720, &kStereo44), 0);
    }
    StoreShared(&done, true);
    player.join();
}

TEST_F(MediaInfo, TheHalvesCanBeAddedOneByOne)
{
    session.CodecInfo = static_cast<CodecInfo *>(calloc(1, sizeof(CodecInfo)));
    const ExactBytes videoConfig(kStartCode + kPps4 + kStartCode);
    const ExactBytes audioConfig(kStereo44);
    const VideoMediaInfo video = VideoOf(videoConfig);
    AudioMediaInfo audio = AudioOf(audioConfig);
    EXPECT_EQ(AddAudioInfo(&session, &audio), 0);
    EXPECT_EQ(AddVideoInfo(&session, &video), -1);
    EXPECT_EQ(session.CodecInfo->VdConfigData, nullptr);
    EXPECT_EQ(session.CodecInfo->VdCodecInfo, nullptr);
    EXPECT_EQ(session.CodecInfo->VdConfigDataLen, 0U);
    EXPECT_EQ(aacSequenceHeader(), (Bytes{0xAF, 0x00, 0x12, 0x10}));
    EXPECT_EQ(log.lines(), (Lines{"3 ERROR: ExtractSpsHeader: SPS not found in video config data",
                                  "3 ERROR: ParseVdConfigData: Cannot extract SPS header", kBadVideo}));
}

TEST_F(MediaInfo, NothingIsFreedForNoRecord)
{
    FreeCodecInfo(nullptr);
    EXPECT_EQ(log.lines(), Lines{});
}
