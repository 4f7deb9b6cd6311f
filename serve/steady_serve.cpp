#include "serve/steady_serve.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/scope.h"
#include "rtmpcast/host.h"
#include "serve/serve.h"
#include "state/admission.h"
#include "state/viewers.h"
#include "steady/line_end.h"

#include <arpa/inet.h>

namespace {

constexpr const char *kServeSteadily = "ServeSteadily";

// The host does TLS's handshake, under the time limit: the keeper ends a socket whose time is up.
struct ssl_st *AskForHandle(RtmpClient *client)
{
    WITHOUT_CANCEL int restore = ForbidCancel();
    return rtmpTlsAccept(client->Server, client->Socket, client->ClientIP);
}

int BeginTls(RtmpClient *client)
{
    struct ssl_st *handle = AskForHandle(client);
    if (handle == nullptr) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: No TLS with %s\n", kServeSteadily,
                     client->ClientIP);
        return -1;
    }
    UNLOCK_AT_EXIT RtmpMutex *held = HoldForWriting(client);
    client->Tls = handle;
    return 0;
}

int AdmitAndSecure(RtmpClient *client)
{
    if (AdmitViewer(client) != 0) {
        EndLine(client->Line, STEADY_END_REFUSED);
        return -1;
    }
    return client->Line->SpeaksTls != 0 ? BeginTls(client) : 0;
}

// Whoever has shaken hands has so long until "play"; whoever has played may pause as long as it likes.
void MoveDeadline(SteadyLine *line, uint32_t before)
{
    const uint32_t state = ClientStateOf(line->Client);
    if (before == CLIENT_STATE_INIT && state == CLIENT_STATE_HANDSHAKE_DONE) {
        SetDeadline(line, STEADY_WAITS_FOR_PLAY, line->Service->Limits.PlayMilliseconds);
    } else if (before != state && state == CLIENT_STATE_PLAY_DONE) {
        SetDeadline(line, STEADY_WAITS_FOR_NOTHING, 0);
    }
}

void ServeRounds(RtmpClient *client)
{
    enum Round round;
    do {
        const uint32_t before = ClientStateOf(client);
        round = ServeRound(client);
        MoveDeadline(client->Line, before);
    } while (round == ROUND_AGAIN && LoadShared(&client->Line->End) == STEADY_GOES_ON);
}

} // namespace

void *ServeSteadily(void *argument)
{
    RtmpClient *client = static_cast<RtmpClient *>(argument);
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: %s, port %u, is connected\n",
                 kServeSteadily, client->ClientIP, ntohs(client->Port));
    if (AdmitAndSecure(client) == 0) {
        ServeRounds(client);
    }
    LeaveSteadily(client);
    return nullptr;
}
