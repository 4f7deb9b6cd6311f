/* The encoder makes its key frames when it does. */
#include "rtmpcast/host.h"

void rtmpKeyFrameWanted(RtmpSession *session)
{
    (void)session;
}
