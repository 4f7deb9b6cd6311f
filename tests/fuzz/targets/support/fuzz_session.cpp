#include "support/fuzz_session.h"

#include "rtmpcast/player.h"
#include "rtmpcast/service.h"
#include "support/host_fakes.h"
#include "support/session_rig.h"

#include <cstdlib>

namespace {

RtmpServer *MakeFuzzedServer(bool isSteady)
{
    int err = 0;
    RtmpServer *server = RtmpServerCreate(QuietLogger(), "ANY", 0, 0, 0, 128, &err);
    if (server == nullptr || (isSteady && RtmpServiceSettings(server, nullptr) != 0)) {
        abort();
    }
    return server;
}

RtmpSession *MakeFuzzedSession(RtmpServer *server, FuzzedSession kind)
{
    if (kind == FUZZED_NONE) {
        return nullptr;
    }
    int err = 0;
    RtmpSession *session = RtmpSessionCreate(server, kFuzzedName, &err);
    if (session == nullptr) {
        abort();
    }
    if (kind == FUZZED_WITH_SENDER) {
        RtmpSenderSettings(session, 0, 0, 0, 1, 255, 5, 10, 10);
    }
    if (kind != FUZZED_BARE && AddRigMedia(session) != 0) {
        abort();
    }
    return session;
}

} // namespace

RtmpServer *FuzzedServer(bool isSteady, int32_t chunkSize, uint32_t playerFlags)
{
    static RtmpServer *const exact = MakeFuzzedServer(false);
    static RtmpServer *const steady = MakeFuzzedServer(true);
    RtmpServer *server = isSteady ? steady : exact;
    server->ChunkSize = static_cast<uint32_t>(chunkSize);
    RtmpPlayerSettings(server, playerFlags);
    return server;
}

FuzzedStage::FuzzedStage(RtmpServer *on, FuzzedSession kind)
    : server(on), session(MakeFuzzedSession(on, kind))
{
}

FuzzedStage::~FuzzedStage()
{
    if (session != nullptr && RtmpSessionDestroy(session) != 0) {
        abort();
    }
    HostFakes::get().reset();
}

void SendFuzzedFrame(FuzzPeer *peer, RtmpSession *session, uint32_t number)
{
    static const uint8_t picture[300] = {0, 0, 1, 40, 0x65, 0x88};
    static const uint8_t sound[40] = {0x21};
    const bool isSound = number % 3 == 2;
    peer->written();
    (void)RtmpSendData(session, isSound ? sound : picture, isSound ? sizeof sound : sizeof picture, -1, 0,
                       1000 + number * 40, isSound ? RTMP_FRAME_AUDIO : RTMP_FRAME_VIDEO);
}
