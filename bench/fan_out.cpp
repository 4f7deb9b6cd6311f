// fan_out: what it costs to bring frames to N players, against the floor of the same run: a plain loop that
// makes one sendmsg of the very same bytes and pieces per message and socket.
//
// Prints, for each N and sender: CPU seconds per delivered GB, their ratio to the floor's, resident memory
// per player, and heap allocations per frame and player.
#include "player_process.h"

#include "instruments/ring.h"
#include "rtmpcast/rtmpcast.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<uint64_t> g_allocations;

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);

void *__wrap_malloc(size_t size)
{
    g_allocations++;
    return __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    g_allocations++;
    return __real_calloc(count, size);
}

void *__wrap_realloc(void *old, size_t size)
{
    g_allocations++;
    return __real_realloc(old, size);
}
}

namespace {

constexpr int kChunkSize = 4096;
constexpr int kFramesPerSecond = 30;

double CpuSeconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double ResidentKiB()
{
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (file == nullptr || fscanf(file, "%*s %ld", &pages) != 1) {
        exit(1);
    }
    fclose(file);
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

// One second of a 4 Mbit/s stream: a key frame, 29 inter frames, 43 audio frames spread between them.
struct Frame {
    int type; // RTMP_FRAME_...
    uint64_t timestamp;
    std::vector<uint8_t> bytes;
};

std::vector<Frame> OneSecond()
{
    std::vector<Frame> frames;
    int audio = 0;
    for (int i = 0; i < kFramesPerSecond; i++) {
        for (; audio * 1000 / 43 <= i * 1000 / kFramesPerSecond; audio++) {
            frames.push_back({RTMP_FRAME_AUDIO, static_cast<uint64_t>(audio * 1000 / 43),
                              std::vector<uint8_t>(370, 0x21)});
        }
        const size_t length = i == 0 ? 80000 : 14300;
        std::vector<uint8_t> video(length, 0x5A);
        const uint32_t nal = htonl(static_cast<uint32_t>(length - 4));
        memcpy(video.data(), &nal, 4);
        video[4] = i == 0 ? 0x65 : 0x41;
        frames.push_back({RTMP_FRAME_VIDEO, static_cast<uint64_t>(i * 1000 / kFramesPerSecond), video});
    }
    return frames;
}

struct Cost {
    double cpu = 0;
    double gigabytes = 0;
    uint64_t frames = 0;
    uint64_t allocations = 0;
    double perGb() const
    {
        return cpu / gigabytes;
    }
};

uint16_t FreePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        perror("bind");
        exit(1);
    }
    close(fd);
    return ntohs(address.sin_port);
}

// ------------------------------------------------------------------------------------------------- floor

// The pieces of one message as the library lays them out: header, tag header, payload, separators between.
struct PlainMessage {
    std::vector<uint8_t> header;
    std::vector<iovec> pieces;
    size_t bytes = 0;
};

PlainMessage LayOut(const Frame &frame)
{
    static uint8_t separator = 0xC5;
    PlainMessage message;
    const bool video = frame.type == RTMP_FRAME_VIDEO;
    const size_t tag = video ? 5 : 2;
    message.header.assign(8 + tag, 0x45); // a type 1 header, as most frames get, and the tag header
    message.pieces.push_back({message.header.data(), 8});
    message.pieces.push_back({message.header.data() + 8, tag});
    size_t at = 0;
    size_t room = kChunkSize - tag;
    while (at < frame.bytes.size()) {
        const size_t length = std::min(room, frame.bytes.size() - at);
        if (at > 0) {
            message.pieces.push_back({&separator, 1});
        }
        message.pieces.push_back({const_cast<uint8_t *>(frame.bytes.data()) + at, length});
        at += length;
        room = kChunkSize;
    }
    for (const iovec &piece : message.pieces) {
        message.bytes += piece.iov_len;
    }
    return message;
}

// What a player receives of these frames.
double BytesOf(const std::vector<Frame> &frames)
{
    size_t bytes = 0;
    for (const Frame &frame : frames) {
        bytes += LayOut(frame).bytes;
    }
    return static_cast<double>(bytes);
}

class Floor {
  public:
    Floor(PlayerProcess &players, uint32_t count) : players_(players)
    {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        const uint16_t port = FreePort();
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener, 4096) != 0) {
            perror("listen");
            exit(1);
        }
        players.connectPlain(port, count);
        for (uint32_t i = 0; i < count; i++) {
            sockets_.push_back(accept(listener, nullptr, nullptr));
        }
        close(listener);
        for (const Frame &frame : second_) {
            messages_.push_back(LayOut(frame));
        }
    }
    ~Floor()
    {
        for (int fd : sockets_) {
            close(fd);
        }
    }

    void run(Cost &cost, int seconds)
    {
        for (int i = 0; i < seconds; i++) {
            for (size_t k = 0; k < messages_.size(); k++) {
                const double before = CpuSeconds();
                sendToAll(messages_[k]);
                cost.cpu += CpuSeconds() - before;
                cost.gigabytes += static_cast<double>(messages_[k].bytes * sockets_.size()) / 1e9;
                if (second_[k].type == RTMP_FRAME_VIDEO) {
                    players_.waitUntilDrained();
                }
            }
        }
    }

  private:
    void sendToAll(PlainMessage &message)
    {
        for (int fd : sockets_) {
            msghdr header = {};
            header.msg_iov = message.pieces.data();
            header.msg_iovlen = message.pieces.size();
            if (sendmsg(fd, &header, MSG_NOSIGNAL) != static_cast<ssize_t>(message.bytes)) {
                fprintf(stderr, "the floor's write ended short\n");
                exit(1);
            }
        }
    }

    PlayerProcess &players_;
    const std::vector<Frame> second_ = OneSecond();
    std::vector<PlainMessage> messages_;
    std::vector<int> sockets_;
};

