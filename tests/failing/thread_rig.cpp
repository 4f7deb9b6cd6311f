#include "failing/thread_rig.h"

#include "net/atomic.h"
#include "steady/records.h"
#include "steady/steady_server.h"
#include "support/host_fakes.h"
#include "support/session_rig.h"
#include "support/test_server.h"

#include <csignal>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <thread>

namespace thread_trials {
namespace {

using namespace wire;

constexpr int kPeerDeadline = 10000; // milliseconds, of whoever is served
constexpr size_t kShort = 600;
constexpr int kFrameMs = 40;
constexpr size_t kLong = 400000; // more than the sockets between host and player hold
constexpr int kNarrow = 65536;

// Lines by which a host learns of the end of a thread that serves more than one player.
constexpr const char *kEndsOfThreads[] = {
    "Sending message to connected clients failed", // the sender's: KEPT, at this level
    "Exiting RTMP connection accept thread",
};

bool Tells(uint8_t level, const char *format)
{
    bool tells = level == RTMP_LOG_ERROR;
    for (const char *text : kEndsOfThreads) {
        tells = tells || strstr(format, text) != nullptr;
    }
    return tells;
}

// ---------------------------------------------------------------------------------- TLS that is none

int *SocketOf(void *handle)
{
    return static_cast<int *>(handle);
}

// Bytes pass in the clear. Not through recv and send, which fail on their own account.
void ShowHandles()
{
    HostFakes &fakes = HostFakes::get();
    fakes.tlsAccept = [](int fd, const std::string &) { return reinterpret_cast<ssl_st *>(new int(fd)); };
    fakes.tlsEnd = [](ssl_st *handle) { delete reinterpret_cast<int *>(handle); };
    fakes.sslRead = [](void *handle, void *buffer, int length) {
        return static_cast<int>(
            recvfrom(*SocketOf(handle), buffer, static_cast<size_t>(length), 0, nullptr, nullptr));
    };
    fakes.sslWrite = [](void *handle, const void *buffer, int length) {
        return static_cast<int>(
            sendto(*SocketOf(handle), buffer, static_cast<size_t>(length), MSG_NOSIGNAL, nullptr, 0));
    };
}

// ------------------------------------------------------------------------------------------ sockets

uint16_t PortOf(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0 ? ntohs(address.sin_port)
                                                                                 : 0;
}

bool IsOver(int fd)
{
    pollfd entry = {fd, POLLIN | POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

std::set<int> Descriptors()
{
    std::set<int> all;
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            all.insert(atoi(entry->d_name));
        }
    }
    all.erase(dirfd(directory));
    closedir(directory);
    return all;
}

uint32_t NumberIn(const Message &message)
{
    const Bytes &body = message.payload;
    return static_cast<uint32_t>(body[10]) << 8 | body[11];
}

const Bytes &LongPicture()
{
    static const Bytes picture = VideoFrame(kLong, 0x65);
    return picture;
}

bool IsThreadedExactly(const Way &way)
{
    return way.road == Road::Exact && way.mode == RTMP_SENDER_THREADED;
}

std::string NewFolder()
{
    std::string name = testing::TempDir() + "threads.XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    return name;
}

} // namespace

// ------------------------------------------------------------------------------------------- watch

void Watch::begin()
{
    const std::lock_guard<std::mutex> held(mutex_);
    watches_ = true;
    told_ = false;
}

void Watch::over(int player)
{
    const std::lock_guard<std::mutex> held(mutex_);
    player_ = player;
    endWaiting();
}

void Watch::end()
{
    const std::lock_guard<std::mutex> held(mutex_);
    watches_ = false;
    player_ = -1;
}

// The caller holds the mutex.
void Watch::endWaiting()
{
    if (told_ && player_ >= 0) {
        (void)syscall(SYS_shutdown, player_, SHUT_RDWR); // not the call that may have to fail
    }
}

void Watch::Log(void *context, uint8_t level, const char *format, va_list arguments)
{
    Watch *self = static_cast<Watch *>(context);
    self->log.get()->LogFunction(self->log.get()->LogContext, level, format, arguments);
    const std::lock_guard<std::mutex> held(self->mutex_);
    if (self->watches_ && Tells(level, format)) {
        self->told_ = true;
        self->endWaiting();
    }
}

// ------------------------------------------------------------------------------------------ ground

Ground::Ground(const Way &way) : way_(way)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    HostFakes::get().reset();
    ShowHandles();
    server = RtmpServerCreate(watch.logger(), "lo", 1935, 0, 0, 4096, nullptr); // on a port that is free
    RtmpServiceLimits limits = {};
    limits.TlsPort = way.overTls ? 4433 : 0;
    limits.StallMilliseconds = way.stallMilliseconds;
    if (way.road == Road::Steady) {
        EXPECT_EQ(RtmpServiceSettings(server, &limits), 0);
    }
    port = PortOf(way.overTls ? server->Service->TlsSocket : server->RtmpSocket);
    if (IsThreadedExactly(way)) {
        folder_ = NewFolder();
    }
    openSession();
}

void Ground::openSession()
{
    session = RtmpSessionCreate(server, "cam", nullptr);
    EXPECT_EQ(RtmpSenderSettings(session, way_.mode, 0, 0, 1, 255, 5, 30, 30), 0);
    EXPECT_EQ(RtmpDebugSettings(session, folder_.empty() ? 0 : 1, 0, 1, folder_.c_str(), 0), 0);
    EXPECT_EQ(AddRigMedia(session), 0);
}

