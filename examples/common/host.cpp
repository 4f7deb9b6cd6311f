#include "host.h"

#include "session_setup.h"

#include <cstring>

#include <sys/socket.h>

namespace {

std::string whyNoServer(int code, const Options &options)
{
    const std::string ports =
        "port " + std::to_string(options.rtmpPort) +
        (options.rtmptPort != 0 ? " or " + std::to_string(options.rtmptPort) : std::string());
    switch (code) {
    case RTMP_ERR_IP_ADDRESS:
        return "no network interface '" + options.interfaceName + "' with an IPv4 address";
    case RTMP_ERR_BIND:
        return ports + " is taken, or needs privileges";
    case RTMP_ERR_LISTEN:
        return "cannot listen on " + ports;
    default:
        return "the server cannot be made (code " + std::to_string(code) + ")";
    }
}

std::string whyNotSteady(int code, const Options &options)
{
    switch (code) {
    case RTMP_ERR_BIND:
    case RTMP_ERR_LISTEN:
        return "port " + std::to_string(options.rtmpsPort) + " is taken, or needs privileges";
    default:
        return "the steady road cannot be taken (code " + std::to_string(code) + ")";
    }
}

} // namespace

Host::Host(const Options &options, const MediaDescription &media, Console &console, Counters &counters,
           SessionWatch &watch, CaptionSource *captions)
    : console_(console), logger_{writeLine, this}, counters_(counters), captions_(captions), watch_(watch)
{
    if (options.zeroCopy) {
        memory_ = std::make_unique<MemoryFile>(size_t{options.zeroCopyMib} << 20);
    }
    int code = 0;
    server_ =
        RtmpServerCreate(&logger_, options.interfaceName.c_str(), static_cast<uint16_t>(options.rtmpPort),
                         static_cast<uint16_t>(options.rtmptPort), static_cast<uint8_t>(options.dscp),
                         static_cast<int32_t>(options.chunkSize), &code);
    if (server_ == nullptr) {
        throw HostError(whyNoServer(code, options));
    }
    try {
        prepareServer(options);
        for (const std::string &name : options.sessions) {
            addSession(name, options, media);
        }
    } catch (const HostError &) {
        destroyAll();
        throw;
    }
}

// Whoever connects before the sessions are there finds no stream.
void Host::prepareServer(const Options &options)
{
    (void)RtmpPlayerSettings(server_, options.players); // of a server: nothing fails
    if (options.sendBuffer != 0 && options.rtmpPort != 0) {
        setSendBuffer(options.sendBuffer);
    }
    if (!options.exact) {
        takeSteadyRoad(options);
    }
}

void Host::takeSteadyRoad(const Options &options)
{
    RtmpServiceLimits limits = {}; // the defaults
    limits.RingMilliseconds = options.service.ringMilliseconds;
    limits.RingBytes = options.service.ringBytes;
    limits.StallMilliseconds = options.service.stallMilliseconds;
    limits.TlsPort = static_cast<uint16_t>(options.rtmpsPort);
    const int code = RtmpServiceSettings(server_, &limits);
    if (code != RTMP_OK) {
        throw HostError(whyNotSteady(code, options));
    }
}

Host::~Host()
{
    destroyAll();
}

std::vector<std::string> traceDirectories(const Options &options)
{
    std::vector<std::string> directories(options.sessions.size(), options.trace.directory);
    if (directories.size() > 1 && !options.trace.directory.empty()) {
        for (size_t i = 0; i < directories.size(); ++i) {
            directories[i].append("/").append(std::to_string(i + 1));
        }
    }
    return directories;
}

// The library tells of a flush, and of a sender that has ended, in its log alone.
void Host::writeLine(void *host, uint8_t level, const char *format, va_list arguments)
{
    Host &self = *static_cast<Host *>(host);
    if (strstr(format, "Flushing Video Buffer") != nullptr) {
        ++self.counters_.flushes;
    }
    if (strstr(format, "====>Sending message to connected clients failed") != nullptr) {
        self.senderEnded_ = true;
    }
    self.console_.lineOfTheLibrary(level, format, arguments);
}

// Accepted connections inherit it from the listening socket. The kernel doubles the figure, for its own use.
void Host::setSendBuffer(uint32_t kib)
{
    const int bytes = static_cast<int>(kib) * 1024;
    if (setsockopt(server_->RtmpSocket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) != 0) {
        console_.warn("--send-buffer: the kernel refuses it");
    }
}

void Host::addSession(const std::string &name, const Options &options, const MediaDescription &media)
{
    int code = 0;
    RtmpSession *session = RtmpSessionCreate(server_, name.c_str(), &code);
    if (session == nullptr) {
        throw HostError("session '" + name + "' cannot be made (code " + std::to_string(code) + ")");
    }
    const std::string traceDirectory = traceDirectories(options)[sessions_.size()];
    sessions_.push_back(session);
    configureSession(session, options, traceDirectory, captions_);
    addMedia(session, options, media);
    if (!options.exact) {
        watch_.add(name, session);
    }
}

void Host::send(const Frame &frame, uint64_t timestamp)
{
    const uint8_t *data = memory_ ? memory_->place(frame.data) : frame.data.data();
    const int32_t file = memory_ ? memory_->descriptor() : 0;
    const uint64_t base = memory_ ? memory_->base() : 0;
    const int64_t type = frame.type == MediaType::Video ? RTMP_FRAME_VIDEO : RTMP_FRAME_AUDIO;
    int32_t viewers = 0;
    reopenSenders();
    if (captions_ != nullptr && frame.type == MediaType::Video) {
        captions_->pictureAt(timestamp);
    }
    for (RtmpSession *session : sessions_) {
        const int32_t status =
            RtmpSendData(session, data, static_cast<int32_t>(frame.data.size()), file, base, timestamp, type);
        count(status, frame.data.size());
        if (captions_ != nullptr && status == RTMP_ERR_NO_CLIENT) {
            CaptionSource::pictureWasUnwatched(session);
        }
        viewers += __atomic_load_n(&session->ClientCount, __ATOMIC_RELAXED);
    }
    counters_.viewers = viewers;
}

// One player that could not be written to ends its session's sender thread for all. Starting afresh before
// the next frame keeps the others watching; which session it was, the log does not say.
void Host::reopenSenders()
{
    if (!senderEnded_.exchange(false)) {
        return;
    }
    for (RtmpSession *session : sessions_) {
        (void)RtmpThreadedQueueReset(session); // always 0
    }
}

void Host::count(int32_t status, size_t bytes)
{
    if (status == RTMP_OK) {
        ++counters_.sent;
        counters_.bytes += bytes;
    } else if (status == RTMP_ERR_NO_CLIENT) {
        ++counters_.unwatched;
    } else {
        ++counters_.dropped; // why is in the library's log
    }
}

void Host::destroyAll()
{
    watch_.clear();
    for (RtmpSession *session : sessions_) {
        const int code = RtmpSessionDestroy(session);
        if (code != RTMP_OK) {
            console_.warn("a session did not end (code " + std::to_string(code) + ")");
        }
    }
    sessions_.clear();
    const int code = RtmpServerDestroy(server_);
    if (code != RTMP_OK) {
        console_.warn("the server did not end (code " + std::to_string(code) + ")");
    }
}
