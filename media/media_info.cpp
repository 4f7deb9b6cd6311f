#include "media/media_info.h"

#include "media/annex_b.h"
#include "media/flv_tag.h"
#include "media/parameter_sets.h"
#include "media/player_bodies.h"
#include "media/sps.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/media.h"

namespace {

// Hz by samplingFrequencyIndex (ISO/IEC 14496-3, table 1.18); 13 and 14 are reserved.
// KEPT: an explicit frequency (15) is not read, and its stream is registered with 0 Hz. Required; changes
// bytes of onMetaData.
constexpr uint32_t kSamplingFrequencies[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                             16000, 12000, 11025, 8000,  7350,  0,     0,     0};
static_assert(sizeof kSamplingFrequencies / sizeof kSamplingFrequencies[0] == 16, "the index has four bits");

uint8_t *CopyOfBytes(const uint8_t *bytes, int32_t length)
{
    const uint64_t size = static_cast<uint64_t>(length);
    uint8_t *copy = NewArray<uint8_t>(size);
    if (copy != nullptr) {
        memcpy(copy, bytes, size);
    }
    return copy;
}

// On a server with RTMP_PLAYERS_DESCRIPTION the configuration may come in any Annex B form, and is kept in
// the one that the procedures behind this take. One without parameter sets is left to them to refuse.
uint8_t *CopyOfVideoConfiguration(const RtmpServer *server, const VideoMediaInfo *video, uint32_t *length)
{
    ParameterSetPair sets = {};
    *length = static_cast<uint32_t>(video->configLen);
    if (Allows(server, RULE_PARAMETER_SETS) && FindParameterSets(video->configData, *length, &sets)) {
        return JoinParameterSets(&sets, length);
    }
    return CopyOfBytes(video->configData, video->configLen);
}

// A byte of the AudioSpecificConfig; one that is not there reads as zero.
uint8_t AdConfigByte(const CodecInfo *codecInfo, uint32_t index)
{
    return index < codecInfo->AdConfigDataLen ? codecInfo->AdConfigData[index] : 0;
}

void FreeVideoHalf(CodecInfo *codecInfo)
{
    if (codecInfo->VdCodecInfo != nullptr) {
        free(codecInfo->VdCodecInfo->AvccBox);
    }
    free(codecInfo->VdCodecInfo);
    free(codecInfo->VdConfigData);
    free(codecInfo->PlayerAvccBox);
    codecInfo->VdCodecInfo = nullptr;
    codecInfo->VdConfigData = nullptr;
    codecInfo->VdConfigDataLen = 0;
    codecInfo->PlayerAvccBox = nullptr;
    codecInfo->PlayerAvccBoxLen = 0;
}

void FreeAudioHalf(CodecInfo *codecInfo)
{
    free(codecInfo->AdCodecInfo);
    free(codecInfo->AdConfigData);
    codecInfo->AdCodecInfo = nullptr;
    codecInfo->AdConfigData = nullptr;
    codecInfo->AdConfigDataLen = 0;
}

// Accept threads and serve threads read the limits while a session is registered.
// KEPT: raised also when the registration fails later, and never lowered. Required; bytes on the wire.
void RaiseBandwidth(RtmpServer *server, uint32_t bitrate)
{
    if (bitrate == 0 || LoadShared(&server->BaseBandwidth) >= bitrate) {
        return;
    }
    StoreShared(&server->BaseBandwidth, bitrate);
    StoreShared(&server->PeerBandwidth, static_cast<uint32_t>(bitrate + kPeerBandwidthMargin));
}

RTMP_STATUS int CopyVideoInfo(RtmpSession *session, const VideoMediaInfo *video, const char *who)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    CodecInfo *codecInfo = session->CodecInfo;
    uint32_t configLen = 0;
    codecInfo->VdConfigData = CopyOfVideoConfiguration(session->Server, video, &configLen);
    if (codecInfo->VdConfigData == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to rtmpSession->CodecInfo->VdConfigData\n", who);
        return -1;
    }
    codecInfo->VdConfigDataLen = configLen;
    codecInfo->VdCodecInfo = NewRecord<VdCodecInfo>();
    if (codecInfo->VdCodecInfo == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to rtmpSession->CodecInfo->VdCodecInfo\n", who);
        return -1;
    }
    codecInfo->VdCodecId = video->codecId;
    codecInfo->VdCodecInfo->bitrate = video->bitrate;
    memcpy(codecInfo->VdCodecInfo->opaque, video->opaque, sizeof video->opaque);
    return 0;
}

