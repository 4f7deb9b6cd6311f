/* The system log is syslog(3). */
#include "rtmpcast/host.h"

#include <stdio.h>
#include <syslog.h>

void KelvoraSyslog(const char *tag, const char *format, ...)
{
    char line[1024];
    va_list arguments;

    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    syslog(LOG_INFO, "%s: %s", tag, line);
}
