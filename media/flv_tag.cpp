#include "media/flv_tag.h"

#include "amf/encode.h"
#include "amf/object.h"
#include "media/parameter_sets.h"
#include "net/byte_writer.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/record.h"
#include "rtmpcast/types.h"

namespace {

constexpr uint8_t kKeyFrameAvc = 0x17;
constexpr uint8_t kInterFrameAvc = 0x27;
constexpr uint8_t kAac44kHz16BitStereo = 0xAF;

constexpr uint64_t kAvccBoxFixedLen = 16;

struct NalUnit {
    const uint8_t *Data; // NAL header byte first
    uint32_t Length;
};

bool HasVideo(const RtmpSession *session)
{
    return session->MediaKind == RTMP_MEDIA_VIDEO || session->MediaKind == RTMP_MEDIA_BOTH;
}

bool HasAudio(const RtmpSession *session)
{
    return session->MediaKind == RTMP_MEDIA_AUDIO || session->MediaKind == RTMP_MEDIA_BOTH;
}

bool StartsKeyFrame(uint8_t nalHeader)
{
    const uint8_t type = nalHeader & 0x1F;
    return type == 5 || type == 7 || type == 8; // IDR slice, SPS, PPS
}

// configurationVersion:8  profile:8  compatibility:8  level:8
// reserved:6 lengthSizeMinusOne:2  reserved:3 SPS count:5  SPS length:16  SPS  PPS count:8  PPS length:16 PPS
void PutDecoderConfiguration(ByteWriter *out, const VdCodecInfo *video, NalUnit sps, NalUnit pps)
{
    PutU8(out, 1);
    PutU8(out, video->profileIdc);
    PutU8(out, video->constraintFlags);
    PutU8(out, video->levelIdc);
    PutU8(out, 0xFF); // four-byte NAL lengths
    PutU8(out, 0xE1);
    PutU16Be(out, sps.Length);
    PutBytes(out, sps.Data, sps.Length);
    PutU8(out, 1);
    PutU16Be(out, pps.Length);
    PutBytes(out, pps.Data, pps.Length);
}

// Failures are logged in the name of `who`, as in the procedures below.
RTMP_STATUS int AddVideoCodecMembers(RtmpServer *server, AmfObject *members, const VdCodecInfo *video,
                                     const char *who)
{
    RtmpLogger *logger = LoggerOf(server);
    if (WriteAmfNumber(server, members, "videocodecid", kVideoCodecAvc) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf videocodecid\n", who);
        return -1;
    }
    if (WriteAmfNumber(server, members, "avclevel", video->levelIdc) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf avc level\n", who);
        return -1;
    }
    if (WriteAmfNumber(server, members, "avcprofile", video->profileIdc) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf avc profile\n", who);
        return -1;
    }
    const uint32_t kilobits = video->bitrate / 1000;
    if (video->bitrate != 0 && WriteAmfNumber(server, members, "videodatarate", kilobits) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf video data rate\n", who);
        return -1;
    }
    return 0;
}

RTMP_STATUS int AddVideoMembers(RtmpSession *session, AmfObject *members, const char *who)
{
    RtmpServer *server = session->Server;
    RtmpLogger *logger = LoggerOf(server);
    const VdCodecInfo *video = session->CodecInfo->VdCodecInfo;
    if (WriteAmfNumber(server, members, "width", video->width) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf width\n", who);
        return -1;
    }
    if (WriteAmfNumber(server, members, "height", video->height) != 0) {
        // KEPT: misspelt. Required; changes a log line.
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf heigth\n", who);
        return -1;
    }
    if (session->CodecInfo->VdCodecId != kVideoCodecAvc) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Video codec not supported\n", who);
        return -1;
    }
    return AddVideoCodecMembers(server, members, video, who);
}

// KEPT: "stereo" is 0 for two channels and 1 otherwise. Required. No byte shows it: of a boolean member the
// encoder writes the name alone.
RTMP_STATUS int AddAudioMembers(RtmpSession *session, AmfObject *members, const char *who)
{
    RtmpServer *server = session->Server;
    RtmpLogger *logger = LoggerOf(server);
    const AdCodecInfo *audio = session->CodecInfo->AdCodecInfo;
    if (WriteAmfNumber(server, members, "audiosamplerate", audio->sampleRate) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf audio sample rate\n", who);
        return -1;
    }
    const uint8_t stereo = audio->channels == kStereoChannels ? 0 : 1;
    if (WriteAmfBoolean(server, members, "stereo", stereo) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf no. of channels\n", who);
        return -1;
    }
    if (session->CodecInfo->AdCodecId != kAudioCodecAac) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Audio codec not supported\n", who);
        return -1;
    }
    if (WriteAmfNumber(server, members, "audiocodecid", kAudioCodecAac) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf audio codecid\n", who);
        return -1;
    }
    return 0;
}

