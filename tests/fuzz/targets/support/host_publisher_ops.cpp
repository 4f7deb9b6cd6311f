// Operations of publishers. The service is the input's: a handshake or none, answers that are right or bytes.
#include "support/host_world.h"
#include "support/wire_replies.h"

#include <functional>
#include <sys/socket.h>
#include <unistd.h>

namespace host {
namespace {

constexpr size_t kMostPublishers = 1;
const int64_t kNoSuccess[] = {RTMP_ERR_NO_ANSWER, RTMP_ERR_REFUSED, RTMP_ERR_CONNECTION};

// Answers to connect, createStream and publish in their order.
Bytes GoodAnswers()
{
    Bytes script = Said(HostSaid::WindowAckSize, 0);
    Append(script, Said(HostSaid::Result, 1));
    Append(script, Said(HostSaid::Result, 4));
    Append(script, Said(HostSaid::Status, 0));
    return script;
}

// -1 is for what the session may have lost meanwhile; memory is not.
void ExpectStarted(const World &world, int32_t status)
{
    if (status == RTMP_FAILED && world.hasFailedMedia) {
        return;
    }
    Expect(
        "RtmpPublisherStart", status,
        {0, kNoSuccess[0], kNoSuccess[1], kNoSuccess[2], RTMP_ERR_NO_MEDIA_INFO, RTMP_ERR_INVALID_ARGUMENT});
}

// Everything that a host's thread does; the destroy is what the others have to know of.
void Live(const World &world, Publisher *publisher, RtmpSession *session)
{
    const int32_t started = RtmpPublisherStart(publisher->publisher, session);
    ExpectStarted(world, started);
    if (started == 0) {
        {
            const std::lock_guard<std::mutex> held(publisher->lock);
            publisher->isSending = true;
        }
        Expect("RtmpPublisherServe", RtmpPublisherServe(publisher->publisher),
               {0, RTMP_ERR_REFUSED, RTMP_ERR_CONNECTION});
    }
    {
        const std::lock_guard<std::mutex> held(publisher->lock);
        publisher->isDestroyed = true;
        publisher->isSending = false;
    }
    RtmpPublisherDestroy(publisher->publisher);
}

void TryOddTargets(RtmpServer *server)
{
    int error = 0;
    RtmpPublisherTarget target = {};
    const bool isRefused = RtmpPublisherCreate(server, 0, nullptr, &target, &error) == nullptr;
    Expect("RtmpPublisherCreate without texts", isRefused ? error : 0, {RTMP_ERR_INVALID_ARGUMENT});
    const bool isNull = RtmpPublisherCreate(nullptr, 0, nullptr, nullptr, &error) == nullptr;
    Expect("RtmpPublisherCreate of nothing", isNull ? error : 0, {RTMP_ERR_INVALID_ARGUMENT});
}

// Only on the publisher's own thread: this one, until it lives.
void TakeStep(const World &world, Publisher *publisher, RtmpSession *session, uint8_t step, uint8_t argument)
{
    RtmpPublisher *handle = publisher->publisher;
    switch (step) {
    case 0:
        Expect("RtmpPublisherHandshake", RtmpPublisherHandshake(handle),
               {0, kNoSuccess[0], kNoSuccess[1], kNoSuccess[2], RTMP_FAILED});
        return;
    case 1: {
        double transaction = 0;
        const bool isKnown = argument >= RTMP_PUBLISHER_CONNECT && argument <= RTMP_PUBLISHER_DELETE_STREAM;
        const int32_t status = RtmpPublisherSend(handle, static_cast<RtmpPublisherCommand>(argument),
                                                 (argument & 1) != 0 ? &transaction : nullptr);
        return isKnown ? Expect("RtmpPublisherSend", status, {0, RTMP_ERR_CONNECTION})
                       : Expect("RtmpPublisherSend of none", status, {RTMP_ERR_INVALID_ARGUMENT});
    }
    case 2:
        return Expect("RtmpPublisherAwait", RtmpPublisherAwait(handle, argument),
                      {0, kNoSuccess[0], kNoSuccess[1], kNoSuccess[2]});
    default: {
        const int32_t started = RtmpPublisherStart(handle, session);
        ExpectStarted(world, started);
        publisher->hasStarted = started == 0;
        publisher->isSending = started == 0;
    }
    }
}

} // namespace

// handshake:1  good answers:1  signed:1  texts:1  wait:4; then the service's bytes behind the answers
void PublisherCreate(World &world, FuzzInput &input)
{
    const Server *server = world.server(input.byte());
    const uint8_t how = input.byte();
    Bytes script = (how & 2) != 0 ? GoodAnswers() : Bytes();
    Append(script, Blob(input));
    TryOddTargets(server != nullptr ? server->server : nullptr);
    int ends[2];
    if (server == nullptr || world.publishers.size() >= kMostPublishers ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return;
    }
    const std::string longest(65535, 'x');
    RtmpPublisherTarget target = {};
    target.App = (how & 8) != 0 ? longest.c_str() : "live";
    target.TcUrl = "rtmp://service.example/live";
    target.Key = "key";
    target.AnswerMilliseconds = 5 + (how >> 4);
    target.IsSigned = how >> 2 & 1;
    int error = 0;
    std::unique_ptr<Publisher> made = std::make_unique<Publisher>();
    made->publisher = RtmpPublisherCreate(server->server, ends[0], nullptr, &target, &error);
    if (made->publisher == nullptr) {
        Break("RtmpPublisherCreate");
    }
    made->fd = ends[0];
    made->seat = HostPeers::get().sitAsService(ends[1], (how & 1) != 0, script);
    world.publishers.push_back(std::move(made));
}

void PublisherLives(World &world, FuzzInput &input)
{
    Publisher *publisher = world.publisher(input.byte());
    const Session *session = world.session(input.byte());
    if (publisher == nullptr || publisher->hasLived || publisher->hasStarted ||
        RtmpPublisherClient(publisher->publisher)->Session != nullptr) {
        return;
    }
    publisher->hasLived = true;
    publisher->thread =
        std::thread(Live, std::cref(world), publisher, session != nullptr ? session->session : nullptr);
}

// step:2 (0: handshake, 1: a command, 2: an answer, 3: the whole start), its argument, the session
void PublisherStep(World &world, FuzzInput &input)
{
    Publisher *publisher = world.publisher(input.byte());
    const uint8_t step = input.byte() & 3;
    const uint8_t argument = input.byte() % 10;
    const Session *session = world.session(input.byte());
    if (publisher == nullptr || publisher->hasLived ||
        RtmpPublisherClient(publisher->publisher)->Session != nullptr) {
        return;
    }
    const HostPeers::Call waits;
    TakeStep(world, publisher, session != nullptr ? session->session : nullptr, step, argument);
    (void)RtmpPublisherAnswers(publisher->publisher);
}

void PublisherStops(World &world, FuzzInput &input)
{
    Publisher *publisher = world.publisher(input.byte());
    if (publisher == nullptr) {
        return;
    }
    const HostPeers::Call waits;
    const std::lock_guard<std::mutex> held(publisher->lock);
    if (!publisher->isDestroyed) {
        RtmpPublisherStop(publisher->publisher);
        RtmpPublisherStop(publisher->publisher);
    }
}

// 0: what the session knows of its media; else the bytes
void PublisherSends(World &world, FuzzInput &input)
{
    Publisher *publisher = world.publisher(input.byte());
    const uint8_t how = input.byte();
    const Bytes values = Blob(input);
    if (publisher == nullptr) {
        return;
    }
    const HostPeers::Call waits;
    const std::lock_guard<std::mutex> held(publisher->lock);
    if (publisher->isDestroyed || !publisher->isSending) {
        return;
    }
    const int32_t status = (how & 1) == 0 ? RtmpPublisherSendMetaData(publisher->publisher)
                                          : RtmpPublisherSendData(publisher->publisher, values.data(),
                                                                  static_cast<uint32_t>(values.size()));
    Expect("RtmpPublisherSendData", status,
           {0, RTMP_ERR_CONNECTION, RTMP_ERR_INVALID_ARGUMENT,
            world.hasFailedMedia && (how & 1) == 0 ? RTMP_FAILED : 0});
}

void PublisherDestroy(World &world, FuzzInput &input)
{
    Publisher *publisher = world.publisher(input.byte());
    if (publisher == nullptr) {
        RtmpPublisherDestroy(nullptr);
        return;
    }
    world.destroyPublisher(publisher);
}

} // namespace host
