// GenerateRtmpMsg (publish.h) and the generators it dispatches to. Each returns a new message or null
// (logged); `recvPkt` is the RtmpRecvPkt that caused it.
#pragma once

#include "rtmpcast/publish.h"

extern "C" {

RtmpSendPkt *GenerateProtoCtrlMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);
RtmpSendPkt *GenerateUsrCtrlMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);
RtmpSendPkt *GenerateCmdMsgRes(RtmpClient *client, void *recvPkt, uint32_t msgKind);
RtmpSendPkt *GenerateRtmpDataMsg(RtmpClient *client, void *recvPkt, uint32_t msgKind);

// FillRtmpMediaMsg fills `pkt`, which is zero, as GenerateRtmpMediaMsg does, without allocating. -1: the
// send list could not be locked (logged).
RTMP_STATUS int FillRtmpMediaMsg(RtmpClient *client, int msgKind, uint32_t length, const uint8_t *data,
                                 uint64_t wantedDelta, RtmpSendPkt *pkt);
}
