#pragma once

#include "rtmpcast/types.h"

extern "C" {

// AcknowledgeReceived sends an acknowledgement once as many bytes as the peer's window have come since the
// last one, or since the connection was made (RTMP 1.0, 5.4.3 and 5.4.4). A peer that has announced no
// window, and a connection without RTMP_PLAYERS_ACKNOWLEDGE, get none. A failure is logged.
void AcknowledgeReceived(RtmpClient *client);
}
