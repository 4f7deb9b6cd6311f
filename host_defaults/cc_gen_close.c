/* No captions: there is no generator to close. */
#include "rtmpcast/host.h"

void cc_gen_close(uint64_t handle)
{
    (void)handle;
}
