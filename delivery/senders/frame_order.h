// In which order pictures and sound leave. By default by the times that were last stamped on messages, which
// are the ages of connections; where every player that plays has rules of its own about media time, by the
// host's clock.
#pragma once

#include "rtmpcast/types.h"

extern "C" {

// IsHostsOrder tells whether somebody plays and nobody of those moves the sender's clock.
bool IsHostsOrder(RtmpSession *session);
}
