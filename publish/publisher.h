// A publisher's record, and what its steps share. The exported functions are in rtmpcast/publish_client.h.
#pragma once

#include "rtmpcast/publish_client.h"

extern "C" {

struct RtmpPublisher {
    RtmpClient *Client;
    RtmpPublisherTarget Target; // its texts are the publisher's
    PublishCtx Answers;
    uint32_t LastTransaction;       // shared: RtmpPublisherStop sends, too
    double CreateStreamTransaction; // whose answer carries the stream's id; 0: none is awaited
    RtmpMutex StopLock;             // RtmpPublisherStop is under way; above every other lock
    uint8_t StopAsked;              // shared
    uint8_t OwesGoodBye;            // shared: it is due behind the frames that wait
};
}
