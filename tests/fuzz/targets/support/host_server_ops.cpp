// Operations on servers and sessions: making, settling, describing, sending and looking up.
#include "support/host_fakes.h"
#include "support/host_world.h"
#include "support/test_server.h"

#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace host {
namespace {

constexpr uint64_t kTimeSteps[] = {
    40, 0, 1, 20, 1000, uint64_t{0} - 40, 1 << 24, uint64_t{1} << 32, uint64_t{1} << 63};
constexpr uint32_t kFrameSizes[] = {1,   2,   3,    4,    5,    6,     9,      123,
                                    128, 133, 1000, 4091, 4096, 20000, 300000, 2100000};
constexpr uint32_t kHugeFrame = 100000; // from here on one for each input
constexpr uint32_t kPieceBytes = 20000; // bytes of a frame for each byte of the chunk size
constexpr int32_t kChunkSizes[] = {4096, 0, -5, 1, 64, 128, 60000, 0x7FFFFFFF};
constexpr uint32_t kQueueSizes[] = {10, 0, 1, 2, 50, 1 << 24};
constexpr size_t kMostSessions = 4;

template <typename Item, size_t N> Item From(const Item (&items)[N], uint8_t which)
{
    return items[which % N];
}

RtmpSession *HandleOf(const Session *session)
{
    return session != nullptr ? session->session : nullptr;
}

// A file with frames: one that begins with a key frame, one that does not, and what a host can get wrong.
struct FrameFile {
    static constexpr uint32_t kBytes = 1 << 16, kInterAt = 1 << 15;
    FrameFile() : fd(memfd_create("frames", 0)), tooShort(memfd_create("short", 0))
    {
        if (ftruncate(fd, kBytes) != 0 || ftruncate(tooShort, 1) != 0 || pipe(pipeEnds) != 0) {
            Break("no file for frames");
        }
        map = static_cast<uint8_t *>(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        memcpy(map, "\0\0\x3F\xFC\x65", 5);
        memcpy(map + kInterAt, "\0\0\x3F\xFC\x41", 5);
    }
    int fd, tooShort;
    int pipeEnds[2];
    uint8_t *map;
};

const FrameFile &TheFile()
{
    static const FrameFile &file = *new FrameFile;
    return file;
}

// 1: the file; 2: a number that is no descriptor; 3: a pipe; 4: too short; else: none
int DescriptorOf(uint8_t kind)
{
    constexpr int noDescriptor = 100000;
    const int kinds[] = {0, TheFile().fd, noDescriptor, TheFile().pipeEnds[1], TheFile().tooShort, -1};
    return From(kinds, kind);
}

void ExpectSent(int32_t status)
{
    Expect("RtmpSendData", status, {0, RTMP_FAILED, RTMP_ERR_NO_MEDIA_INFO, RTMP_ERR_NO_CLIENT});
}

void SendFromFile(const Session &session, uint32_t size, bool isKey, int fd, int64_t kind)
{
    const FrameFile &file = TheFile();
    const uint8_t *data = file.map + (isKey ? 0 : FrameFile::kInterAt);
    const int32_t length = static_cast<int32_t>(std::min(size, FrameFile::kInterAt));
    ExpectSent(RtmpSendData(session.session, data, length, fd, reinterpret_cast<uint64_t>(file.map),
                            session.time, kind));
}

// The bytes are gone as soon as the call is back.
void SendFromMemory(const Session &session, uint32_t size, bool isKey, int64_t kind)
{
    const uint32_t least = 5;
    Bytes frame = wire::VideoFrame(std::max(size, least), isKey ? 0x65 : 0x41);
    frame.resize(size);
    frame.shrink_to_fit();
    ExpectSent(
        RtmpSendData(session.session, frame.data(), static_cast<int32_t>(size), 0, 0, session.time, kind));
}

// A whole frame: size, key frame or not, step in time, kind of descriptor.
void SendFrame(World &world, FuzzInput &input, int64_t kind)
{
    Session *session = world.session(input.byte());
    uint32_t size = From(kFrameSizes, input.byte());
    const bool isKey = (input.byte() & 1) != 0;
    const uint64_t step = From(kTimeSteps, input.byte());
    const int fd = DescriptorOf(input.byte());
    if (session == nullptr) {
        return;
    }
    const int64_t chunkSize = session->server->ConfiguredChunkSize;
    size = std::min<uint32_t>(size, chunkSize < 1 ? size
                                                  : static_cast<uint32_t>(std::min<int64_t>(
                                                        chunkSize * kPieceBytes, kHugeFrame * 100)));
    if (size >= kHugeFrame && world.hugeFrames++ > 0) {
        return;
    }
    world.settle(session);
    session->time += step;
    const HostPeers::Call waits;
    if (fd > 0) {
        SendFromFile(*session, size, isKey, fd, kind);
    } else {
        SendFromMemory(*session, size, isKey, kind);
    }
}

// Of traces: one that is there, two in which nothing can be made, one whose name is cut, and one below a
// folder that is not there. What is written lies in the first.
std::string FolderOf(World &world, uint8_t which)
{
    const std::string there = world.traceFolder();
    const std::string folders[] = {there, "/dev/full", "/proc", there + "/" + std::string(2000, 'd'),
                                   there + "/none/none"};
    return From(folders, which);
}

} // namespace

void OpenFrameFiles()
{
    (void)TheFile();
}

// listeners:2 (0, 3: none; 1: RTMP; 2: both)  logger:3 (5 to 7: null)  chunk size:3; then the code point
void ServerCreate(World &world, FuzzInput &input)
{
    const uint8_t how = input.byte();
    const uint8_t dscp = input.byte();
    if (!world.hasRoomForServer()) {
        return;
    }
    int error = 1;
    if (how == 255) {
        RtmpServer *none = RtmpServerCreate(nullptr, nullptr, 0, 0, dscp, 0, &error);
        Expect("RtmpServerCreate without an interface", none == nullptr ? error : 0,
               {RTMP_ERR_INVALID_ARGUMENT});
        none = RtmpServerCreate(nullptr, "no-such", 0, 0, dscp, 0, &error);
        Expect("RtmpServerCreate on no interface", none == nullptr ? error : 0, {RTMP_ERR_IP_ADDRESS});
        return;
    }
    const uint8_t listeners = how & 3;
    const uint8_t logger = how >> 2 & 7;
    Log *log = nullptr;
    if (logger < 5) {
        world.logs.push_back(std::make_unique<Log>(logger));
        log = world.logs.back().get();
    }
    const uint16_t port = listeners == 1 || listeners == 2 ? wire::SomePort() : uint16_t(0);
    const uint16_t tunnelPort = listeners == 2 ? wire::SomePort() : uint16_t(0);
    RtmpServer *server = RtmpServerCreate(log != nullptr ? &log->logger : nullptr, port != 0 ? "lo" : "ANY",
                                          port, tunnelPort, dscp, kChunkSizes[how >> 5], &error);
    if (server == nullptr) {
        Expect("RtmpServerCreate", error, {RTMP_ERR_BIND, RTMP_ERR_LISTEN});
        return;
    }
    world.add(Server{server, log, port, tunnelPort, 0, false});
}

void ServerDestroy(World &world, FuzzInput &input)
{
    Server *server = world.server(input.byte());
    if (server == nullptr) {
        Expect("RtmpServerDestroy of null", RtmpServerDestroy(nullptr), {RTMP_ERR_INVALID_ARGUMENT});
        return;
    }
    world.destroyServer(server);
}

// the flags, in two bytes
void PlayerSettings(World &world, FuzzInput &input)
{
    const Server *server = world.server(input.byte());
    const uint32_t flags = input.number(2);
    Expect("RtmpPlayerSettings", RtmpPlayerSettings(server != nullptr ? server->server : nullptr, flags),
           {0});
}

// null or not, a port of TLS or none; then a byte for each limit
void ServiceSettings(World &world, FuzzInput &input)
{
    Server *server = world.server(input.byte());
    const uint8_t how = input.byte();
    RtmpServiceLimits limits = {};
    if ((how & 1) != 0) {
        uint32_t *const fields[] = {&limits.RingMilliseconds,      &limits.RingBytes,
                                    &limits.StallMilliseconds,     &limits.ReplyBytes,
                                    &limits.SoundWaitMilliseconds, &limits.MostClients,
                                    &limits.MostClientsPerAddress, &limits.AssemblyBytes,
                                    &limits.ChunkStreams};
        constexpr uint32_t values[] = {0, 1, 10, 100, 1000, 100000, UINT32_MAX};
        for (uint32_t *field : fields) {
            *field = From(values, input.byte());
        }
    }
    limits.Options = how >> 1 & 1;
    limits.TlsPort = (how & 4) != 0 ? wire::SomePort() : uint16_t(0);
    if (server == nullptr) {
        Expect("RtmpServiceSettings of null", RtmpServiceSettings(nullptr, &limits),
               {RTMP_ERR_INVALID_ARGUMENT});
        return;
    }
    const bool mayPass = !server->isSteady && server->server->LiveSessionCount == 0;
    const int32_t status = RtmpServiceSettings(server->server, (how & 8) != 0 ? nullptr : &limits);
    if (!mayPass) {
        Expect("RtmpServiceSettings too late", status, {RTMP_ERR_INVALID_ARGUMENT});
        return;
    }
    Expect("RtmpServiceSettings", status, {0, RTMP_ERR_BIND, RTMP_ERR_LISTEN});
    server->isSteady = status == 0;
    server->tlsPort = status == 0 && (how & 8) == 0 ? limits.TlsPort : uint16_t(0);
}

void SessionCreate(World &world, FuzzInput &input)
{
    const Server *server = world.server(input.byte());
    const char *name = NameOf(input.byte());
    if (world.sessions.size() >= kMostSessions) {
        return;
    }
    int error = 0;
    if (server == nullptr) {
        const bool isNull = RtmpSessionCreate(nullptr, name, &error) == nullptr;
        Expect("RtmpSessionCreate without a server", isNull ? error : 0, {RTMP_ERR_INVALID_ARGUMENT});
        return;
    }
    const bool exists = IsSessionNameExists(server->server, name) == 0;
    RtmpSession *session = RtmpSessionCreate(server->server, name, &error);
    Expect("RtmpSessionCreate", error, {exists ? RTMP_ERR_SESSION_EXISTS : 0});
    if (session != nullptr) {
        world.add(Session{session, server->server, 1000});
    }
}

void SessionDestroy(World &world, FuzzInput &input)
{
    Session *session = world.session(input.byte());
    if (session == nullptr) {
        Expect("RtmpSessionDestroy of null", RtmpSessionDestroy(nullptr), {RTMP_ERR_INVALID_ARGUMENT});
        return;
    }
    world.destroySession(session);
}

// mode, caption mode, interval, sizes of the two queues
void SenderSettings(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    const uint8_t mode = input.byte();
    const uint8_t captions = input.byte();
    const uint8_t interval = input.byte();
    const uint32_t audio = From(kQueueSizes, input.byte());
    const uint32_t video = From(kQueueSizes, input.byte());
    world.settle(session);
    Expect("RtmpSenderSettings",
           RtmpSenderSettings(HandleOf(session), mode % 3, 0, 0, mode >> 4, captions, interval, audio, video),
           {0});
}

void BandwidthSettings(World &world, FuzzInput &input)
{
    constexpr uint32_t windows[] = {30, 0, 1, 2, 1000, 1000000, UINT32_MAX};
    const Session *session = world.session(input.byte());
    const uint8_t enable = input.byte();
    const uint32_t window = From(windows, input.byte());
    world.settle(session);
    const HostPeers::Call waits;
    Expect("RtmpBWMSettings", RtmpBWMSettings(HandleOf(session), enable, window), {0});
}

// enable:1  burn in:1  log:1; then the folder, and how many frames apart
void DebugSettings(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    const uint8_t how = input.byte();
    const std::string folder = FolderOf(world, input.byte());
    const uint8_t every = input.byte();
    world.settle(session);
    const HostPeers::Call waits;
    Expect("RtmpDebugSettings",
           RtmpDebugSettings(HandleOf(session), how & 1, how >> 1 & 1, how >> 2 & 1, folder.c_str(), every),
           {0});
}

// enable; then a byte for each of the others
void BitrateSettings(World &world, FuzzInput &input)
{
    constexpr uint32_t values[] = {0, 1, 5, 50, 99, 1000, 100000, UINT32_MAX};
    const Session *session = world.session(input.byte());
    const uint8_t enable = input.byte();
    uint32_t v[12];
    for (uint32_t &each : v) {
        each = From(values, input.byte());
    }
    world.settle(session);
    const HostPeers::Call waits;
    Expect("RtmpAdaptiveBitrateSettings",
           RtmpAdaptiveBitrateSettings(HandleOf(session), enable, 0, 0, v[0], v[1], v[2], v[3], v[4], v[5],
                                       v[6], v[7], v[8], v[9], v[10], v[11]),
           {0});
}

void QueueReset(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    world.settle(session);
    const HostPeers::Call waits;
    Expect("RtmpThreadedQueueReset", RtmpThreadedQueueReset(HandleOf(session)), {0});
}

void QueueClose(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    world.settle(session);
    const HostPeers::Call waits;
    Expect("RtmpThreadedQueueClose", RtmpThreadedQueueClose(HandleOf(session)), {0});
}

// video:2 (0: good, 1: none, 2: the bytes, 3: another codec)  audio:2, the same; then bytes
void AddMedia(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    const uint8_t how = input.byte();
    const Bytes bytes = Blob(input);
    const Bytes sets = (how & 3) == 2 ? bytes : wire::ParameterSets();
    const Bytes config = (how >> 2 & 3) == 2 ? bytes : Bytes{0x12, 0x10};
    const VideoMediaInfo video = {(how & 3) == 3 ? 2U : 7U,
                                  uint32_t{how} << 18,
                                  {1, 2, 3},
                                  static_cast<int32_t>(sets.size()),
                                  sets.data()};
    const AudioMediaInfo audio = {(how >> 2 & 3) == 3 ? 2U : 10U, 4, static_cast<int32_t>(config.size()),
                                  config.data()};
    const HostPeers::Call waits;                             // other sessions' players may hold the list
    world.hasFailedMedia = world.hasFailedMedia || how != 0; // it may, and meanwhile the session has none
    Expect("RtmpAddMediaInfo",
           RtmpAddMediaInfo(HandleOf(session), (how & 3) == 1 ? nullptr : &video,
                            (how >> 2 & 3) == 1 ? nullptr : &audio),
           {0, RTMP_ERR_INVALID_ARGUMENT, RTMP_ERR_VIDEO_INFO, RTMP_ERR_AUDIO_INFO});
}

// on or off; what the caption functions answer
void Captions(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    const uint8_t on = input.byte();
    const uint8_t place = input.byte();
    if (session == nullptr) {
        return;
    }
    for (const std::unique_ptr<Session> &each : world.sessions) { // the functions are everybody's
        world.settle(each.get());
        const HostPeers::Call waits;
        (void)RtmpThreadedQueueReset(each->session);
    }
    HostFakes &fakes = HostFakes::get();
    fakes.findCaptionPlace = [place](const uint8_t *, int32_t length, int32_t *nalSizePos) -> int32_t {
        *nalSizePos = 0;
        const int32_t places[] = {0, length, -1, length + 1, std::min(length, int32_t{place})};
        return From(places, place);
    };
    fakes.getSei = [](uint64_t, uint8_t **sei, int32_t *length, uint32_t delta) {
        static uint8_t bytes[64];
        *sei = bytes;
        *length = static_cast<int32_t>(delta % sizeof bytes);
    };
    fakes.captionMessage = [](RtmpClient *client, uint32_t, uint64_t) {
        return GenerateRtmpMsg(client, nullptr, RTMP_MSG_STREAM_BEGIN);
    };
    session->session->CcGen->Enabled = on;
}

void SendVideo(World &world, FuzzInput &input)
{
    SendFrame(world, input, RTMP_FRAME_VIDEO);
}

void SendAudio(World &world, FuzzInput &input)
{
    SendFrame(world, input, RTMP_FRAME_AUDIO);
}

// what RtmpSendData refuses
void SendOdd(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    const uint8_t data[] = {0, 0, 0, 1, 0x65};
    world.settle(session);
    struct {
        const uint8_t *data;
        int32_t length;
        int64_t kind;
    } const odd[] = {{nullptr, 5, 0}, {data, 0, 0}, {data, -1, 1}, {data, 5, 2}, {data, 5, -1}};
    for (const auto &each : odd) {
        Expect("RtmpSendData", RtmpSendData(HandleOf(session), each.data, each.length, 0, 0, 0, each.kind),
               {RTMP_ERR_INVALID_ARGUMENT});
    }
}

// how many frames, on the other thread
void SendBeside(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    const uint8_t frames = input.byte();
    if (session != nullptr) {
        world.frames().send(session->session, 1 + frames % 32);
    }
}

void LookUp(World &world, FuzzInput &input)
{
    const uint8_t which = input.byte();
    const Server *server = world.server(which);
    const Session *session = world.session(which);
    RtmpServer *handle = server != nullptr ? server->server : nullptr;
    RtmpSession stranger = {}; // never one of a server's
    Expect("ValidateRtmpSessionHandle", ValidateRtmpSessionHandle(handle, &stranger), {-1});
    Expect("ValidateRtmpSessionHandle", ValidateRtmpSessionHandle(handle, HandleOf(session)), {0, -1});
    Expect("IsSessionNameExists", IsSessionNameExists(handle, NameOf(which)), {0, -1});
    Expect("IsSessionNameExists of null", IsSessionNameExists(handle, nullptr), {-1});
    if (session != nullptr) {
        Expect("its own server's", ValidateRtmpSessionHandle(session->server, session->session), {0});
        Expect("IsAnyClientConnected", IsAnyClientConnected(session->session), {0, -1});
    }
}

void Figures(World &world, FuzzInput &input)
{
    const Session *session = world.session(input.byte());
    RtmpSessionFigures figures;
    RtmpClientFigures clients[2];
    const bool isSteady = session != nullptr && session->session->Stream != nullptr;
    Expect("RtmpSessionStatistics", RtmpSessionStatistics(HandleOf(session), &figures),
           {isSteady ? 0 : RTMP_ERR_INVALID_ARGUMENT});
    const int32_t players = RtmpClientStatistics(HandleOf(session), clients, 2);
    if (isSteady ? players < 0 : players != RTMP_ERR_INVALID_ARGUMENT) {
        Break("RtmpClientStatistics");
    }
    Expect("RtmpClientStatistics without room", RtmpClientStatistics(HandleOf(session), nullptr, 0) < 0,
           {isSteady ? 0 : 1});
}

} // namespace host
