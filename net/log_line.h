// Log lines that stand whole in a table row.
#pragma once

#include "net/log.h"

// NamesOnlyItsCaller tells whether a table's line takes exactly the name that LogLine passes.
constexpr bool NamesOnlyItsCaller(const char *line)
{
    int names = 0;
    for (const char *at = line; *at != '\0'; at++) {
        if (*at == '%') {
            names += at[1] == 's' ? 1 : 2;
        }
    }
    return names == 1;
}

// LogLine writes a line that NamesOnlyItsCaller has approved at compile time, at the level of information.
inline void LogLine(RtmpLogger *logger, const char *line, const char *caller)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // literals of constexpr tables, checked above
    RtmpLogPrint(logger, RTMP_LOG_INFO, line, caller);
#pragma GCC diagnostic pop
}
