#include "rtmpcast/publish.h"

#include <signal.h>

void (*HandleSignal(void))(int)
{
    return signal(SIGPIPE, SIG_IGN);
}
