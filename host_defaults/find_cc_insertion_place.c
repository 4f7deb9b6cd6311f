/* No captions: no frame has a place for them. */
#include "rtmpcast/host.h"

int32_t find_cc_insertion_place_in_h264_of_qbox(const uint8_t *data, int32_t length, int32_t *nalSizePos)
{
    (void)data;
    (void)length;
    *nalSizePos = 0;
    return -1;
}
