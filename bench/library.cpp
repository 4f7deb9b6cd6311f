#include "library.h"

#include "measure.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t kMapSize = 4 << 20;
constexpr uint64_t kFirstTimestamp = 1000000;

void Swallow(void *, uint8_t, const char *, va_list) {}

RtmpLogger g_silent = {Swallow, &g_silent};

// Players that a benchmark stops stay connected.
RtmpServiceLimits Limits(uint32_t options)
{
    RtmpServiceLimits limits = {};
    limits.Options = options;
    limits.MostClients = 10000;
    limits.MostClientsPerAddress = 10000;
    limits.StallMilliseconds = UINT32_MAX;
    return limits;
}

} // namespace

Library::Library(PlayerProcess &process, uint32_t count, const LibrarySettings &settings)
    : Contender(count), process_(process), settings_(settings)
{
    startServer();
    describeMedia();
    mapFrames();
    // What the first player brings into memory, such as the cipher library's pages, it does once for all.
    process_.connectPlayers(port_, 1, isStandard());
    sendSecond();
    process_.disconnectAll();
}

Library::~Library()
{
    RtmpSessionDestroy(session_); // while the silent logger is still there
    RtmpServerDestroy(server_);
    munmap(map_, kMapSize);
    close(file_);
}

void Library::startServer()
{
    int err = 0;
    port_ = FreePort();
    server_ = RtmpServerCreate(&g_silent, "lo", port_, 0, 0, kChunkSize, &err);
    RtmpPlayerSettings(server_, settings_.rules);
    const RtmpServiceLimits limits = Limits(settings_.options);
    if (settings_.road == Road::Steady && RtmpServiceSettings(server_, &limits) != 0) {
        fprintf(stderr, "no steady road\n");
        exit(1);
    }
    session_ = server_ != nullptr ? RtmpSessionCreate(server_, "live", &err) : nullptr;
    if (session_ == nullptr) {
        fprintf(stderr, "no session: %d\n", err);
        exit(1);
    }
    RtmpSenderSettings(session_, settings_.mode, 0, 0, 1, 255, 5, 100, 100);
}

void Library::describeMedia() const
{
    const uint8_t video[] = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40,
                             0x16, 0xE8, 0x40, 0, 0,    0,    1,    0x68, 0xCE, 0x3C, 0x80};
    const uint8_t audio[] = {0x12, 0x10};
    const VideoMediaInfo videoInfo = {7, 4000000, {0, 0, 0}, sizeof video, video};
    const AudioMediaInfo audioInfo = {10, 0, sizeof audio, audio};
    if (RtmpAddMediaInfo(session_, &videoInfo, &audioInfo) != 0) {
        exit(1);
    }
}

void Library::mapFrames()
{
    file_ = memfd_create("frames", 0);
    if (ftruncate(file_, static_cast<off_t>(kMapSize)) != 0) {
        exit(1);
    }
    map_ = static_cast<uint8_t *>(mmap(nullptr, kMapSize, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0));
    for (const Turn &turn : OneSecond()) {
        for (const Frame &frame : turn) {
            memcpy(map_ + frame.place, frame.bytes.data(), frame.bytes.size());
        }
    }
}

void Library::sendSecond()
{
    epoch += 1000;
    for (const Turn &turn : OneSecond()) {
        send(turn);
        process_.waitUntilDrained(0);
    }
}

void Library::connect()
{
    const double before = ResidentKiB();
    process_.connectPlayers(port_, players, isStandard());
    sendSecond();
    residentPerPlayer_ = (ResidentKiB() - before) / players;
}

void Library::sendFrame(const Frame &frame)
{
    const bool fromFile = settings_.source == Source::File && frame.type == RTMP_FRAME_VIDEO;
    const uint8_t *data = fromFile ? map_ + frame.place : frame.bytes.data();
    RtmpSendData(session_, data, static_cast<int32_t>(frame.bytes.size()), fromFile ? file_ : 0,
                 reinterpret_cast<uintptr_t>(map_), kFirstTimestamp + epoch + frame.timestamp, frame.type);
}

void Library::send(const Turn &turn)
{
    for (const Frame &frame : turn) {
        sendFrame(frame);
    }
}
