// What a host is told of its sessions and their players on the steady road.
#include "net/log.h"
#include "rtmpcast/service.h"
#include "steady/figures.h"

namespace {

// StreamOf returns the session's stream; null (logged): there is none to be asked for.
SteadyStream *StreamOf(const RtmpSession *session, bool hasRoom, const char *who)
{
    if (session == nullptr || session->Stream == nullptr || !hasRoom) {
        RtmpLogPrint(session != nullptr ? LoggerOf(session->Server) : nullptr, RTMP_LOG_ERROR,
                     "ERROR: %s: Invalid input arguments\n", who);
        return nullptr;
    }
    return session->Stream;
}

} // namespace

int32_t RtmpSessionStatistics(RtmpSession *session, RtmpSessionFigures *figures)
{
    SteadyStream *stream = StreamOf(session, figures != nullptr, __func__);
    if (stream == nullptr) {
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    FillSessionFigures(stream, figures);
    return 0;
}

int32_t RtmpClientStatistics(RtmpSession *session, RtmpClientFigures *clients, uint32_t most)
{
    SteadyStream *stream = StreamOf(session, clients != nullptr || most == 0, __func__);
    if (stream == nullptr) {
        return RTMP_ERR_INVALID_ARGUMENT;
    }
    return static_cast<int32_t>(FillFiguresOfPlayers(stream, clients, most));
}
