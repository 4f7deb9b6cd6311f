// Log texts that stand in a table, or are chosen in one place and logged in another: one literal each,
// exactly as it is logged, that takes the caller's name and nothing else.
#pragma once

#include "net/log.h"

struct LogText {
    const char *Format; // null: no text
};

// NamesOnlyItsCaller tells whether a text takes exactly one %s.
constexpr bool NamesOnlyItsCaller(const char *text)
{
    int names = 0;
    for (const char *at = text; *at != '\0'; at++) {
        if (*at == '%') {
            names += at[1] == 's' ? 1 : 2;
        }
    }
    return names == 1;
}

// LOG_TEXT("INFO: %s: ...\n") makes a LogText; one that takes anything but its caller's name does not
// compile.
#define LOG_TEXT(text)                                                                                       \
    ([] {                                                                                                    \
        static_assert(NamesOnlyItsCaller(text), "takes exactly the caller's name");                          \
        return LogText{text};                                                                                \
    }())

// LogLine writes a text as the procedure `caller`, whose step it is.
inline void LogLine(RtmpLogger *logger, uint8_t level, LogText text, const char *caller)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // LOG_TEXT has looked at the literal
    RtmpLogPrint(logger, level, text.Format, caller);
#pragma GCC diagnostic pop
}
