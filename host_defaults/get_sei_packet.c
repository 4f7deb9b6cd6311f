/* No captions: no SEI. */
#include "rtmpcast/host.h"

#include <stddef.h>

void get_sei_packet(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta)
{
    (void)handle;
    (void)timestampDelta;
    *sei = NULL;
    *seiLen = 0;
}
