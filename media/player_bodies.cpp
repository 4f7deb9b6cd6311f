#include "media/player_bodies.h"

#include "amf/value_writer.h"
#include "media/parameter_sets.h"
#include "media/sequence_parameters.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/player_rules.h"
#include "net/record.h"

namespace {

constexpr uint32_t kRecordExtensionLen = 4;

// Channels by channelConfiguration (ISO/IEC 14496-3, table 1.19); 0: not known from it.
constexpr uint32_t kChannels[] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};
static_assert(sizeof kChannels / sizeof kChannels[0] == 16, "the configuration has four bits");

// ReadRegisteredSps reads the SPS that is registered; false when it is broken.
bool ReadRegisteredSps(RtmpSession *session, const CodecInfo *codecInfo, SequenceParameters *out)
{
    uint32_t length = 0;
    const uint8_t *sps = ExtractSpsHeader(session, codecInfo->VdConfigData,
                                          static_cast<int32_t>(codecInfo->VdConfigDataLen), &length);
    return sps != nullptr && ReadSequenceParameters(sps, length, out) == 0;
}

// The size of a broken SPS is the exact reader's.
void PutVideoMembers(MemberWriter *array, RtmpSession *session, const CodecInfo *codecInfo)
{
    const VdCodecInfo *video = codecInfo->VdCodecInfo;
    SequenceParameters sps = {};
    sps.Width = video->width;
    sps.Height = video->height;
    (void)ReadRegisteredSps(session, codecInfo, &sps); // a broken one leaves what is there
    PutNumberMember(array, "width", sps.Width);
    PutNumberMember(array, "height", sps.Height);
    PutNumberMember(array, "videocodecid", kVideoCodecAvc);
    PutNumberMember(array, "avclevel", video->levelIdc);
    PutNumberMember(array, "avcprofile", video->profileIdc);
    if (video->bitrate != 0) {
        PutNumberMember(array, "videodatarate", video->bitrate / 1000.0); // kbit/s
    }
}

// A rate or a number of channels that the configuration's first two bytes do not tell is left out.
void PutAudioMembers(MemberWriter *array, const AdCodecInfo *audio)
{
    const uint32_t channels = kChannels[audio->channels & 15U];
    if (audio->sampleRate != 0) {
        PutNumberMember(array, "audiosamplerate", audio->sampleRate);
    }
    if (channels != 0) {
        PutNumberMember(array, "audiochannels", channels);
    }
    PutBooleanMember(array, "stereo", channels == kStereoChannels);
    PutNumberMember(array, "audiocodecid", kAudioCodecAac);
}

// reserved:6 chroma_format:2  reserved:5 bit_depth_luma_minus8:3  reserved:5 bit_depth_chroma_minus8:3
// number of SPS extensions:8
void PutRecordExtension(ByteWriter *out, const SequenceParameters *sps)
{
    PutU8(out, 0xFC | sps->ChromaFormatIdc);
    PutU8(out, 0xF8 | sps->BitDepthLumaMinus8);
    PutU8(out, 0xF8 | sps->BitDepthChromaMinus8);
    PutU8(out, 0);
}

} // namespace

// "onMetaData", [members]. An ECMA array, as FLV has it (E.5) and as receivers expect it. No frame rate: the
// host does not tell it, and what the timing of an SPS says of it is a wish.
void WriteWholeMetadata(RtmpSession *session, const CodecInfo *codecInfo, ByteWriter *out)
{
    PutTextValue(out, "onMetaData");
    MemberWriter array = BeginEcmaArray(out);
    if (codecInfo->VdCodecInfo != nullptr) {
        PutVideoMembers(&array, session, codecInfo);
    }
    if (codecInfo->AdCodecInfo != nullptr) {
        PutAudioMembers(&array, codecInfo->AdCodecInfo);
    }
    EndMembers(&array);
}

int GeneratePlayerMetadata(RtmpSession *session)
{
    if (!Allows(session->Server, RULE_METADATA)) {
        return 0;
    }
    uint8_t room[kMetadataRoom];
    ByteWriter out = WriterOver(room, sizeof room);
    WriteWholeMetadata(session, session->CodecInfo, &out);
    const uint64_t length = sizeof room - RoomIn(&out);
    uint8_t *body = out.Overrun ? nullptr : NewArray<uint8_t>(length);
    if (body == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to codecInfo->PlayerMetaData\n", __func__);
        return -1;
    }
    memcpy(body, room, length);
    session->CodecInfo->PlayerMetaData = body;
    session->CodecInfo->PlayerMetaDataLen = static_cast<uint32_t>(length);
    return 0;
}

// The exact body, and behind it what the record of a profile with chroma format and bit depths ends with
// (ISO/IEC 14496-15, 5.3.3.1). The first editions name 100, 110, 122 and 144; here it is every profile whose
// SPS has the fields, as later editions and writers of today have it. A broken SPS tells nothing, and nothing
// is added.
int CreatePlayerAvccBox(RtmpSession *session)
{
    CodecInfo *codecInfo = session->CodecInfo;
    const VdCodecInfo *video = codecInfo->VdCodecInfo;
    if (!Allows(session->Server, RULE_AVC_RECORD)) {
        return 0;
    }
    SequenceParameters sps = {};
    const bool isExtended = HasChromaFormat(video->profileIdc) && ReadRegisteredSps(session, codecInfo, &sps);
    const uint32_t exactLen = static_cast<uint32_t>(video->AvccBoxLen);
    const uint32_t length = exactLen + (isExtended ? kRecordExtensionLen : 0);
    uint8_t *box = NewArray<uint8_t>(length);
    if (box == nullptr) {
        RtmpLogPrint(LoggerOf(session->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to codecInfo->PlayerAvccBox\n", __func__);
        return -1;
    }
    ByteWriter out = WriterOver(box, length);
    PutBytes(&out, video->AvccBox, exactLen);
    if (isExtended) {
        PutRecordExtension(&out, &sps);
    }
    codecInfo->PlayerAvccBox = box;
    codecInfo->PlayerAvccBoxLen = length;
    return 0;
}
