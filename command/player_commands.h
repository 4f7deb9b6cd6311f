// The commands of a player (RTMP 1.0, 7.2.1 and 7.2.2) that carry something to check or to record.
// 0; -1 (logged).
#pragma once

#include "command/received_command.h"

extern "C" {

// HandleConnect checks the command object, and asks the host about a viewer. The texts that a host is told
// are kept, and nothing else.
RTMP_STATUS int HandleConnect(ReceivedCommand *command);

// HandlePlay records the stream name and joins the stream's session. RTMP_ERR_STREAM_NOT_FOUND (logged):
// there is no such stream, or the host does not admit the viewer.
RTMP_STATUS int HandlePlay(ReceivedCommand *command);

// HandlePublish refuses (logged): nobody's stream is taken here.
RTMP_STATUS int HandlePublish(ReceivedCommand *command);

// HandlePause records whether the player pauses (0) or resumes (1).
RTMP_STATUS int HandlePause(ReceivedCommand *command);
}
