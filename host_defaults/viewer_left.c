/* Nobody asks who has left. */
#include "rtmpcast/host.h"

void rtmpViewerLeft(const RtmpViewer *viewer)
{
    (void)viewer;
}
