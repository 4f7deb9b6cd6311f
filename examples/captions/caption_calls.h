// What the library calls for captions, by other names: caption_functions.cpp has those of host.h.
#pragma once

#include "caption_source.h"

uint64_t makeCaptions();
void endCaptions(uint64_t handle);
int32_t placeCaption(const uint8_t *data, int32_t length, int32_t *nalSizePos);
void takeCaption(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta);
RtmpSendPkt *makeCaptionInfo(RtmpClient *client, uint32_t kind, uint64_t timeStampDelta);
