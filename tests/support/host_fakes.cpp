#include "support/host_fakes.h"

#include <cstdarg>
#include <cstdio>

HostFakes &HostFakes::get()
{
    static HostFakes &fakes = *new HostFakes; // outlives threads that end with the process
    return fakes;
}

void HostFakes::reset()
{
    const std::lock_guard<std::mutex> held(mutex_);
    captionHandle = 0xCC;
    findCaptionPlace = nullptr;
    getSei = nullptr;
    increaseNalSize = nullptr;
    captionMessage = nullptr;
    status = nullptr;
    sslRead = nullptr;
    sslWrite = nullptr;
    status_.clear();
    bitrates_.clear();
    syslog_.clear();
    closed_.clear();
    states_.clear();
    actions_.clear();
    tlsErrors_.clear();
}

#define RECORD(unused, argument, vector)                                                                     \
    {                                                                                                        \
        const std::lock_guard<std::mutex> held(mutex_);                                                      \
        vector.push_back(argument);                                                                          \
    }
#define COPY(vector)                                                                                         \
    {                                                                                                        \
        const std::lock_guard<std::mutex> held(mutex_);                                                      \
        return vector;                                                                                       \
    }

using ClientState = std::pair<RtmpClient *, int32_t>;
using ClientAction = std::pair<RtmpClient *, std::string>;
using Bitrate = std::pair<void *, int32_t>;
using TlsError = std::pair<void *, int>;

void HostFakes::recordStatus(StatusReport report)
    RECORD(_, report, status_) void HostFakes::recordBitrate(void *context, int32_t bitrate)
        RECORD(_, Bitrate(context, bitrate), bitrates_) void HostFakes::recordSyslog(std::string line)
            RECORD(_, line, syslog_) void HostFakes::recordClosedCaption(uint64_t handle)
                RECORD(_, handle, closed_) void HostFakes::recordPublishState(RtmpClient *client,
                                                                              int32_t state)
                    RECORD(_, ClientState(client, state),
                           states_) void HostFakes::recordAction(RtmpClient *client, std::string action)
                        RECORD(_, ClientAction(client, action),
                               actions_) void HostFakes::recordTlsError(void *tls, int result)
                            RECORD(_, TlsError(tls, result), tlsErrors_)

                                std::vector<StatusReport> HostFakes::statusReports() const
    COPY(status_) std::vector<Bitrate> HostFakes::bitrates() const
    COPY(bitrates_) std::vector<std::string> HostFakes::syslog() const
    COPY(syslog_) std::vector<uint64_t> HostFakes::closedCaptionHandles() const
    COPY(closed_) std::vector<ClientState> HostFakes::publishStates() const
    COPY(states_) std::vector<ClientAction> HostFakes::recordActions() const
    COPY(actions_) std::vector<TlsError> HostFakes::tlsErrors() const COPY(tlsErrors_)

        extern "C"
{

    void KelvoraSyslog(const char *tag, const char *format, ...)
    {
        char line[1024];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(line, sizeof line, format, arguments);
        va_end(arguments);
        HostFakes::get().recordSyslog(std::string(tag) + "|" + line);
    }

    uint64_t cc_gen_init(void)
    {
        return HostFakes::get().captionHandle;
    }

    void cc_gen_close(uint64_t handle)
    {
        HostFakes::get().recordClosedCaption(handle);
    }

    int32_t find_cc_insertion_place_in_h264_of_qbox(const uint8_t *data, int32_t length, int32_t *nalSizePos)
    {
        HostFakes &fakes = HostFakes::get();
        return fakes.findCaptionPlace ? fakes.findCaptionPlace(data, length, nalSizePos) : -1;
    }

    void get_sei_packet(uint64_t handle, uint8_t * *sei, int32_t * seiLen, uint32_t timestampDelta)
    {
        HostFakes &fakes = HostFakes::get();
        *sei = nullptr;
        *seiLen = 0;
        if (fakes.getSei) {
            fakes.getSei(handle, sei, seiLen, timestampDelta);
        }
    }

    void increase_nal_size(uint8_t * frame, int32_t nalSizePos, int32_t bytes)
    {
        HostFakes &fakes = HostFakes::get();
        if (fakes.increaseNalSize) {
            fakes.increaseNalSize(frame, nalSizePos, bytes);
        }
    }

    RtmpSendPkt *PublishGeneratePeriodicRTMPMsg(RtmpClient * client, uint32_t kind, uint64_t timeStampDelta)
    {
        HostFakes &fakes = HostFakes::get();
        return fakes.captionMessage ? fakes.captionMessage(client, kind, timeStampDelta) : nullptr;
    }

    void publishChangeState(RtmpClient * client, int32_t state)
    {
        HostFakes::get().recordPublishState(client, state);
    }

    void PublishUstreamRecord(RtmpClient * client, const char *action)
    {
        HostFakes::get().recordAction(client, action);
    }

    void rtmpStatusMessage(void *hostContext, const char *key, const char *value, const char *description)
    {
        HostFakes &fakes = HostFakes::get();
        fakes.recordStatus({hostContext, key, value, description});
        if (fakes.status) {
            fakes.status();
        }
    }

    void rtmpSendZandBitrate(void *hostContext, int32_t bitrate)
    {
        HostFakes::get().recordBitrate(hostContext, bitrate);
    }

    void TLS_print_error(RtmpLogger *, void *tls, int result)
    {
        HostFakes::get().recordTlsError(tls, result);
    }
}
