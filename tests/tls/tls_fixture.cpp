#include "tls_fixture.h"

#include "net/client_state.h"
#include "net/handshake.h"
#include "state/client.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kFileSize = 1 << 20;

// From the start of the process, so that what goes through TLS can be compared with what goes in the clear.
const bool clockStands = (calls::setClock(1000000), true);

std::mutex targetsMutex;
std::vector<int> targets;

} // namespace

extern "C" {

ssize_t __real_sendfile(int to, int from, off_t *offset, size_t count);

ssize_t __wrap_sendfile(int to, int from, off_t *offset, size_t count)
{
    {
        const std::lock_guard<std::mutex> held(targetsMutex);
        targets.push_back(to);
    }
    return __real_sendfile(to, from, offset, count);
}
}

namespace wire {

std::vector<int> TakeSendfileTargets()
{
    const std::lock_guard<std::mutex> held(targetsMutex);
    std::vector<int> taken;
    taken.swap(targets);
    return taken;
}

Connected HandedClient::connect(const std::optional<TlsSetup> &setup)
{
    if (setup) {
        tls.emplace(*setup);
        socket_ = tls->socket();
        return tls->takePlain();
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        throw std::runtime_error("socketpair");
    }
    socket_ = ends[0];
    return {ends[1]};
}

HandedClient::HandedClient(TestServer &server, const std::optional<TlsSetup> &setup) : peer(connect(setup))
{
    (void)HandleSignal(); // libssl writes without MSG_NOSIGNAL
    client = CreateNewRtmpClient(server.server, RTMP_CONN_RTMP, socket_, "127.0.0.1", 0,
                                 tls ? tls->handle() : nullptr);
    if (client == nullptr) {
        throw std::runtime_error("no client");
    }
}

HandedClient::~HandedClient()
{
    peer.socket.leave();
    if (client != nullptr) {
        FreeClientRecord(client);
    }
    if (!tls) {
        close(socket_);
    }
}

RtmpClient *HandedClient::giveAway()
{
    RtmpClient *given = client;
    client = nullptr;
    return given;
}

void HandedClient::handle(size_t messages)
{
    if (client->State == CLIENT_STATE_INIT) {
        EXPECT_EQ(PerformHandshake(client), 0);
        SetClientState(client, CLIENT_STATE_HANDSHAKE_DONE);
    }
    for (size_t i = 0; i < messages; i++) {
        const Handled handled = HandleOne(client);
        ASSERT_NE(handled.message, nullptr);
        EXPECT_EQ(handled.parsed, 0);
    }
}

void HandedClient::play(const std::string &name)
{
    serve(4, [&] { peer.playing(name); }); // connect, createStream, play and the ping behind them
    ASSERT_EQ(ClientStateOf(client), unsigned{CLIENT_STATE_PLAY_DONE});
}

void HandedClient::join(RtmpSession *session)
{
    client->StreamId = 1;
    client->AudioChunkStreamId = client->StatusChunkStreamId + 1;
    ASSERT_EQ(AddClientInSession(session, client), 0);
    SetClientState(client, CLIENT_STATE_PLAY_DONE);
}

FrameFile::FrameFile() : file_(memfd_create("frames", MFD_CLOEXEC))
{
    if (file_ < 1 || ftruncate(file_, kFileSize) != 0) {
        throw std::runtime_error("no file");
    }
    void *map = mmap(nullptr, kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (map == MAP_FAILED) {
        throw std::runtime_error("no map");
    }
    map_ = static_cast<uint8_t *>(map);
}

FrameFile::~FrameFile()
{
    munmap(map_, kFileSize);
    close(file_);
}

int FrameFile::sendVideo(RtmpSession *session, const Bytes &frame, uint64_t timestamp)
{
    constexpr size_t kOffset = 777; // frames begin anywhere
    std::copy(frame.begin(), frame.end(), map_ + kOffset);
    return RtmpSendData(session, map_ + kOffset, static_cast<int32_t>(frame.size()), file_,
                        reinterpret_cast<uint64_t>(map_), timestamp, RTMP_FRAME_VIDEO);
}

} // namespace wire
