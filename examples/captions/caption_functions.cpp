// The library's host functions for captions; a host that has a CaptionSource compiles this file too.
#include "caption_calls.h"

#include <rtmpcast/rtmpcast.h>

extern "C" {

uint64_t cc_gen_init(void)
{
    return makeCaptions();
}

void cc_gen_close(uint64_t handle)
{
    endCaptions(handle);
}

int32_t find_cc_insertion_place_in_h264_of_qbox(const uint8_t *data, int32_t length, int32_t *nalSizePos)
{
    return placeCaption(data, length, nalSizePos);
}

void get_sei_packet(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta)
{
    takeCaption(handle, sei, seiLen, timestampDelta);
}

RtmpSendPkt *PublishGeneratePeriodicRTMPMsg(RtmpClient *client, uint32_t kind, uint64_t timeStampDelta)
{
    return makeCaptionInfo(client, kind, timeStampDelta);
}
}
