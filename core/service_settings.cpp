// Putting a server on the steady road.
#include "rtmpcast/service.h"

#include "core/service_end.h"
#include "core/tls_listener.h"
#include "net/atomic.h"
#include "net/limits.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "steady/keeper.h"

#include <sys/socket.h>

namespace {

uint32_t OrDefault(uint32_t value, uint32_t standard)
{
    return value != 0 ? value : standard;
}

RtmpServiceLimits WithDefaults(const RtmpServiceLimits *given)
{
    RtmpServiceLimits limits = given != nullptr ? *given : RtmpServiceLimits{};
    limits.RingMilliseconds = OrDefault(limits.RingMilliseconds, kRingMilliseconds);
    limits.RingBytes = OrDefault(limits.RingBytes, kRingBytes);
    limits.StallMilliseconds = OrDefault(limits.StallMilliseconds, kStallMilliseconds);
    limits.ReplyBytes = OrDefault(limits.ReplyBytes, kReplyBytes);
    limits.SoundWaitMilliseconds = OrDefault(limits.SoundWaitMilliseconds, kSoundWaitMilliseconds);
    limits.MostClients = OrDefault(limits.MostClients, kMostClients);
    limits.MostClientsPerAddress = OrDefault(limits.MostClientsPerAddress, kMostClientsPerAddress);
    limits.HandshakeMilliseconds = OrDefault(limits.HandshakeMilliseconds, kHandshakeMilliseconds);
    limits.PlayMilliseconds = OrDefault(limits.PlayMilliseconds, kPlayMilliseconds);
    limits.AssemblyBytes = OrDefault(limits.AssemblyBytes, kAssemblyBytes);
    limits.ChunkStreams = OrDefault(limits.ChunkStreams, kChunkStreams);
    limits.TunnelMilliseconds = OrDefault(limits.TunnelMilliseconds, kTunnelMilliseconds);
    return limits;
}

SteadyService *NewService(RtmpServer *server, const RtmpServiceLimits *limits)
{
    SteadyService *service = NewRecord<SteadyService>();
    if (service == nullptr) {
        return nullptr;
    }
    service->Server = server;
    service->Limits = WithDefaults(limits);
    service->Lock = kFreshMutex;
    (void)RtmpConditionInit(&service->LineLeft); // of valid attributes: cannot fail
    service->Epoll = -1;
    service->Wake = -1;
    service->TlsSocket = -1;
    return service;
}

// A burst of players finds room: of a socket that listens already this is a longer queue.
void LengthenQueue(int fd)
{
    if (fd >= 0) {
        (void)listen(fd, SOMAXCONN); // the queue of before still serves
    }
}

} // namespace

int32_t RtmpServiceSettings(RtmpServer *server, const RtmpServiceLimits *limits)
{
    if (server == nullptr || server->Service != nullptr || LoadShared(&server->LiveSessionCount) > 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Invalid input arguments\n", __func__);
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    SteadyService *service = NewService(server, limits);
    if (service == nullptr) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to the service\n",
                     __func__);
        return RTMP_ERR_MEMORY;
    }
    if (StartKeeper(service) != 0) {
        RtmpLogPrint(LoggerOf(server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot create the keeper's thread, or open its descriptors\n", __func__);
        free(service);
        return RTMP_ERR_THREAD_CREATE;
    }
    const int result = OpenTlsListener(service);
    if (result != 0) {
        StopKeeper(service);
        free(service);
        return result; // logged
    }
    LengthenQueue(LoadShared(&server->RtmpSocket));
    LengthenQueue(LoadShared(&server->RtmptSocket));
    StoreShared(&server->Service, service);
    return 0;
}

void EndConnections(RtmpServer *server)
{
    if (server->Service != nullptr) {
        CloseTlsListener(server->Service);
        EndLines(server->Service);
    }
}

void EndService(RtmpServer *server)
{
    SteadyService *service = server->Service;
    if (service == nullptr) {
        return;
    }
    StopKeeper(service);
    StoreShared(&server->Service, static_cast<SteadyService *>(nullptr));
    free(service);
}
