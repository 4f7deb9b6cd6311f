// The host's functions that several rooms call.
//
// A thread that is cancelled inside a function of the host would leave locked what the host has locked there.
// So cancellation is off around each of them, here and wherever else one is called.
#pragma once

#include "net/scope.h"
#include "rtmpcast/host.h"

inline void ReportStatus(void *hostContext, const char *key, const char *value, const char *description)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    rtmpStatusMessage(hostContext, key, value, description);
}

inline void SetEncoderBitrate(void *hostContext, int32_t bitrate)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    rtmpSendZandBitrate(hostContext, bitrate);
}
