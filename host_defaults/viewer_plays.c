/* Every stream may be played. */
#include "rtmpcast/host.h"

int32_t rtmpViewerPlays(const RtmpViewer *viewer)
{
    (void)viewer;
    return 0;
}
