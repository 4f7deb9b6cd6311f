#pragma once

#include "rtmpcast/types.h"

extern "C" {

// StartSendingData sends what a player receives before its first frame: Play.Start, |RtmpSampleAccess,
// onMetaData and the sequence headers. 0; -1 (logged).
RTMP_STATUS int StartSendingData(RtmpClient *client, RtmpRecvPkt *request);
}