// "onMetaData", {members}. What was appended before a failure is the caller's to free.
RTMP_STATUS int BuildMetadata(RtmpSession *session, AmfObject *body, AmfObject *members, const char *who)
{
    RtmpServer *server = session->Server;
    RtmpLogger *logger = LoggerOf(server);
    if (WriteAmfString(server, body, nullptr, "onMetaData") != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode Amf onMetaData\n", who);
        return -1;
    }
    if (HasVideo(session) && AddVideoMembers(session, members, who) != 0) {
        return -1;
    }
    if (HasAudio(session) && AddAudioMembers(session, members, who) != 0) {
        return -1;
    }
    if (WriteAmfObject(server, body, members) != 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot encode ecma array\n", who);
        return -1;
    }
    *members = {}; // the body has taken the list over
    return 0;
}

RTMP_STATUS int EncodeMetadata(RtmpSession *session, AmfObject *body, const char *who)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    const int32_t size = static_cast<int32_t>(GetAmfEncBuffSize(session->Server, body));
    if (size <= 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while calculating metadata size\n",
                     who);
        return -1;
    }
    uint8_t *encoded = EncodeAmfBuffer(session->Server, size, body);
    if (encoded == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Error occured while generating metadata\n", who);
        return -1;
    }
    session->CodecInfo->MetaData = encoded;
    session->CodecInfo->MetaDataLen = static_cast<uint32_t>(size);
    return 0;
}

} // namespace

int GenerateFlvMetadata(RtmpSession *session)
{
    AmfObject body = {};
    AmfObject members = {};
    int status = BuildMetadata(session, &body, &members, __func__);
    if (status == 0) {
        status = EncodeMetadata(session, &body, __func__);
    }
    (void)FreeAmfObject(session->Server, &members, 1); // it never fails
    (void)FreeAmfObject(session->Server, &body, 1);
    return status;
}

int CreateAVCCBox(RtmpSession *session)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    const CodecInfo *codecInfo = session->CodecInfo;
    const int32_t configLen = static_cast<int32_t>(codecInfo->VdConfigDataLen);
    NalUnit sps = {};
    NalUnit pps = {};
    sps.Data = ExtractSpsHeader(session, codecInfo->VdConfigData, configLen, &sps.Length);
    if (sps.Data == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot extract SPS header\n", __func__);
        return -1;
    }
    pps.Data = ExtractPpsHeader(session, codecInfo->VdConfigData, configLen, &pps.Length);
    if (pps.Data == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot extract PPS header\n", __func__);
        return -1;
    }
    const uint64_t length = kAvccBoxFixedLen + sps.Length + pps.Length;
    uint8_t *box = NewArray<uint8_t>(length);
    if (box == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to codecInfo->VdCodecInfo->AvccBox\n", __func__);
        return -1;
    }
    ByteWriter out = WriterOver(box + FLV_VIDEO_HDR_LEN, length - FLV_VIDEO_HDR_LEN);
    PutDecoderConfiguration(&out, codecInfo->VdCodecInfo, sps, pps);
    if (GenerateFlvH264Hdr(session, sps.Data, sps.Length, 0, box, 1) < 0 || out.Overrun) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: FLV Video tag generation failed\n", __func__);
        free(box);
        return -1;
    }
    codecInfo->VdCodecInfo->AvccBox = box;
    codecInfo->VdCodecInfo->AvccBoxLen = static_cast<int32_t>(length);
    return 0;
}

// frame type:4 codec id:4  AVC packet type:8  composition time:24, always 0
int GenerateFlvH264Hdr(RtmpSession * /*session*/, const uint8_t *nal, uint32_t /*nalLen*/,
                       uint32_t /*ignored*/, uint8_t *out, uint8_t isSequenceHeader)
{
    if (out == nullptr) {
        return -1;
    }
    const bool keyFrame = isSequenceHeader == 1 || (nal != nullptr && StartsKeyFrame(nal[0]));
    ByteWriter writer = WriterOver(out, FLV_VIDEO_HDR_LEN);
    PutU8(&writer, FlvVideoTag(keyFrame ? 1 : 0));
    PutU8(&writer, isSequenceHeader == 1 ? 0 : 1);
    PutU24Be(&writer, 0);
    return FLV_VIDEO_HDR_LEN;
}

uint8_t FlvVideoTag(int isKeyFrame)
{
    return isKeyFrame != 0 ? kKeyFrameAvc : kInterFrameAvc;
}

// sound format:4 rate:2 size:1 type:1  AAC packet type:8
// KEPT: 44.1 kHz stereo whatever the stream is. Required; changes a byte on the wire. Decoders take rate and
// channels from the sequence header.
int GenerateFlvAACHdr(RtmpSession * /*session*/, uint8_t *out, uint8_t isSequenceHeader)
{
    if (out == nullptr) {
        return -1;
    }
    ByteWriter writer = WriterOver(out, FLV_AUDIO_HDR_LEN);
    PutU8(&writer, kAac44kHz16BitStereo);
    PutU8(&writer, isSequenceHeader == 1 ? 0 : 1);
    return FLV_AUDIO_HDR_LEN;
}
