#include "command/player_commands.h"

#include "amf/object.h"
#include "command/received_command.h"
#include "net/atomic.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/player_rules.h"
#include "net/record.h"
#include "net/refusal.h"
#include "net/scope.h"
#include "state/client_list.h"
#include "state/session_list.h"
#include "state/viewers.h"

#include <string.h>

namespace {

// Flags of audioCodecs and videoCodecs (RTMP 1.0, 7.2.1.1).
constexpr int32_t kAllAudioCodecs = 0x0FFF;
constexpr int32_t kAudioCodecAac = 0x0400;
constexpr int32_t kAllVideoCodecs = 0x00FF;
constexpr int32_t kVideoCodecH264 = 0x0080;

bool HasCodec(RtmpServer *server, AmfObjProperty *property, int32_t all, int32_t codec)
{
    const int32_t codecs = TruncateToInt32(GetAmfPropNumber(server, property));
    return codecs == all || (codecs & codec) != 0;
}

int CheckAppType(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (GetAmfPropType(command->Client->Server, property) != AMF_STRING) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid app value\n", command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

// KEPT: an application whose name does not contain "live" is refused. Required; changes who is refused.
int CheckApp(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (CheckAppType(command, property) != 0) {
        return RTMP_FAILED;
    }
    AmfString app;
    GetAmfPropString(command->Client->Server, property, &app);
    if (memmem(TextStart(&app), app.len, "live", strlen("live")) == nullptr) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Unsupported app value\n", command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckFlashVer(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (GetAmfPropType(command->Client->Server, property) != AMF_STRING) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid flashVer value\n", command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckTcUrl(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (GetAmfPropType(command->Client->Server, property) != AMF_STRING) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid tcUrl value\n", command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckFpad(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (GetAmfPropType(command->Client->Server, property) != AMF_BOOLEAN) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid fpad value\n", command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckAudioCodecsType(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (GetAmfPropType(command->Client->Server, property) != AMF_NUMBER) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid audioCodecs value\n",
                     command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckAudioCodecs(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (CheckAudioCodecsType(command, property) != 0) {
        return RTMP_FAILED;
    }
    if (!HasCodec(command->Client->Server, property, kAllAudioCodecs, kAudioCodecAac)) {
        // KEPT: this line and the one for H.264 have no line end. Required; changes a log line.
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Client does not support AAC audio",
                     command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckVideoCodecsType(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (GetAmfPropType(command->Client->Server, property) != AMF_NUMBER) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid videoCodecs value\n",
                     command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckVideoCodecs(const ReceivedCommand *command, AmfObjProperty *property)
{
    if (CheckVideoCodecsType(command, property) != 0) {
        return RTMP_FAILED;
    }
    if (!HasCodec(command->Client->Server, property, kAllVideoCodecs, kVideoCodecH264)) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Client does not support H.264 video",
                     command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

int CheckObjectEncoding(const ReceivedCommand *command, AmfObjProperty *property)
{
    RtmpServer *server = command->Client->Server;
    if (GetAmfPropType(server, property) != AMF_NUMBER) {
        // KEPT: the line names videoCodecs. Required; changes a log line.
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Invalid videoCodecs value\n",
                     command->Caller);
        return RTMP_FAILED;
    }
    const double encoding = GetAmfPropNumber(server, property);
    if (encoding < 0 || encoding > 0 || encoding != encoding) { // only AMF0, which is 0
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Unsupported objectEncoding method\n",
                     command->Caller);
        return RTMP_FAILED;
    }
    return 0;
}

struct ConnectKey {
    const char *Key;
    int (*Check)(const ReceivedCommand *command, AmfObjProperty *property); // null: nothing to check
};

// Tried in this order: the first key that the received one matches decides.
constexpr ConnectKey kConnectKeys[] = {
    {"app", CheckApp},
    {"flashVer", CheckFlashVer},
    {"swfUrl", nullptr},
    {"tcUrl", CheckTcUrl},
    {"fpad", CheckFpad},
    {"audioCodecs", CheckAudioCodecs},
    {"videoCodecs", CheckVideoCodecs},
    {"pageUrl", nullptr},
    {"objectEncoding", CheckObjectEncoding},
};
constexpr uint32_t kConnectKeyCount = sizeof kConnectKeys / sizeof kConnectKeys[0];
static_assert(kConnectKeyCount == 9);

// The same keys where any application, and players of any codecs, are welcome. Codecs are checked by their
// type alone: what a player cannot decode it says by itself.
constexpr ConnectKey kOpenConnectKeys[] = {
    {"app", CheckAppType},
    {"flashVer", CheckFlashVer},
    {"swfUrl", nullptr},
    {"tcUrl", CheckTcUrl},
    {"fpad", nullptr},
    {"audioCodecs", CheckAudioCodecsType},
    {"videoCodecs", CheckVideoCodecsType},
    {"pageUrl", nullptr},
    {"objectEncoding", CheckObjectEncoding},
};
static_assert(sizeof kOpenConnectKeys == sizeof kConnectKeys, "one row for each key, as above");

// FindConnectKey returns the row that decides about a received key, or null when none does.
const ConnectKey *FindConnectKey(const RtmpClient *client, const AmfString *name)
{
    const ConnectKey *keys = Allows(client, RULE_CONNECT_VALUES) ? kOpenConnectKeys : kConnectKeys;
    bool (*matches)(const AmfString *, const char *) =
        Allows(client, RULE_CONNECT_KEYS) ? TextEquals : KeyMatches;
    for (uint32_t i = 0; i < kConnectKeyCount; i++) {
        if (matches(name, keys[i].Key)) {
            return &keys[i];
        }
    }
    return nullptr;
}

int CheckConnectProperty(const ReceivedCommand *command, AmfObjProperty *property)
{
    AmfString name;
    GetAmfPropName(command->Client->Server, property, &name);
    const ConnectKey *key = FindConnectKey(command->Client, &name);
    if (key == nullptr || key->Check == nullptr || key->Check(command, property) == 0) {
        return 0;
    }
    NoteRefusal(command->Pkt, REFUSED_CONNECT_PROPERTY, &name);
    return RTMP_FAILED;
}

// The serve thread is the only writer of the name, and frames are sent without it.
int KeepStreamName(RtmpClient *client, const AmfString *name)
{
    char *copy = CopyOfText(TextStart(name), name->len);
    if (copy == nullptr) {
        return RTMP_FAILED;
    }
    char *previous = client->StreamName;
    StoreShared(&client->StreamName, copy);
    free(previous);
    return 0;
}

// 0; RTMP_ERR_STREAM_NOT_FOUND; -1. All failures are logged.
int PlayStream(const ReceivedCommand *command, const AmfString *name)
{
    if (KeepStreamName(command->Client, name) != 0) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot allocate memory to amfObject\n",
                     command->Caller);
        return RTMP_FAILED;
    }
    if (AdmitPlay(command->Client) != 0) {
        NoteRefusal(command->Pkt, REFUSED_BY_HOST, nullptr);
        return RTMP_ERR_STREAM_NOT_FOUND; // who may not watch does not learn what there is
    }
    switch (JoinStream(command->Client, command->Client->StreamName)) {
    case 0:
        return 0;
    case JOIN_NOT_FOUND:
        NoteRefusal(command->Pkt, REFUSED_STREAM, name);
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Stream name not found\n", command->Caller);
        return RTMP_ERR_STREAM_NOT_FOUND;
    default:
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Adding client in client list failed\n",
                     command->Caller);
        return RTMP_FAILED;
    }
}

// -1: the lock failed.
int SetPauseFlag(RtmpClient *client, uint8_t flag)
{
    UNLOCK_AT_EXIT RtmpMutex *held = nullptr;
    if (LockClientsOf(client, &held) != 0) {
        return RTMP_FAILED;
    }
    StoreShared(&client->PauseFlag, flag);
    return UnlockClients(&held);
}

} // namespace

int HandleConnect(ReceivedCommand *command)
{
    for (AmfObjProperty *property = command->Properties.first; property != nullptr;
         property = property->next) {
        if (CheckConnectProperty(command, property) != 0) {
            return RTMP_FAILED;
        }
    }
    if (AdmitConnect(command->Client, &command->Properties) != 0) {
        NoteRefusal(command->Pkt, REFUSED_BY_HOST, nullptr);
        return RTMP_FAILED;
    }
    return 0;
}

int HandlePlay(ReceivedCommand *command)
{
    AmfString name;
    int result = 0;
    if (TakeString(command, &name)) {
        result = PlayStream(command, &name);
    }
    if (result == RTMP_FAILED) {
        return result;
    }
    // A live stream has neither a start nor an end nor a playlist to reset.
    (void)TakeArgument(command, AMF_NUMBER);  // start
    (void)TakeArgument(command, AMF_NUMBER);  // duration
    (void)TakeArgument(command, AMF_BOOLEAN); // reset
    return result;
}

int HandlePublish(ReceivedCommand *command)
{
    NoteRefusal(command->Pkt, REFUSED_PUBLISH, &command->Name);
    RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Publishing is not served\n", command->Caller);
    return RTMP_FAILED;
}

int HandlePause(ReceivedCommand *command)
{
    AmfObjProperty *pause = TakeArgument(command, AMF_BOOLEAN);
    if (pause == nullptr) {
        return 0;
    }
    // Booleans are decoded inverted: 0 is a wire true, the request to pause.
    if (SetPauseFlag(command->Client, GetAmfPropBoolean(command->Client->Server, pause)) != 0) {
        RtmpLogPrint(command->Logger, RTMP_LOG_ERROR, "ERROR: %s: Cannot lock client list\n",
                     command->Caller);
        return RTMP_FAILED;
    }
    (void)TakeArgument(command, AMF_NUMBER); // stream time in milliseconds: a live stream has no position
    return 0;
}
