#include "media/parameter_sets.h"

#include "media/h264.h"
#include "net/byte_order.h"
#include "net/log.h"

namespace {

// FindStartCode returns the first position at or behind `from` of 00 00 00 01, or -1.
int64_t FindStartCode(const uint8_t *data, int64_t len, int64_t from)
{
    for (int64_t i = from; i + kStartCodeLen <= len; i++) {
        if (GetU32Be(data + i) == 1) {
            return i;
        }
    }
    return -1;
}

bool IsReferenceNalOfType(uint8_t header, uint8_t type)
{
    const bool forbiddenZeroBit = (header & 0x80) != 0;
    const uint32_t nalRefIdc = (header & 0x60U) >> 5;
    return !forbiddenZeroBit && nalRefIdc != 0 && (header & 0x1F) == type;
}

// FindNal returns the position of the header byte of the first NAL unit of a type, or -1. A start code that
// ends the data has no NAL unit behind it.
int64_t FindNal(const uint8_t *data, int64_t len, uint8_t type)
{
    int64_t code = FindStartCode(data, len, 0);
    while (code >= 0 && code + kStartCodeLen < len) {
        if (IsReferenceNalOfType(data[code + kStartCodeLen], type)) {
            return code + kStartCodeLen;
        }
        code = FindStartCode(data, len, code + 1);
    }
    return -1;
}

} // namespace

const uint8_t *ExtractSpsHeader(RtmpSession *session, const uint8_t *data, int32_t len, uint32_t *spsLen)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    if (data == nullptr || len < 1 || spsLen == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot extract SPS header\n", __func__);
        return nullptr;
    }
    if (len <= kStartCodeLen) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid video config data\n", __func__);
        return nullptr;
    }
    const int64_t sps = FindNal(data, len, kNalTypeSps);
    if (sps < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: SPS not found in video config data\n", __func__);
        return nullptr;
    }
    const int64_t end = FindStartCode(data, len, sps);
    if (end < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: End of SPS not found\n", __func__);
        return nullptr;
    }
    *spsLen = static_cast<uint32_t>(end - sps);
    return data + sps;
}

// KEPT: a PPS of at most four bytes may end the data, a longer one must be followed by a start code.
// Required; changes which configurations are refused.
const uint8_t *ExtractPpsHeader(RtmpSession *session, const uint8_t *data, int32_t len, uint32_t *ppsLen)
{
    RtmpLogger *logger = LoggerOf(session->Server);
    if (data == nullptr || len < 1 || ppsLen == nullptr) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot extract PPS header\n", __func__);
        return nullptr;
    }
    if (len <= kStartCodeLen) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid video config data\n", __func__);
        return nullptr;
    }
    const int64_t pps = FindNal(data, len, kNalTypePps);
    if (pps < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: PPS not found in video config data\n", __func__);
        return nullptr;
    }
    const int64_t rest = len - pps;
    const int64_t end = rest > kStartCodeLen ? FindStartCode(data, len, pps) : len;
    if (end < 0) {
        RtmpLogPrint(logger, RTMP_LOG_ERROR, "ERROR: %s: End of PPS not found\n", __func__);
        return nullptr;
    }
    *ppsLen = static_cast<uint32_t>(end - pps);
    return data + pps;
}
