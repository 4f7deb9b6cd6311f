/* Everybody may connect. */
#include "rtmpcast/host.h"

int32_t rtmpViewerAccepted(const RtmpViewer *viewer)
{
    (void)viewer;
    return 0;
}
