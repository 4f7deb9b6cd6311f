// A publisher before a hostile service: everything that the service sends is the input, from the first byte,
// behind a handshake, or behind the whole of a publishing dialogue. The first two bytes choose:
//
//     steady road:1  session:2  the service has answered so far:3  signed:1  TLS:1
//     pieces:3  frames:2  stopped after so many reads:3
//
// dictionary: rtmp
// max_len: 8192
#include "rtmpcast/player.h"
#include "rtmpcast/publish_client.h"
#include "support/chunk_check.h"
#include "support/chunk_mutator.h"
#include "support/fuzz_session.h"
#include "support/fuzz_tls.h"
#include "support/host_fakes.h"
#include "support/scripted_peer.h"
#include "support/wire_replies.h"

#include <cstdlib>
#include <cstring>

namespace {

enum AnsweredSoFar {
    ANSWERED_NOTHING,
    ANSWERED_HANDSHAKE,
    ANSWERED_CONNECT,
    ANSWERED_CREATE_STREAM,
    ANSWERED_PUBLISH,
    ANSWERED_STEP_BY_STEP // the handshake, and the host asks for each step itself
};

struct ServiceChoice {
    bool isSteady;
    FuzzedSession session;
    AnsweredSoFar answered;
    uint8_t isSigned;
    bool isOverTls;
    size_t piece;
    uint32_t frames;
    uint32_t stopAfter; // 0: never
};

ServiceChoice TakeServiceChoice(FuzzInput *input)
{
    static const size_t pieces[] = {0, 1, 3, 11, 64, 128, 1000, 3073};
    const uint32_t first = input->byte();
    const uint32_t second = input->byte();
    const uint32_t answered = first >> 3 & 7;
    return {(first & 1) != 0,
            static_cast<FuzzedSession>(first >> 1 & 3),
            static_cast<AnsweredSoFar>(std::min<uint32_t>(answered, ANSWERED_STEP_BY_STEP)),
            static_cast<uint8_t>(first >> 6 & 1),
            (first & 128) != 0,
            pieces[second & 7],
            second >> 3 & 3,
            second >> 5};
}

// What a good service sends by then. Transactions are counted from 1: connect, releaseStream, FCPublish,
// createStream.
const Bytes &AnswersOf(AnsweredSoFar answered)
{
    using namespace amf0;
    static const Bytes handshake = Bytes{3} + Bytes(1536, 1) + Bytes(1536, 2);
    static const Bytes connect =
        handshake +
        wire::Chunks({.payload = Values({String("_result"), Number(1), Null(),
                                         Object({{"level", String("status")},
                                                 {"code", String("NetConnection.Connect.Success")}})})
                                     .bytes});
    static const Bytes created =
        connect + wire::Chunks({.payload = Values({String("_result"), Number(4), Null(), Number(1)}).bytes});
    static const Bytes published =
        created +
        wire::Chunks({.payload = wire::Status("status", "NetStream.Publish.Start", "on"), .stream = 1});
    static const Bytes nothing;
    static const Bytes *const all[] = {&nothing, &handshake, &connect, &created, &published, &handshake};
    return *all[answered];
}

void PublishStepByStep(RtmpPublisher *publisher)
{
    int32_t result = RtmpPublisherHandshake(publisher);
    for (int command = RTMP_PUBLISHER_CONNECT; result == 0 && command <= RTMP_PUBLISHER_DELETE_STREAM;
         command++) {
        double transaction = 0;
        result = RtmpPublisherSend(publisher, static_cast<RtmpPublisherCommand>(command), &transaction);
        if (result == 0) {
            result = RtmpPublisherAwait(publisher, transaction);
        }
        if (result == RTMP_ERR_REFUSED) {
            result = 0; // the next is tried all the same
        }
    }
}

void Publish(RtmpPublisher *publisher, RtmpSession *session, AnsweredSoFar answered)
{
    if (answered == ANSWERED_STEP_BY_STEP) {
        PublishStepByStep(publisher);
    } else if (session != nullptr && RtmpPublisherStart(publisher, session) == 0) {
        (void)RtmpPublisherSendMetaData(publisher);
        (void)RtmpPublisherServe(publisher);
    }
    const PublishCtx *answers = RtmpPublisherAnswers(publisher);
    for (const char *text : {answers->StatusLevel, answers->StatusCode, answers->StatusDescription,
                             answers->ErrorCode, answers->ErrorDescription}) {
        if (strlen(text) >= 1024) {
            abort();
        }
    }
}

RtmpPublisher *MakePublisher(RtmpServer *server, int socket, void *tls, uint8_t isSigned)
{
    const RtmpPublisherTarget target = {
        "live", "rtmp://service.example/live", "key", nullptr, "127.0.0.1", 5000, isSigned};
    int err = 0;
    RtmpPublisher *publisher = RtmpPublisherCreate(server, socket, tls, &target, &err);
    if (publisher == nullptr) {
        abort();
    }
    return publisher;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput input(data, size);
    const ServiceChoice choice = TakeServiceChoice(&input);
    const FuzzedStage stage(FuzzedServer(choice.isSteady, 4096, RTMP_PLAYERS_ALL), choice.session);
    srand(1);
    FuzzPeer peer;
    FuzzTls tls(&peer);
    RtmpPublisher *publisher = MakePublisher(stage.server, peer.socket(),
                                             choice.isOverTls ? tls.handle() : nullptr, choice.isSigned);
    uint32_t reads = 0;
    peer.beforeRead = [&] {
        reads++;
        if (stage.session != nullptr && reads % 3 < choice.frames) {
            SendFuzzedFrame(&peer, stage.session, reads);
        }
        if (choice.stopAfter > 0 && reads == choice.stopAfter * 4) {
            RtmpPublisherStop(publisher);
        }
    };
    peer.send(AnswersOf(choice.answered));
    peer.send(input, choice.piece);
    Publish(publisher, stage.session, choice.answered);
    RtmpPublisherDestroy(publisher);
    constexpr size_t handshake = 1 + 2 * 1536;
    if (peer.written().size() > handshake) {
        ExpectChunks(peer.written().data() + handshake, peer.written().size() - handshake, 128);
    }
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t most, unsigned seed)
{
    constexpr size_t choice = 2; // bytes
    return MutateChunks(data, size, most, choice, seed);
}