// --------------------------------------------------------------------------------------------- the library

enum class Path { Copying, File };

constexpr uint32_t kMonitor = 0;
constexpr uint32_t kThreaded = RTMP_SENDER_THREADED;

void Swallow(void *, uint8_t, const char *, va_list) {}

RtmpLogger g_silent = {Swallow, &g_silent};

class Library {
  public:
    // `rules`: RTMP_PLAYERS_... of the players.
    Library(PlayerProcess &players, uint32_t count, uint32_t mode, Path path, uint32_t rules)
        : players_(players), mode_(mode), path_(path)
    {
        int err = 0;
        const uint16_t port = port_ = FreePort();
        server_ = RtmpServerCreate(&g_silent, "lo", port, 0, 0, kChunkSize, &err);
        RtmpPlayerSettings(server_, rules);
        session_ = server_ != nullptr ? RtmpSessionCreate(server_, "live", &err) : nullptr;
        if (session_ == nullptr) {
            fprintf(stderr, "no session: %d\n", err);
            exit(1);
        }
        RtmpSenderSettings(session_, mode, 0, 0, 1, 255, 5, 100, 100);
        const uint8_t video[] = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40,
                                 0x16, 0xE8, 0x40, 0, 0,    0,    1,    0x68, 0xCE, 0x3C, 0x80};
        const uint8_t audio[] = {0x12, 0x10};
        const VideoMediaInfo videoInfo = {7, 4000000, {0, 0, 0}, sizeof video, video};
        const AudioMediaInfo audioInfo = {10, 0, sizeof audio, audio};
        if (RtmpAddMediaInfo(session_, &videoInfo, &audioInfo) != 0) {
            exit(1);
        }
        mapFrames();
        // What the first player brings into memory, such as the cipher library's pages, it does once for all.
        players.connectPlayers(port, 1);
        sendFrame(second_[0], 0);
        players.disconnectAll();
        const double before = ResidentKiB();
        players.connectPlayers(port, count);
        for (int i = 0; i < kFramesPerSecond; i++) {
            sendFrame(second_[static_cast<size_t>(i)], 0);
            waitUntilSent();
        }
        players.waitUntilDrained();
        residentPerPlayer_ = (ResidentKiB() - before) / count;
        count_ = count;
    }
    ~Library()
    {
        RtmpSessionDestroy(session_); // while the silent logger is still there
        RtmpServerDestroy(server_);
        munmap(map_, mapSize_);
        close(file_);
    }

    void run(Cost &cost, int seconds)
    {
        for (int i = 0; i < seconds; i++) {
            epoch_ += 1000;
            for (const Frame &frame : second_) {
                const uint64_t allocationsBefore = g_allocations;
                const double before = CpuSeconds();
                sendFrame(frame, epoch_);
                waitUntilSent();
                cost.cpu += CpuSeconds() - before;
                cost.allocations += g_allocations - allocationsBefore;
                if (frame.type == RTMP_FRAME_VIDEO) {
                    players_.waitUntilDrained();
                }
            }
            cost.gigabytes += secondBytes_ * count_ / 1e9;
            cost.frames += second_.size();
        }
    }

    uint16_t port() const
    {
        return port_;
    }

    double residentPerPlayer() const
    {
        return residentPerPlayer_;
    }

    // Microseconds within which 99.9 % of the calls of RtmpSendData return.
    double slowestCalls(int frames)
    {
        std::vector<double> calls;
        for (int i = 0; i < frames; i++) {
            const Frame &frame = second_[static_cast<size_t>(i) % second_.size()];
            epoch_ += 10;
            const auto before = std::chrono::steady_clock::now();
            sendFrame(frame, epoch_);
            calls.push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - before).count());
            usleep(500);
        }
        std::sort(calls.begin(), calls.end());
        return calls[calls.size() * 999 / 1000];
    }

  private:
    // The threaded sender's work counts as well: until its video ring is empty.
    void waitUntilSent() const
    {
        while (mode_ == kThreaded &&
               __atomic_load_n(&session_->Queue->VideoBuffer->Count, __ATOMIC_ACQUIRE) > 0) {
            usleep(200);
        }
    }

    void mapFrames()
    {
        mapSize_ = 4 << 20;
        file_ = memfd_create("frames", 0);
        if (ftruncate(file_, static_cast<off_t>(mapSize_)) != 0) {
            exit(1);
        }
        map_ = static_cast<uint8_t *>(mmap(nullptr, mapSize_, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0));
        size_t at = 0;
        for (const Frame &frame : second_) {
            memcpy(map_ + at, frame.bytes.data(), frame.bytes.size());
            offsets_.push_back(at);
            at += frame.bytes.size();
        }
    }

    void sendFrame(const Frame &frame, uint64_t epoch)
    {
        const bool fromFile = path_ == Path::File && frame.type == RTMP_FRAME_VIDEO;
        const size_t index = static_cast<size_t>(&frame - second_.data());
        const uint8_t *data = fromFile ? map_ + offsets_[index] : frame.bytes.data();
        RtmpSendData(session_, data, static_cast<int32_t>(frame.bytes.size()), fromFile ? file_ : 0,
                     reinterpret_cast<uintptr_t>(map_), 1000000 + epoch + frame.timestamp, frame.type);
    }

    PlayerProcess &players_;
    const uint32_t mode_;
    const Path path_;
    const std::vector<Frame> second_ = OneSecond();
    const double secondBytes_ = BytesOf(second_);
    std::vector<size_t> offsets_;
    RtmpServer *server_ = nullptr;
    RtmpSession *session_ = nullptr;
    uint64_t epoch_ = 0;
    uint32_t count_ = 1;
    double residentPerPlayer_ = 0;
    uint16_t port_ = 0;
    int file_ = -1;
    uint8_t *map_ = nullptr;
    size_t mapSize_ = 0;
};

