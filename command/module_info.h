// "moduleInfo": the statistics that a streaming service sends to a publisher.
#pragma once

#include "command/received_command.h"

extern "C" {

// HandleModuleInfo logs every statistic and reports viewer counts that changed to the host, when the client
// has a PublishCtx. Always 0.
RTMP_STATUS int HandleModuleInfo(ReceivedCommand *command);
}