RTMP_STATUS int CopyAudioInfo(RtmpSession *session, const AudioMediaInfo *audio, const char *who)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    CodecInfo *codecInfo = session->CodecInfo;
    codecInfo->AdConfigData = CopyOfBytes(audio->configData, audio->configLen);
    if (codecInfo->AdConfigData == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to rtmpSession->CodecInfo->AdConfigData\n", who);
        return -1;
    }
    codecInfo->AdConfigDataLen = static_cast<uint32_t>(audio->configLen);
    codecInfo->AdCodecInfo = NewRecord<AdCodecInfo>();
    if (codecInfo->AdCodecInfo == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to rtmpSession->CodecInfo->AdCodecInfo\n", who);
        return -1;
    }
    codecInfo->AdCodecId = audio->codecId;
    codecInfo->AdCodecInfo->opaque = audio->opaque;
    return 0;
}

// AF 00 and the first two bytes of the AudioSpecificConfig.
RTMP_STATUS int WriteAacSequenceHeader(RtmpSession *session)
{
    CodecInfo *codecInfo = session->CodecInfo;
    AdCodecInfo *audio = codecInfo->AdCodecInfo;
    if (GenerateFlvAACHdr(session, audio->AacSeqHdr, 1) < 0) {
        return -1;
    }
    audio->AacSeqHdr[2] = AdConfigByte(codecInfo, 0);
    audio->AacSeqHdr[3] = AdConfigByte(codecInfo, 1);
    audio->AacSeqHdrLen = sizeof audio->AacSeqHdr;
    return 0;
}

uint32_t MediaKindOf(const VideoMediaInfo *video, const AudioMediaInfo *audio)
{
    if (video == nullptr) {
        return RTMP_MEDIA_AUDIO;
    }
    return audio == nullptr ? RTMP_MEDIA_VIDEO : RTMP_MEDIA_BOTH;
}

// Players may be reading the record at this moment, and messages under way use its bodies: it is kept until
// the session ends.
void ReplaceCodecInfo(RtmpSession *session, CodecInfo *replacement)
{
    CodecInfo *old = session->CodecInfo;
    StoreShared(&session->CodecInfo, replacement);
    if (old != nullptr) {
        old->NextRetired = session->RetiredCodecInfo;
        session->RetiredCodecInfo = old;
    }
}

RTMP_STATUS int32_t CheckMediaInfo(RtmpSession *session, const VideoMediaInfo *video,
                                   const AudioMediaInfo *audio, const char *who)
{
    if (session == nullptr || (video == nullptr && audio == nullptr)) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", who);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    RtmpLogger *logger = LoggerOf(session->Server);
    if (audio != nullptr && (audio->configData == nullptr || audio->configLen < 1)) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Audio config information not passed\n", who);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    if (video != nullptr && (video->configData == nullptr || video->configLen < 1)) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Video config information not passed\n", who);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    return 0;
}

// What was built before a failure stays in the draft's CodecInfo.
RTMP_STATUS int32_t BuildCodecInfo(RtmpSession *draft, const VideoMediaInfo *video,
                                   const AudioMediaInfo *audio, const char *who)
{
    RtmpLogger *logger = LoggerOf(draft->Server);
    draft->CodecInfo = NewRecord<CodecInfo>();
    if (draft->CodecInfo == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to rtmpSession->CodecInfo\n",
                     who);
        return RTMP_ERR_MEMORY;
    }
    if (video != nullptr && AddVideoInfo(draft, video) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot add video information\n", who);
        return RTMP_ERR_VIDEO_INFO;
    }
    if (audio != nullptr && AddAudioInfo(draft, audio) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot add audio information\n", who);
        return RTMP_ERR_AUDIO_INFO;
    }
    if (GenerateFlvMetadata(draft) != 0 || GeneratePlayerMetadata(draft) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot generate meta information\n", who);
        return RTMP_ERR_META_DATA;
    }
    return 0;
}

// The record is built on a draft of the session, so that no player ever sees a half-built one.
RTMP_STATUS int32_t RegisterMedia(RtmpSession *session, const VideoMediaInfo *video,
                                  const AudioMediaInfo *audio, const char *who)
{
    RtmpSession draft = {};
    draft.Server = session->Server;
    draft.MediaKind = MediaKindOf(video, audio);
    StoreShared(&session->MediaKind, draft.MediaKind);
    const int32_t status = BuildCodecInfo(&draft, video, audio, who);
    if (status != 0) {
        FreeCodecInfo(draft.CodecInfo);
        ReplaceCodecInfo(session, nullptr);
        return status;
    }
    ReplaceCodecInfo(session, draft.CodecInfo);
    return 0;
}

} // namespace