void PrintRow(uint32_t count, const char *sender, const Cost &cost, const Cost &floor, double residentKiB)
{
    printf("%6u  %-20s %10.3f %10.3f %8.2f", count, sender, cost.perGb(), floor.perGb(),
           cost.perGb() / floor.perGb());
    if (residentKiB >= 0) {
        printf(" %10.1f", residentKiB);
    }
    printf(" %12.4f\n", static_cast<double>(cost.allocations) / static_cast<double>(cost.frames) / count);
    fflush(stdout);
}

void Measure(uint32_t count, uint32_t mode, Path path, uint32_t rules, const char *sender)
{
    PlayerProcess players;
    Library library(players, count, mode, path, rules);
    Floor floor(players, count);
    Cost libraryCost;
    Cost floorCost;
    // Turn about, so that whatever else the machine does meets both. Frames come one at a time, as from an
    // encoder: nobody's socket is full when the next one is due.
    const int seconds = count < 50 ? 10 : 2;
    for (int round = 0; round < 5; round++) {
        floor.run(floorCost, seconds);
        library.run(libraryCost, seconds);
    }
    PrintRow(count, sender, libraryCost, floorCost, library.residentPerPlayer());
}

// Does the threaded sender keep a player that takes nothing off the producer's thread?
void MeasureProducer()
{
    constexpr int kFrames = 4000;
    PlayerProcess players;
    Library library(players, 10, kThreaded, Path::Copying, RTMP_PLAYERS_EXACT);
    const double without = library.slowestCalls(kFrames);
    players.connectStalled(library.port());
    const double with = library.slowestCalls(kFrames);
    printf("\nRtmpSendData, threaded sender, 10 players: 99.9 %% of %d calls within %.0f us; with a stalled "
           "player "
           "beside them %.0f us (ratio %.2f)\n",
           kFrames, without, with, with / without);
}

// Each row has a process of its own: memory that one leaves behind is not the next one's.
template <typename Work> void InOwnProcess(Work work)
{
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        work();
        fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) {
        fprintf(stderr, "a row failed\n");
        exit(1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);

    std::vector<uint32_t> counts = {1, 50, 200, 1000};
    if (argc > 1) {
        counts.clear();
        for (int i = 1; i < argc; i++) {
            counts.push_back(static_cast<uint32_t>(strtoul(argv[i], nullptr, 10)));
        }
    }
    printf("players  sender              CPU s/GB   floor s/GB    ratio  KiB/player  "
           "allocations/frame/player\n");
    for (const uint32_t count : counts) {
        InOwnProcess([=] { Measure(count, kMonitor, Path::Copying, RTMP_PLAYERS_EXACT, "monitor"); });
        InOwnProcess(
            [=] { Measure(count, kMonitor, Path::Copying, RTMP_PLAYERS_ALL, "monitor, all rules"); });
        InOwnProcess([=] { Measure(count, kThreaded, Path::Copying, RTMP_PLAYERS_EXACT, "threaded"); });
    }
    const uint32_t fromFile = std::min(200U, counts.back());
    InOwnProcess([=] { Measure(fromFile, kMonitor, Path::File, RTMP_PLAYERS_EXACT, "monitor, from file"); });
    InOwnProcess(MeasureProducer);
    return 0;
}
