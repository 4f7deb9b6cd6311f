// The fields that every outgoing message carries, filled the same way for all of them.
#pragma once

#include "rtmpcast/types.h"

// Chunk stream ids from here on take a basic header of two and of three bytes (RTMP 1.0, 5.3.1.1).
constexpr uint32_t kFirstTwoByteId = 64;
constexpr uint32_t kFirstThreeByteId = 320;

// A time field of all ones says that the whole value follows the message header.
inline bool IsExtended(const uint8_t field[3])
{
    return field[0] == 0xFF && field[1] == 0xFF && field[2] == 0xFF;
}

extern "C" {

// StampNow sets Timestamp and HdrTimestamp to the age of the client record.
void StampNow(RtmpClient *client, RtmpSendPkt *pkt);

// SetTimestamp sets Timestamp, and HdrTimestamp and ExtTimestamp from it.
void SetTimestamp(RtmpSendPkt *pkt, uint64_t timestamp);

// SetTimestampDelta sets HdrTimestampDelta and ExtTimestampDelta.
void SetTimestampDelta(RtmpSendPkt *pkt, uint32_t delta);

// SetMsgStreamId writes the id in wire order.
void SetMsgStreamId(RtmpSendPkt *pkt, uint32_t streamId);

// MeasureDelta fills the delta against the message stored for the packet's chunk stream, if there is one.
// -1: the list could not be locked.
RTMP_STATUS int MeasureDelta(RtmpClient *client, RtmpSendPkt *pkt);
}
