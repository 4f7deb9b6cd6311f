#include "publisher_fixture.h"

#include "support/wait.h"

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

using namespace amf0;
using namespace wire;

namespace publisher {
namespace {

constexpr size_t kPacket = 1536;
constexpr size_t kDigest = 32;

void ReturnAtOnce(int) {}

// What every host does once, so that a session can end the threads of its clients.
void InstallSignalHandler()
{
    struct sigaction action = {};
    action.sa_handler = ReturnAtOnce;
    sigaction(SIGUSR1, &action, nullptr);
}

void AddMedia(RtmpSession *session)
{
    const Bytes sets = ParameterSets();
    const Bytes config = Hex("1210");
    const VideoMediaInfo video = {7, 2500000, {0, 0, 0}, static_cast<int32_t>(sets.size()), sets.data()};
    const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(config.size()), config.data()};
    EXPECT_EQ(RtmpAddMediaInfo(session, &video, &audio), 0);
}

} // namespace

Connection::Connection()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    host = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0 ||
        connect(host, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        throw std::runtime_error("no connection");
    }
    service = accept(listener, nullptr, nullptr);
    close(listener);
    const int one = 1;
    setsockopt(service, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(host, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

Rig::Rig(const Setup &setup) : setup_(setup)
{
    InstallSignalHandler();
    HostFakes::get().reset();
    calls::reset();
    if (setup.clock != 0) {
        calls::setClock(setup.clock);
    }
    server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 4096, nullptr);
    if (setup.steady) {
        EXPECT_EQ(RtmpServiceSettings(server, &setup.limits), 0);
    }
    session = RtmpSessionCreate(server, "cam", nullptr);
    const uint32_t mode = setup.threaded ? RTMP_SENDER_THREADED : 0;
    EXPECT_EQ(RtmpSenderSettings(session, mode, 0, 0, 1, 2, 5, 100, 100), 0);
    if (setup.media) {
        AddMedia(session);
    }
    if (setup.plain) {
        socket = setup.socket;
        service = std::make_unique<ScriptedPeer>(*setup.plain);
    } else {
        const Connection connection;
        socket = connection.host;
        service = std::make_unique<ScriptedPeer>(Connected{connection.service});
    }
    service->chunks.standard = true;
    const RtmpPublisherTarget target = {setup.app.c_str(), setup.tcUrl.c_str(), setup.key.c_str(), nullptr,
                                        "127.0.0.1",       setup.answerMs,      setup.isSigned};
    int error = 0;
    publisher = RtmpPublisherCreate(server, socket, setup.tls, &target, &error);
    if (publisher == nullptr) {
        throw std::runtime_error("no publisher");
    }
    log.clear();
}

Rig::~Rig()
{
    if (running_.valid()) {
        service->socket.leave();
        (void)result();
    }
    destroyPublisher();
    destroyServer();
    if (setup_.tls == nullptr) {
        close(socket);
    }
    calls::reset();
}

void Rig::destroyPublisher()
{
    if (!destroyed_.exchange(true)) {
        RtmpPublisherDestroy(publisher);
    }
}

void Rig::destroyServer()
{
    if (server != nullptr) {
        EXPECT_EQ(RtmpServerDestroy(server), 0);
    }
    server = nullptr;
    session = nullptr;
}

void Rig::destroySession()
{
    EXPECT_EQ(RtmpSessionDestroy(session), 0);
    session = nullptr;
}

void Rig::launch(std::function<int32_t()> body)
{
    running_ = std::async(std::launch::async, [this, body = std::move(body)] {
        const int32_t result = body();
        ended_ = true;
        return result;
    });
}

void Rig::start()
{
    launch([this, to = session] { return RtmpPublisherStart(publisher, to); });
}

void Rig::startAndServe()
{
    launch([this, to = session] {
        const int32_t started = RtmpPublisherStart(publisher, to);
        return started == 0 ? RtmpPublisherServe(publisher) : started;
    });
}

void Rig::live()
{
    launch([this, to = session] {
        const int32_t started = RtmpPublisherStart(publisher, to);
        const int32_t served = started == 0 ? RtmpPublisherServe(publisher) : started;
        destroyPublisher();
        return served;
    });
}

int32_t Rig::result()
{
    if (running_.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "the publisher hangs";
        shutdown(socket, SHUT_RDWR);
    }
    return running_.get();
}

HandshakeRecord Rig::handshake(int s1Scheme)
{
    HandshakeRecord record;
    const Bytes c0c1 = service->socket.receive(1 + kPacket);
    EXPECT_EQ(c0c1[0], 3);
    record.c1 = Slice(c0c1, 1, kPacket);
    record.s1 = Join({Hex("00000001 04050001"), Counting(kPacket - 8, 0x35)});
    if (s1Scheme != 0) {
        const size_t at = DigestOffset(record.s1, s1Scheme);
        const Bytes digest = PacketDigest(record.s1, at, ServerKey().substr(0, 36));
        std::copy(digest.begin(), digest.end(), record.s1.begin() + static_cast<long>(at));
    }
    service->socket.send(Join({{3}, record.s1, record.c1}));
    record.c2 = service->socket.receive(kPacket);
    return record;
}

void Rig::shakeHands()
{
    const HandshakeRecord record = handshake();
    EXPECT_TRUE(Same(record.c2, record.s1));
    EXPECT_TRUE(Same(service->read().raw, Hex("02 000000 000004 01 00000000 00001000")));
}

Message Rig::command()
{
    const Message message = service->read();
    EXPECT_EQ(message.type, 20) << ToHex(message.raw);
    return message;
}

void Rig::answer(double transaction)
{
    service->command(Values({String("_result"), Number(transaction), Null(), Null()}).bytes);
}

void Rig::createdStream(double transaction, double id)
{
    service->command(Values({String("_result"), Number(transaction), Null(), Number(id)}).bytes);
}

void Rig::status(const std::string &level, const std::string &code, const std::string &description)
{
    service->command(Status(level, code, description));
}

// Connect has transaction 1, createStream 4: one for each command.
void Rig::serviceUpTo(Step step)
{
    if (step >= Step::Handshake) {
        shakeHands();
        EXPECT_EQ(NameOf(command()), "connect");
    }
    if (step >= Step::Connect) {
        answer(1);
        EXPECT_EQ(NameOf(command()), "releaseStream");
        EXPECT_EQ(NameOf(command()), "FCPublish");
        EXPECT_EQ(NameOf(command()), "createStream");
    }
    if (step >= Step::CreateStream) {
        createdStream(4, 1);
        EXPECT_EQ(NameOf(command()), "publish");
    }
    if (step >= Step::Publish) {
        status("status", "NetStream.Publish.Start");
        headers = service->read(3);
    }
    if (step >= Step::Frames) {
        awaitFrames();
    }
}

void Rig::awaitFrames()
{
    EXPECT_TRUE(WaitUntil([this] {
        return __atomic_load_n(&RtmpPublisherClient(publisher)->State, __ATOMIC_ACQUIRE) ==
               CLIENT_STATE_PLAY_DONE;
    }));
}

void TakePublisher(ScriptedPeer &service)
{
    service.chunks.standard = true;
    service.socket.receive(1537);
    service.socket.send(Bytes(1 + 2 * 1536, 3));
    service.socket.receive(1536);
    EXPECT_EQ(service.read().type, 1);
    EXPECT_EQ(service.read().chunks, 1U) << "connect, cut by the size in front of it";
    service.command(Values({String("_result"), Number(1), Null(), Null()}).bytes);
    service.read(3);
    service.command(Values({String("_result"), Number(4), Null(), Number(1)}).bytes);
    service.read(1);
    service.command(Status("status", "NetStream.Publish.Start", "go"));
    service.read(3);
}

std::string NameOf(const Message &message)
{
    if (message.type != 20 || message.payload.size() < 3) {
        return "";
    }
    const Bytes name = Slice(message.payload, 3, message.payload[2]);
    return {name.begin(), name.end()};
}

} // namespace publisher
