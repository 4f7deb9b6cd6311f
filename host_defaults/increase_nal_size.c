/* No captions: no NAL unit grows. */
#include "rtmpcast/host.h"

void increase_nal_size(uint8_t *frame, int32_t nalSizePos, int32_t bytes)
{
    (void)frame;
    (void)nalSizePos;
    (void)bytes;
}
