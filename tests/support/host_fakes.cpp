#include "support/host_fakes.h"

#include "support/produced.h"

#include <cstdarg>
#include <cstdio>

HostFakes &HostFakes::get()
{
    static HostFakes &fakes = *new HostFakes; // outlives threads that end with the process
    return fakes;
}

void HostFakes::reset()
{
    captionHandle = 0xCC;
    findCaptionPlace = nullptr;
    getSei = nullptr;
    increaseNalSize = nullptr;
    captionMessage = nullptr;
    status = nullptr;
    sslRead = nullptr;
    sslWrite = nullptr;
    viewer = nullptr;
    tlsAccept = nullptr;
    tlsEnd = nullptr;
    statusReports.clear();
    bitrates.clear();
    keyFramesWanted.clear();
    syslog.clear();
    closedCaptionHandles.clear();
    publishStates.clear();
    recordActions.clear();
    tlsErrors.clear();
    viewers.clear();
}

namespace {

int32_t Answer(const char *what, const RtmpViewer *viewer)
{
    HostFakes &fakes = HostFakes::get();
    const ViewerCall call = {what, *viewer, viewer->App, viewer->TcUrl, viewer->Stream, pthread_self()};
    fakes.viewers.add(call);
    return fakes.viewer ? fakes.viewer(call) : 0;
}

} // namespace

extern "C" {

void KelvoraSyslog(const char *tag, const char *format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    produced::Note("host", tag);
    produced::Note("host", line);
    HostFakes::get().syslog.add(std::string(tag) + "|" + line);
}

uint64_t cc_gen_init(void)
{
    return HostFakes::get().captionHandle;
}

void cc_gen_close(uint64_t handle)
{
    HostFakes::get().closedCaptionHandles.add(handle);
}

int32_t find_cc_insertion_place_in_h264_of_qbox(const uint8_t *data, int32_t length, int32_t *nalSizePos)
{
    HostFakes &fakes = HostFakes::get();
    return fakes.findCaptionPlace ? fakes.findCaptionPlace(data, length, nalSizePos) : -1;
}

void get_sei_packet(uint64_t handle, uint8_t **sei, int32_t *seiLen, uint32_t timestampDelta)
{
    HostFakes &fakes = HostFakes::get();
    *sei = nullptr;
    *seiLen = 0;
    if (fakes.getSei) {
        fakes.getSei(handle, sei, seiLen, timestampDelta);
    }
}

void increase_nal_size(uint8_t *frame, int32_t nalSizePos, int32_t bytes)
{
    HostFakes &fakes = HostFakes::get();
    if (fakes.increaseNalSize) {
        fakes.increaseNalSize(frame, nalSizePos, bytes);
    }
}

RtmpSendPkt *PublishGeneratePeriodicRTMPMsg(RtmpClient *client, uint32_t kind, uint64_t timeStampDelta)
{
    HostFakes &fakes = HostFakes::get();
    return fakes.captionMessage ? fakes.captionMessage(client, kind, timeStampDelta) : nullptr;
}

void publishChangeState(RtmpClient *client, int32_t state)
{
    HostFakes::get().publishStates.add({client, state});
}

void PublishUstreamRecord(RtmpClient *client, const char *action)
{
    produced::Note("host", action);
    HostFakes::get().recordActions.add({client, action});
}

void rtmpStatusMessage(void *hostContext, const char *key, const char *value, const char *description)
{
    for (const char *text : {key, value, description}) {
        produced::Note("host", text);
    }
    HostFakes &fakes = HostFakes::get();
    fakes.statusReports.add({hostContext, key, value, description});
    if (fakes.status) {
        fakes.status();
    }
}

void rtmpSendZandBitrate(void *hostContext, int32_t bitrate)
{
    HostFakes::get().bitrates.add({hostContext, bitrate});
}

void rtmpKeyFrameWanted(RtmpSession *session)
{
    HostFakes::get().keyFramesWanted.add(session);
}

void TLS_print_error(RtmpLogger *, void *tls, int result)
{
    HostFakes::get().tlsErrors.add({tls, result});
}

struct ssl_st *rtmpTlsAccept(RtmpServer *, int fd, const char *address)
{
    HostFakes &fakes = HostFakes::get();
    return fakes.tlsAccept ? fakes.tlsAccept(fd, address) : nullptr;
}

void rtmpTlsEnd(struct ssl_st *tls)
{
    HostFakes &fakes = HostFakes::get();
    if (fakes.tlsEnd) {
        fakes.tlsEnd(tls);
    }
}

int32_t rtmpViewerAccepted(const RtmpViewer *viewer)
{
    return Answer("accepted", viewer);
}

int32_t rtmpViewerConnects(const RtmpViewer *viewer)
{
    return Answer("connects", viewer);
}

int32_t rtmpViewerPlays(const RtmpViewer *viewer)
{
    return Answer("plays", viewer);
}

void rtmpViewerLeft(const RtmpViewer *viewer)
{
    (void)Answer("left", viewer);
}
}
