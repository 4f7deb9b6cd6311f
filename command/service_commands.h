// The commands that a streaming service sends to a publisher and that carry something to record or to answer.
// What they record goes into the client's PublishCtx; without one they are logged only. 0; -1 (logged).
#pragma once

#include "command/received_command.h"

extern "C" {

RTMP_STATUS int HandleResult(ReceivedCommand *command);
RTMP_STATUS int HandleError(ReceivedCommand *command);
RTMP_STATUS int HandleOnStatus(ReceivedCommand *command);
RTMP_STATUS int HandleOnClientLogin(ReceivedCommand *command);
RTMP_STATUS int HandleSetChallenge(ReceivedCommand *command);

// HandlePing answers the service's ping.
RTMP_STATUS int HandlePing(ReceivedCommand *command);

// HandleRecordStop asks the host to start recording again.
RTMP_STATUS int HandleRecordStop(ReceivedCommand *command);
}
