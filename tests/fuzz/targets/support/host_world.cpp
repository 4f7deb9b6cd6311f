#include "support/host_world.h"

#include "net/client_state.h"
#include "net/scope.h"
#include "state/client.h"
#include "support/fuzz_threads.h"
#include "support/host_fakes.h"
#include "support/test_server.h"
#include "support/wait.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace host {
namespace {

constexpr int kEndMs = 20000; // for all threads of an input
constexpr uint8_t kNull = 255;

std::atomic<uint32_t> g_rounds = 0; // of all serve loops; an end is one, too

// The last lines of all servers, for whoever looks at a finding.
constexpr size_t kKeptLines = 32, kKeptLength = 160;
char g_lines[kKeptLines][kKeptLength];
size_t g_lineCount = 0;
std::mutex g_linesLock;

void KeepLine(const char *line)
{
    const std::lock_guard<std::mutex> held(g_linesLock);
    snprintf(g_lines[g_lineCount++ % kKeptLines], kKeptLength, "%s", line);
}

[[noreturn]] void AbortWithLines()
{
    const std::lock_guard<std::mutex> held(g_linesLock);
    for (size_t i = 0; i < kKeptLines; i++) {
        fprintf(stderr, "| %s", g_lines[(g_lineCount + i) % kKeptLines]);
    }
    fprintf(stderr, "\n");
    abort();
}

bool StartsWith(const char *text, const char *start)
{
    return strncmp(text, start, strlen(start)) == 0;
}

bool IsRound(const char *format)
{
    return StartsWith(format, "INFO: %s: Serving RTMP Client") ||
           strstr(format, "Exiting ServeRtmpClient") != nullptr ||
           strstr(format, "Exiting Server RtmpClient") != nullptr;
}

// What may be called with any lock held: what takes none.
void CallBack(RtmpLogger *logger)
{
    static thread_local bool isInside = false;
    if (!isInside) {
        isInside = true;
        RtmpLogPrint(logger, RTMP_LOG_INFO, "a line of the host's, %d\n", 1);
        AmfObject list = {};
        Expect("WriteAmfNumber", WriteAmfNumber(nullptr, &list, "n", 1), {0});
        FreeAmfObject(nullptr, &list, 1);
        isInside = false;
    }
}

enum LogManner : uint8_t { LOG_READS = 0, LOG_CALLS_BACK = 1, LOG_IS_SLOW = 2, LOG_IS_NOWHERE = 3 };

void ReadLine(void *context, uint8_t level, const char *format, va_list arguments)
{
    Log *log = static_cast<Log *>(context);
    if (!log->isServerThere) {
        Break("a line for a logger whose server is gone");
    }
    if (level != RTMP_LOG_ERROR && level != RTMP_LOG_INFO) {
        Break("a level that is none");
    }
    char line[2048];
    const int length = vsnprintf(line, sizeof line, format, arguments);
    if (length <= 0 || (length < static_cast<int>(sizeof line) && line[length - 1] != '\n')) {
        Break("a line without an end");
    }
    KeepLine(line);
    g_rounds += IsRound(format);
    if (log->manner == LOG_CALLS_BACK) {
        CallBack(&log->logger);
    } else if (log->manner == LOG_IS_SLOW && log->lines++ % 16 == 0) {
        poll(nullptr, 0, 1);
    }
}

template <typename Thing> Thing *Pick(const std::vector<std::unique_ptr<Thing>> &things, uint8_t which)
{
    return which == kNull || things.empty() ? nullptr : things[which % things.size()].get();
}

template <typename Thing> void Drop(std::vector<std::unique_ptr<Thing>> &things, const Thing *thing)
{
    std::erase_if(things, [thing](const std::unique_ptr<Thing> &each) { return each.get() == thing; });
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// What a client must have received and sent for DestroyRtmpClient to take it out of its session.
void MakeDestroyable(RtmpClient *client)
{
    SetClientState(client, CLIENT_STATE_PAUSE_DONE);
    if (client->RecvPktCount == 0) {
        RtmpRecvPkt *pkt = static_cast<RtmpRecvPkt *>(calloc(1, sizeof *pkt));
        pkt->ChunkStreamId = 3;
        Expect("AddRecvPkt", AddRecvPkt(client, pkt), {0});
    }
    if (client->SendPktCount == 0) {
        RtmpSendPkt *message = GenerateRtmpMsg(client, nullptr, RTMP_MSG_WINDOW_ACK_SIZE);
        Expect("AddSendPkt", AddSendPkt(client, message), {0});
    }
}

} // namespace

void Break(const char *what)
{
    fprintf(stderr, "host_state: %s\n", what);
    AbortWithLines();
}

void Expect(const char *function, int64_t status, std::initializer_list<int64_t> named)
{
    for (const int64_t each : named) {
        if (status == each) {
            return;
        }
    }
    fprintf(stderr, "host_state: %s answers %lld\n", function, static_cast<long long>(status));
    AbortWithLines();
}

Log::Log(uint8_t kind) : logger{kind == LOG_IS_NOWHERE ? nullptr : ReadLine, this}, manner(kind) {}

const char *NameOf(uint8_t which)
{
    static const std::string longest(300, 'n');
    static const char *const names[] = {"a", "b", "%s%n%x", longest.c_str(), ""};
    return names[which % std::size(names)];
}

Bytes Blob(FuzzInput &input)
{
    const FuzzInput part = input.part(input.byte());
    return {part.data(), part.data() + part.size()};
}

// ------------------------------------------------------------------------------------------- frame thread

FrameThread::FrameThread()
{
    std::thread([this] { run(); }).detach();
}

void FrameThread::run()
{
    for (;;) {
        {
            std::unique_lock<std::mutex> held(lock_);
            changed_.wait(held, [this] { return session_ != nullptr; });
        }
        sendFrames();
        const std::lock_guard<std::mutex> held(lock_);
        session_ = nullptr;
        changed_.notify_all();
    }
}

void FrameThread::sendFrames()
{
    for (uint32_t i = 0; i < frames_; i++) {
        const Bytes frame = wire::VideoFrame(20 + 997 * i % 30000, i % 8 == 0 ? 0x65 : 0x41);
        const auto send = [&] {
            Expect("RtmpSendData beside others", wire::SendVideo(session_, frame, 5000 + 40 * i),
                   {0, RTMP_FAILED, RTMP_ERR_NO_MEDIA_INFO, RTMP_ERR_NO_CLIENT});
        };
        if (!calls_.make(send)) {
            return;
        }
    }
}

void FrameThread::send(RtmpSession *session, uint32_t frames)
{
    awaitEnd(nullptr);
    const std::lock_guard<std::mutex> held(lock_);
    calls_.begin();
    frames_ = frames;
    session_ = session;
    changed_.notify_all();
}

void FrameThread::awaitEnd(const RtmpSession *session)
{
    const HostPeers::Call waits;
    std::unique_lock<std::mutex> held(lock_);
    changed_.wait(held, [&] { return session_ == nullptr || (session != nullptr && session_ != session); });
}

void FrameThread::tellToEnd(RtmpSession *session)
{
    const std::lock_guard<std::mutex> held(lock_); // the thread is not done with the session meanwhile
    if (session_ == session && !calls_.end(session)) {
        Break("a frame that is handed over does not come into the library");
    }
}

// ------------------------------------------------------------------------------------------------- world

World::World()
{
    HostFakes::get().reset();
    (void)frames();
    (void)HostPeers::get();
    OpenFrameFiles();
    for (int fd = 0; fd < kDescriptors; fd++) {
        wasOpen_[fd] = IsOpen(fd);
    }
    threads_ = wire::RunningThreads();
}

FrameThread &World::frames()
{
    static FrameThread &thread = *new FrameThread;
    return thread;
}

Server *World::server(uint8_t which)
{
    return Pick(servers, which);
}

Session *World::session(uint8_t which)
{
    return Pick(sessions, which);
}

Player *World::player(uint8_t which)
{
    return Pick(players, which);
}

Client *World::client(uint8_t which)
{
    return Pick(clients, which);
}

Publisher *World::publisher(uint8_t which)
{
    return Pick(publishers, which);
}

void World::add(Server server)
{
    servers.push_back(std::make_unique<Server>(server));
}

void World::add(Session session)
{
    sessions.push_back(std::make_unique<Session>(session));
}

void World::settle(const Session *session)
{
    if (session != nullptr) {
        frames().awaitEnd(session->session);
    }
}

uint32_t World::rounds()
{
    return g_rounds;
}

void World::awaitRound(uint32_t roundsBefore) const
{
    constexpr int moment = 3;
    (void)WaitUntil([&] { return g_rounds != roundsBefore; }, moment); // the peer may have nobody who reads
}

// A session is not destroyed under clients and publishers whose thread would be the one that destroys it.
// `server` null: those of the session alone.
void World::leaveSession(const RtmpSession *session, const RtmpServer *server)
{
    const auto isConcerned = [&](const RtmpClient *each) {
        return server != nullptr ? each->Server == server : each->Session == session;
    };
    for (size_t i = clients.size(); i-- > 0;) {
        if (isConcerned(clients[i]->client)) {
            destroyClient(clients[i].get());
        }
    }
    for (size_t i = publishers.size(); i-- > 0;) {
        Publisher *each = publishers[i].get();
        if (!each->hasLived && isConcerned(RtmpPublisherClient(each->publisher)) &&
            RtmpPublisherClient(each->publisher)->Session != nullptr) {
            destroyPublisher(each);
        }
    }
}

void World::destroySession(Session *session)
{
    leaveSession(session->session, nullptr);
    frames().tellToEnd(session->session);
    {
        const HostPeers::Call waits;
        Expect("RtmpSessionDestroy", RtmpSessionDestroy(session->session), {0});
    }
    frames().awaitEnd(session->session);
    Drop(sessions, session);
}

void World::destroyServer(Server *server)
{
    leaveSession(nullptr, server->server);
    for (const std::unique_ptr<Session> &each : sessions) {
        if (each->server == server->server) {
            frames().tellToEnd(each->session);
        }
    }
    {
        const HostPeers::Call waits;
        Expect("RtmpServerDestroy", RtmpServerDestroy(server->server), {0});
    }
    if (server->log != nullptr) {
        server->log->isServerThere = false;
    }
    frames().awaitEnd(nullptr);
    std::erase_if(sessions,
                  [server](const std::unique_ptr<Session> &each) { return each->server == server->server; });
    Drop(servers, server);
}

void World::destroyClient(Client *client)
{
    const HostPeers::Call waits;
    const bool isMember = client->client->Session != nullptr;
    if (isMember) {
        frames().awaitEnd(client->client->Session);
        MakeDestroyable(client->client);
    }
    const int result = DestroyRtmpClient(client->client);
    Expect("DestroyRtmpClient", result, {0, -1});
    if (result != 0 && isMember) {
        Break("a client that has received and sent does not leave its session");
    }
    if (result != 0) {
        FreeClientRecord(client->client);
    }
    free(client->answers);
    close(client->fd);
    HostPeers::get().leave(client->seat, false);
    Drop(clients, client);
}

void World::destroyPublisher(Publisher *publisher)
{
    if (publisher->hasLived) {
        {
            const std::lock_guard<std::mutex> held(publisher->lock);
            if (!publisher->isDestroyed) {
                RtmpPublisherStop(publisher->publisher);
            }
        }
        publisher->thread.join();
    } else {
        const HostPeers::Call waits;
        RtmpPublisherDestroy(publisher->publisher);
    }
    close(publisher->fd);
    HostPeers::get().leave(publisher->seat, false);
    Drop(publishers, publisher);
}

void World::leave(Player *player, bool rudely)
{
    HostPeers::get().leave(player->seat, rudely);
    Drop(players, player);
}

const std::string &World::traceFolder()
{
    if (traceFolder_.empty()) {
        std::string name = std::filesystem::temp_directory_path() / "rtmpcast-host-state-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            Break("no folder for traces");
        }
        traceFolder_ = name;
    }
    return traceFolder_;
}

