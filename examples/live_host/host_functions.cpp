#include "host_functions.h"

#include <rtmpcast/rtmpcast.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

HostFunctions hostFunctions;

namespace {

void RTMP_PRINTF(1, 2) writeLine(const char *format, ...)
{
    if (hostFunctions.console == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    hostFunctions.console->lineOfTheLibrary(RTMP_LOG_INFO, format, arguments);
    va_end(arguments);
}

const char *nameOf(void *session)
{
    return static_cast<RtmpSession *>(session)->Name;
}

} // namespace

extern "C" {

// A product writes this to its system log.
void KelvoraSyslog(const char *tag, const char *format, ...)
{
    if (hostFunctions.console == nullptr) {
        return;
    }
    const std::string line = std::string("SYSLOG: ") + tag + ": " + format;
    va_list arguments;
    va_start(arguments, format);
    hostFunctions.console->lineOfTheLibrary(RTMP_LOG_INFO, line.c_str(), arguments);
    va_end(arguments);
}

void rtmpStatusMessage(void *hostContext, const char *key, const char *value, const char *description)
{
    if (hostFunctions.counters != nullptr && strcmp(key, "rtmpBandwidth") == 0) {
        hostFunctions.counters->measuredKbps = atoi(value);
    }
    writeLine("STATUS: %s: %s %s (%s)\n", nameOf(hostContext), key, value, description);
}

// Noted, and no more: the thread that sends hands it to its source before the next frame (see main).
void rtmpSendZandBitrate(void *hostContext, int32_t bitrate)
{
    hostFunctions.bitrates.wish(hostContext, bitrate);
    writeLine("STATUS: %s: encode at %d bit/s\n", nameOf(hostContext), bitrate);
}
}