int ParseVdConfigData(RtmpSession *session)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    const CodecInfo *codecInfo = session->CodecInfo;
    if (codecInfo->VdCodecId != kVideoCodecAvc) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unsupported video codec\n", __func__);
        return -1;
    }
    uint32_t spsLen = 0;
    const uint8_t *sps = ExtractSpsHeader(session, codecInfo->VdConfigData,
                                          static_cast<int32_t>(codecInfo->VdConfigDataLen), &spsLen);
    if (sps == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot extract SPS header\n", __func__);
        return -1;
    }
    ParseSPSHeader(sps, spsLen, codecInfo->VdCodecInfo);
    return 0;
}

// audioObjectType:5 samplingFrequencyIndex:4 channelConfiguration:4 ... (ISO/IEC 14496-3, 1.6.2.1)
int ParseAdConfigData(RtmpSession *session)
{
    const CodecInfo *codecInfo = session->CodecInfo;
    if (codecInfo->AdCodecId != kAudioCodecAac) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR, "ERROR: %s: Unsupported audio codec\n",
                     __func__);
        return -1;
    }
    const uint32_t c0 = AdConfigByte(codecInfo, 0);
    const uint32_t c1 = AdConfigByte(codecInfo, 1);
    codecInfo->AdCodecInfo->sampleRate = kSamplingFrequencies[(c0 & 0x07) << 1 | c1 >> 7];
    codecInfo->AdCodecInfo->channels = (c1 & 0x78) >> 3;
    return 0;
}

int AddVideoInfo(RtmpSession *session, const VideoMediaInfo *video)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    if (CopyVideoInfo(session, video, __func__) != 0) {
        FreeVideoHalf(session->CodecInfo);
        return -1;
    }
    RaiseBandwidth(session->Server, video->bitrate);
    if (ParseVdConfigData(session) != 0) {
        FreeVideoHalf(session->CodecInfo);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Parsing of video configuration information failed\n",
                     __func__);
        return -1;
    }
    if (CreateAVCCBox(session) != 0 || CreatePlayerAvccBox(session) != 0) {
        FreeVideoHalf(session->CodecInfo);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot generate avcc box\n", __func__);
        return -1;
    }
    return 0;
}

int AddAudioInfo(RtmpSession *session, const AudioMediaInfo *audio)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    if (CopyAudioInfo(session, audio, __func__) != 0) {
        FreeAudioHalf(session->CodecInfo);
        return -1;
    }
    if (ParseAdConfigData(session) != 0) {
        FreeAudioHalf(session->CodecInfo);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Parsing of audio configuration information failed\n",
                     __func__);
        return -1;
    }
    if (WriteAacSequenceHeader(session) != 0) {
        FreeAudioHalf(session->CodecInfo);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unsupported audio codec\n", __func__);
        return -1;
    }
    return 0;
}

void FreeCodecInfo(CodecInfo *codecInfo)
{
    while (codecInfo != nullptr) {
        CodecInfo *next = codecInfo->NextRetired;
        FreeVideoHalf(codecInfo);
        FreeAudioHalf(codecInfo);
        free(codecInfo->MetaData);
        free(codecInfo->PlayerMetaData);
        free(codecInfo);
        codecInfo = next;
    }
}

int32_t RtmpAddMediaInfo(RtmpSession *session, const VideoMediaInfo *video, const AudioMediaInfo *audio)
{
    int32_t status = CheckMediaInfo(session, video, audio, __func__);
    if (status != 0) {
        return status;
    }
    RtmpLogger *logger = LoggerOf(session->Server);
    RtmpMutex *lock = &session->Server->LiveSessionListLock;
    if (RtmpMutexLock(lock) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock Rtmp session list\n", __func__);
        return RTMP_ERR_LOCK;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = lock;
    status = RegisterMedia(session, video, audio, __func__);
    if (status != 0) {
        return status;
    }
    const uint32_t before = session->MediaInfoAdded;
    StoreShared(&session->MediaInfoAdded, uint32_t{1});
    held = nullptr;
    if (RtmpMutexUnlock(lock) != 0) {
        StoreShared(&session->MediaInfoAdded, before);
        ReplaceCodecInfo(session, nullptr);
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot unlock Rtmp session list\n", __func__);
        return RTMP_ERR_UNLOCK;
    }
    return 0;
}
