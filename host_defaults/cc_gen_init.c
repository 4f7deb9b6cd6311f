/* No captions: there is no generator. */
#include "rtmpcast/host.h"

uint64_t cc_gen_init(void)
{
    return 0;
}
