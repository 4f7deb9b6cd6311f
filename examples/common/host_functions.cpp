#include "host_functions.h"

#include "viewers.h"

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

// Who comes and goes is said unless nothing is to be said; and only of those that asked for a stream.
void sayOf(const std::string &text)
{
    if (hostFunctions.console != nullptr) {
        hostFunctions.console->note(text);
    }
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

// The whole name with its query is the player's; whether there is such a stream, the library looks itself.
int32_t rtmpViewerPlays(const RtmpViewer *viewer)
{
    const bool mayWatch = hostFunctions.token.empty() || hasToken(viewer->Stream, hostFunctions.token);
    sayOf(mayWatch ? asks(*viewer) : isRefused(*viewer));
    return mayWatch ? 0 : -1;
}

void rtmpViewerLeft(const RtmpViewer *viewer)
{
    if (viewer->Session != nullptr) {
        sayOf(leaves(*viewer));
    }
}

struct ssl_st *rtmpTlsAccept(RtmpServer *, int fd, const char *address)
{
    std::string why = "there is no certificate";
    struct ssl_st *tls = hostFunctions.tls != nullptr ? hostFunctions.tls->accept(fd, why) : nullptr;
    if (tls == nullptr) {
        sayOf("viewer over TLS " + std::string(address) + " fails in its handshake: " + why);
    }
    return tls;
}

int32_t rtmpTlsOwesRenewal(struct ssl_st *tls)
{
    return TlsContext::owesRenewal(tls);
}

void rtmpTlsEnd(struct ssl_st *tls)
{
    TlsContext::end(tls);
}

void rtmpKeyFrameWanted(RtmpSession *session)
{
    hostFunctions.keyFrameWanted = true;
    writeLine("STATUS: %s: a player waits for a key frame\n", session->Name);
}
}
