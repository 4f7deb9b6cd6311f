#include "state/viewers.h"

#include "net/atomic.h"
#include "net/client_state.h"
#include "net/log.h"
#include "net/record.h"
#include "net/scope.h"
#include "rtmpcast/host.h"
#include "steady/figures.h"

#include <string.h>

namespace {

constexpr uint16_t kTextMost = 1023;

bool IsAnnounced(const RtmpClient *client)
{
    return client->Line != nullptr && client->Line->IsAnnounced != 0;
}

const char *TextOrNone(const char *text)
{
    return text != nullptr ? text : "";
}

RtmpViewer ViewerOf(RtmpClient *client)
{
    RtmpViewer viewer = {};
    viewer.Server = client->Server;
    viewer.Client = client;
    viewer.Session = client->Session;
    viewer.App = TextOrNone(client->Line != nullptr ? client->Line->App : nullptr);
    viewer.TcUrl = TextOrNone(client->Line != nullptr ? client->Line->TcUrl : nullptr);
    viewer.Stream = TextOrNone(client->StreamName);
    FillClientFigures(client, &viewer.Figures);
    return viewer;
}

// 0; -1: the host refuses.
int Ask(int32_t (*host)(const RtmpViewer *), RtmpClient *client)
{
    const RtmpViewer viewer = ViewerOf(client);
    WITHOUT_CANCEL int restore = ForbidCancel();
    return host(&viewer) == 0 ? 0 : -1;
}

// KeepText keeps the first string of that name, in place of what was kept before. -1: no memory.
int KeepText(const AmfObject *properties, const char *name, char **text)
{
    const AmfObjProperty *found = properties->first;
    while (found != nullptr && (found->type != AMF_STRING || found->name.len != strlen(name) ||
                                memcmp(found->name.data, name, found->name.len) != 0)) {
        found = found->next;
    }
    const AmfString value = found != nullptr ? found->ObjVal.StrObj : AmfString{};
    char *copy = CopyOfText(value.data, value.len < kTextMost ? value.len : kTextMost);
    if (copy == nullptr) {
        return -1;
    }
    free(*text);
    *text = copy;
    return 0;
}

} // namespace

int AdmitViewer(RtmpClient *client)
{
    if (client->Line == nullptr || client->Line->OwnsSocket == 0) {
        return 0;
    }
    client->Line->IsAnnounced = 1;
    if (Ask(rtmpViewerAccepted, client) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: The host refuses %s\n", __func__,
                     client->ClientIP);
        return -1;
    }
    return 0;
}

int AdmitConnect(RtmpClient *client, const AmfObject *properties)
{
    if (!IsAnnounced(client) || ClientStateOf(client) != CLIENT_STATE_HANDSHAKE_DONE) {
        return 0;
    }
    if (KeepText(properties, "app", &client->Line->App) != 0 ||
        KeepText(properties, "tcUrl", &client->Line->TcUrl) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR,
                     "ERROR: %s: Cannot allocate memory to the viewer's texts\n", __func__);
        return -1;
    }
    if (Ask(rtmpViewerConnects, client) != 0) {
        RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO,
                     "INFO: %s: The host refuses the connect of %s\n", __func__, client->ClientIP);
        return -1;
    }
    return 0;
}

int AdmitPlay(RtmpClient *client)
{
    // Also about one that was accepted before the server took the steady road: nobody plays unasked.
    if (LoadShared(&client->Server->Service) == nullptr || Ask(rtmpViewerPlays, client) == 0) {
        return 0;
    }
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_INFO, "INFO: %s: The host refuses the play of %s\n",
                 __func__, client->ClientIP);
    return -1;
}

void ViewerLeft(RtmpClient *client)
{
    if (!IsAnnounced(client)) {
        return;
    }
    client->Line->IsAnnounced = 0;
    const RtmpViewer viewer = ViewerOf(client);
    WITHOUT_CANCEL int restore = ForbidCancel();
    rtmpViewerLeft(&viewer);
}
