#include "publish_fixture.h"

#include "support/test_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace wire {

Connected PublishFixture::makePair()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        throw std::runtime_error("socketpair");
    }
    socket = ends[0];
    return {ends[1]};
}

PublishFixture::PublishFixture() : service(makePair())
{
    HostFakes::get().reset();
    calls::setClock(kStart);
    // No listener: nobody watches here.
    server = RtmpServerCreate(log.get(), "ANY", 0, 0, 0, 4096, nullptr);
    if (server == nullptr) {
        throw std::runtime_error("no server");
    }
    client = CreateNewRtmpClient(server, RTMP_CONN_RTMP, socket, "127.0.0.1", htons(1935), nullptr);
    if (client == nullptr) {
        throw std::runtime_error("no client");
    }
    client->PublishCtx = &context;
    log.clear();
}

PublishFixture::~PublishFixture()
{
    endClient();
    EXPECT_EQ(RtmpServerDestroy(server), 0); // with its session
    close(socket);
}

void PublishFixture::endClient()
{
    if (client != nullptr) {
        EndPublisher(client);
    }
    client = nullptr;
}

RtmpSession *PublishFixture::makeSession(uint8_t captionMode, uint32_t senderMode)
{
    session = RtmpSessionCreate(server, "cam", nullptr);
    if (session == nullptr) {
        throw std::runtime_error("no session");
    }
    EXPECT_EQ(RtmpSenderSettings(session, senderMode, 0, 0, 1, captionMode, 5, 100, 100), 0);
    const Bytes sets = ParameterSets();
    const Bytes config = Hex("1210");
    const VideoMediaInfo video = {7, 2500000, {0, 0, 0}, static_cast<int32_t>(sets.size()), sets.data()};
    const AudioMediaInfo audio = {10, 0, static_cast<int32_t>(config.size()), config.data()};
    EXPECT_EQ(RtmpAddMediaInfo(session, &video, &audio), 0);
    log.clear();
    return session;
}

void PublishFixture::startFrames()
{
    client->StreamId = 1; // as the service's answer to createStream would say
    ASSERT_EQ(AnnounceChunkSize(client), 0);
    ASSERT_EQ(StartFrames(client, session), 0);
    service.read(4); // chunk size, metadata, two sequence headers
}

Handled PublishFixture::fromService(const amf0::Value &command)
{
    service.command(command.bytes);
    return HandleOne(client);
}

void PublishFixture::expectSilence()
{
    char byte;
    EXPECT_EQ(recv(service.socket.descriptor(), &byte, 1, MSG_DONTWAIT | MSG_PEEK), -1);
}

} // namespace wire