bool World::hasRoomForServer() const
{
    constexpr size_t mostServers = 2, mostEver = 6;
    return servers.size() < mostServers && logs.size() < mostEver;
}

void World::freeAmf()
{
    FreeAmfObject(nullptr, &built, 1);
    FreeAmfObject(nullptr, &decoded, 0);
    for (AmfObject &each : arrays) {
        FreeAmfObject(nullptr, &each, 1);
    }
}

void World::endThreads() const
{
    if (!fuzz_threads::WaitForAll(kEndMs)) {
        Break("threads of the library are left over");
    }
    (void)fuzz_threads::JoinTheRest(); // of refused connections
    if (!WaitUntil([this] { return wire::RunningThreads() == threads_; }, kEndMs)) {
        Break("threads are left over");
    }
}

// The exact road leaves the descriptors of its players open.
void World::closeWhatIsLeft() const
{
    size_t count = 0;
    for (int fd = 0; fd < kDescriptors; fd++) {
        if (!wasOpen_[fd] && IsOpen(fd)) {
            struct stat status = {};
            if (fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode)) {
                Break("a descriptor is left over that is no connection");
            }
            close(fd);
            count++;
        }
    }
    if (count > exactConnections) {
        Break("descriptors are left over");
    }
}

World::~World()
{
    while (!publishers.empty()) {
        destroyPublisher(publishers.back().get());
    }
    while (!servers.empty()) {
        destroyServer(servers.back().get());
    }
    while (!clients.empty()) {
        destroyClient(clients.back().get());
    }
    while (!players.empty()) {
        leave(players.back().get(), false);
    }
    freeAmf();
    endThreads();
    closeWhatIsLeft();
    if (!traceFolder_.empty()) {
        std::filesystem::remove_all(traceFolder_);
    }
    HostFakes::get().reset();
}

} // namespace host
