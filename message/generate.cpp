#include "message/generate.h"

#include "media/flv_tag.h"
#include "message/command_replies.h"
#include "message/control.h"
#include "message/data.h"
#include "message/media.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/player_rules.h"

namespace {

constexpr char kMsgGenerator[] = "GenerateRtmpMsg";

typedef RtmpSendPkt *(*Generator)(RtmpClient *client, void *recvPkt, uint32_t msgKind);

struct GeneratorOfKinds {
    uint32_t FirstKind;
    uint32_t LastKind;
    Generator Generate;
};

constexpr GeneratorOfKinds kGenerators[] = {
    {RTMP_MSG_CONNECT, RTMP_MSG_CONNECT, GenerateCmdMsgRes},
    {RTMP_MSG_CREATE_STREAM, RTMP_MSG_CREATE_STREAM, GenerateCmdMsgRes},
    {RTMP_MSG_PLAY, RTMP_MSG_CONNECT_FAILED, GenerateCmdMsgRes},
    {RTMP_MSG_USTREAM_PONG, RTMP_MSG_USTREAM_PONG, GenerateCmdMsgRes},
    {RTMP_MSG_STREAM_BEGIN, RTMP_MSG_PING_RESPONSE, GenerateUsrCtrlMsgRes},
    {RTMP_MSG_SET_CHUNK_SIZE, RTMP_MSG_SET_PEER_BANDWIDTH, GenerateProtoCtrlMsgRes},
    {RTMP_MSG_DATA_START, RTMP_MSG_SAMPLE_ACCESS, GenerateRtmpDataMsg},
    {RTMP_MSG_SEEK, RTMP_MSG_CONNECT_REJECTED, GenerateCmdMsgRes},
};
static_assert(sizeof kGenerators / sizeof kGenerators[0] == 8, "every kind but the media has its generator");

RtmpSendPkt *GenerateReply(RtmpClient *client, void *recvPkt, uint32_t msgKind)
{
    for (const GeneratorOfKinds &entry : kGenerators) {
        if (msgKind >= entry.FirstKind && msgKind <= entry.LastKind) {
            return entry.Generate(client, recvPkt, msgKind);
        }
    }
    return nullptr;
}

// A sequence header, ready to send.
struct TagBody {
    const uint8_t *Data;
    uint32_t MediaLength; // without the header of the tag body
};

int FindAvcSequenceHeader(const RtmpClient *client, const CodecInfo *codecInfo, TagBody *body)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const VdCodecInfo *video = codecInfo->VdCodecInfo;
    if (video == nullptr || video->AvccBox == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Video codec information not present\n",
                     kMsgGenerator);
        return -1;
    }
    if (codecInfo->VdCodecId != kVideoCodecAvc) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Unsupported video codec\n", kMsgGenerator);
        return -1;
    }
    if (Allows(client, RULE_AVC_RECORD) && codecInfo->PlayerAvccBox != nullptr) {
        *body = {codecInfo->PlayerAvccBox, codecInfo->PlayerAvccBoxLen - FLV_VIDEO_HDR_LEN};
        return 0;
    }
    *body = {video->AvccBox, static_cast<uint32_t>(video->AvccBoxLen) - FLV_VIDEO_HDR_LEN};
    return 0;
}

int FindAacSequenceHeader(RtmpLogger *logger, const CodecInfo *codecInfo, TagBody *body)
{
    const AdCodecInfo *audio = codecInfo->AdCodecInfo;
    if (audio == nullptr || codecInfo->AdCodecId != kAudioCodecAac) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Audio codec not supported\n", kMsgGenerator);
        return -1;
    }
    *body = {audio->AacSeqHdr, audio->AacSeqHdrLen - FLV_AUDIO_HDR_LEN};
    return 0;
}

// The body stays the session's; a record that is replaced meanwhile stays alive.
int FindSequenceHeader(RtmpClient *client, uint32_t msgKind, TagBody *body)
{
    RtmpLogger *logger = LoggerOf(client->Server);
    const RtmpSession *session = LoadShared(&client->Session);
    if (session == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Client is not connected to valid session\n",
                     kMsgGenerator);
        return -1;
    }
    const CodecInfo *codecInfo = LoadShared(&session->CodecInfo);
    if (codecInfo == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Codec information not present in session\n",
                     kMsgGenerator);
        return -1;
    }
    return msgKind == RTMP_MSG_VIDEO ? FindAvcSequenceHeader(client, codecInfo, body)
                                     : FindAacSequenceHeader(logger, codecInfo, body);
}

} // namespace

RtmpSendPkt *GenerateRtmpMsg(RtmpClient *client, void *recvPkt, uint32_t msgKind)
{
    if (client == nullptr) {
        RtmpLogPrint(nullptr, RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot generate response message of command message\n", __func__);
        return nullptr;
    }
    RtmpSendPkt *pkt = nullptr;
    if (msgKind == RTMP_MSG_VIDEO || msgKind == RTMP_MSG_AUDIO) {
        TagBody body = {};
        if (FindSequenceHeader(client, msgKind, &body) != 0) {
            return nullptr;
        }
        pkt = GenerateRtmpMediaMsg(client, static_cast<int>(msgKind), body.MediaLength, body.Data, 0);
    } else {
        pkt = GenerateReply(client, recvPkt, msgKind);
    }
    if (pkt == nullptr && msgKind == RTMP_MSG_META_DATA) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot generate meta data message\n", __func__);
    }
    if (pkt == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot generate response message of command message\n", __func__);
    }
    return pkt;
}
