/* Every application is as good as another. */
#include "rtmpcast/host.h"

int32_t rtmpViewerConnects(const RtmpViewer *viewer)
{
    (void)viewer;
    return 0;
}