Ground::~Ground()
{
    HostFakes::get().reset();
    if (!folder_.empty()) {
        std::filesystem::remove_all(folder_);
    }
}

void Ground::destroy()
{
    if (server == nullptr) {
        return;
    }
    testing::internal::CaptureStdout(); // where the last lines go
    EXPECT_EQ(RtmpServerDestroy(server), 0);
    (void)testing::internal::GetCapturedStdout();
    server = nullptr;
}

bool Ground::waitUntilAlone()
{
    return server == nullptr || WaitUntil([this] { return LoadShared(&server->Holders) == 1; });
}

void Ground::join(ScriptedPeer &player)
{
    player.socket.keepRecord(false);
    player.chunks.standard = true;
    player.created();
    player.command(PlayCommand("cam"));
    player.read(7);
    waitUntilItPlays();
}

// Its last answer comes before its state moves.
void Ground::waitUntilItPlays()
{
    EXPECT_TRUE(WaitUntil([this] {
        UNLOCK_AT_EXIT RtmpMutex *held = HoldLeaf(&session->MemberLock);
        const RtmpClient *newest = session->MemberTail;
        const bool plays = newest != nullptr && ClientStateOf(newest) == CLIENT_STATE_PLAY_DONE;
        if (plays) {
            steady::Narrow(newest, kNarrow);
        }
        return plays || watch.hasTold();
    }));
    seen_ = way_.road == Road::Exact ? sent_ : 0; // on the steady road it begins with what there is
}

void Ground::pauseAndGoOn(ScriptedPeer &player)
{
    player.command(PauseCommand(true));
    player.read(1);
    player.command(PauseCommand(false));
    player.read(7);
    waitUntilItPlays();
}

void Ground::sendPicture(size_t length)
{
    time_ += 40;
    sent_++;
    Bytes picture = length == kLong ? LongPicture() : VideoFrame(length, 0x65);
    picture[5] = static_cast<uint8_t>(sent_ >> 8);
    picture[6] = static_cast<uint8_t>(sent_);
    (void)SendAudio(session, {1, 2, 3}, time_);
    (void)SendVideo(session, picture, time_); // whom it does not reach will say so
}

void Ground::look(const Message &message)
{
    if (message.type != 9) {
        return;
    }
    const uint32_t number = NumberIn(message);
    EXPECT_TRUE(seen_ == 0 || number == seen_ + 1) << "picture " << number << " behind " << seen_;
    seen_ = number;
}

// The host does not wait for its players: it sends on.
void Ground::watchPictures(ScriptedPeer &player, const std::vector<size_t> &lengths)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPeerDeadline);
    for (const size_t length : lengths) {
        sendPicture(length);
        while (seen_ != sent_) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw PeerError("no picture comes");
            }
            if (player.socket.hasBytes(kFrameMs)) {
                look(player.read());
            } else {
                sendPicture(kShort);
            }
        }
    }
}

void Ground::endIt()
{
    if (way_.ending == Ending::SessionIsDestroyed) {
        EXPECT_EQ(RtmpSessionDestroy(session), 0);
        openSession();
    } else if (way_.ending == Ending::ServerIsDestroyed) {
        destroy();
    }
}

Fate Ground::fateOf(ScriptedPeer &player, const std::function<void()> &way)
{
    Fate fate = Fate::Served;
    watch.over(player.socket.descriptor());
    try {
        way();
    } catch (const PeerError &error) {
        const bool over = IsOver(player.socket.descriptor());
        fate = watch.hasTold() ? Fate::Told : over ? Fate::Ended : Fate::Lost;
        EXPECT_NE(fate, Fate::Lost) << error.what();
    }
    watch.end();
    return fate;
}

// A long picture is written in parts, as the player takes them: by the sender, which waits, or by the keeper.
// Without either it would be the host's own thread that waits.
Fate Ground::visit(const std::function<void(Step)> &begins)
{
    begins(Step::Connects);
    watch.begin();
    ScriptedPeer player(port, kPeerDeadline);
    const Fate fate = fateOf(player, [&] {
        join(player);
        begins(Step::Plays);
        if (way_.from == Step::Connects) {
            pauseAndGoOn(player);
        }
        watchPictures(player, {kShort, way_.from == Step::Plays ? kLong : kShort, kShort});
    });
    begins(Step::Ends);
    endIt();
    return fate;
}

Fate Ground::visitAgain()
{
    watch.begin();
    ScriptedPeer player(port, kPeerDeadline);
    return fateOf(player, [&] {
        join(player);
        seen_ = 0; // the first picture may have gone to a sender that was about to end
        watchPictures(player, {kShort});
    });
}

// --------------------------------------------------------------------------------------- footprint

Footprint::Footprint()
{
    std::thread([] {}).join(); // sanitizers begin a thread of their own beside the first
    descriptors_ = Descriptors();
    threads_ = RunningThreads();
}

int Footprint::expectOnly(uint16_t port)
{
    EXPECT_TRUE(WaitUntil([this] { return RunningThreads() <= threads_; }));
    int connections = 0;
    for (const int fd : Descriptors()) {
        if (descriptors_.count(fd) == 0) {
            EXPECT_EQ(PortOf(fd), port) << "descriptor " << fd;
            connections++;
            ::close(fd);
        }
    }
    return connections;
}

} // namespace thread_trials
