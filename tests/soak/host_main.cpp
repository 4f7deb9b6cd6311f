// The host of a soak: three servers on two roads, in both sender modes, two publishers, frames of its own. It
// does what the other end of its control socket says, a line a time, and answers each with a line:
//
//   publish PORT PORT   begin to publish to these two services             ok
//   still, flow         let the fleeting sessions be, or not               ok
//   figures             what it knows of itself: see answerFigures
//   sweep               close what the exact road has left open            number of descriptors
//   fault NAME          go wrong on purpose, as scripts/soak.sh --fault    ok
//   end                 destroy everything, whoever is there               ok
//   ports               of the servers; that of TLS; the second port         five numbers
//   left                descriptors and threads beside its first ones      two numbers
#include "soak/fleeting_session.h"
#include "soak/publication.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <future>
#include <malloc.h>
#include <memory>
#include <openssl/crypto.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

namespace soak {
namespace {

void ReturnAtOnce(int) {}

// Bytes in use, exactly; a sanitizer has an allocator of its own.
size_t BytesInUse()
{
    if (&__sanitizer_get_current_allocated_bytes != nullptr) {
        return __sanitizer_get_current_allocated_bytes();
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

int Threads()
{
    DIR *directory = opendir("/proc/self/task");
    int count = 0;
    while (const dirent *entry = readdir(directory)) {
        count += entry->d_name[0] != '.';
    }
    closedir(directory);
    return count;
}

// What there is before the first server; a sanitizer has begun its own thread with the first one of the
// program.
int ThreadsBesideOne()
{
    std::promise<void> counted;
    std::thread one([&counted] { counted.get_future().wait(); });
    const int threads = Threads() - 1;
    counted.set_value();
    one.join();
    return threads;
}

class Host {
  public:
    explicit Host(uint32_t seed);
    ~Host();
    std::string answer(const std::string &line);

  private:
    std::string answerFigures();
    void publish(const std::string &ports);
    void goWrong(const std::string &how);
    void stillFaults();
    void leakSteadyConnection();
    int sweep() const;
    void end();

    const int ownDescriptors_ = OpenDescriptors() - 1; // that of the shared memory is closed
    const int ownThreads_ = ThreadsBesideOne();
    Progress *progress_;
    Feed feed_;
    std::unique_ptr<BusyServer> servers_[kServers];
    std::unique_ptr<FrameFeeder> feeders_[kLastingCount];
    std::unique_ptr<FleetingSession> fleeting_[2];
    std::unique_ptr<Publication> publications_[2];
    uint16_t portOf_[kServers] = {};
    std::string fault_;
    bool hasLeaked_ = false; // in this tide
};

Host::Host(uint32_t seed)
{
    void *shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED, kProgressDescriptor, 0);
    progress_ = static_cast<Progress *>(shared);
    close(kProgressDescriptor);
    feed_.progress = progress_;
    for (int each = 0; each < kServers; ++each) {
        servers_[each] = std::make_unique<BusyServer>(static_cast<ServerIndex>(each));
        portOf_[each] = servers_[each]->port;
    }
    for (int each = 0; each < kLastingCount; ++each) {
        BusyServer &server = *servers_[kLasting[each].server];
        feeders_[each] = std::make_unique<FrameFeeder>(server, kLasting[each], each, feed_);
    }
    fleeting_[0] = std::make_unique<FleetingSession>(*servers_[kExact], feed_, seed);
    fleeting_[1] = std::make_unique<FleetingSession>(*servers_[kSteady], feed_, seed + 1);
}

Host::~Host()
{
    munmap(progress_, sizeof(Progress));
}

void Host::publish(const std::string &ports)
{
    unsigned exact = 0, steady = 0;
    sscanf(ports.c_str(), "%u %u", &exact, &steady);
    RtmpSession *first = feeders_[kSessionOf[kExactService]]->session;
    RtmpSession *second = feeders_[kSessionOf[kSteadyService]]->session;
    publications_[0] = std::make_unique<Publication>(*servers_[kToday], first, static_cast<uint16_t>(exact));
    publications_[1] =
        std::make_unique<Publication>(*servers_[kSteady], second, static_cast<uint16_t>(steady));
}

// bytes in use, frames taken, sessions made, frames dropped, viewers accepted and left, publishing
// connections
std::string Host::answerFigures()
{
    uint64_t dropped = feed_.dropped, published = 0;
    for (const std::unique_ptr<FrameFeeder> &each : feeders_) {
        dropped += each->droppedFrames();
    }
    for (const std::unique_ptr<FleetingSession> &each : fleeting_) {
        dropped += each->droppedFrames();
    }
    for (const std::unique_ptr<Publication> &each : publications_) {
        published += each != nullptr ? each->connections.load() : 0;
    }
    const unsigned long long accepted = ViewersAccepted(), left = ViewersLeft(), frames = feed_.frames,
                             sessions = feed_.sessions;
    char text[256];
    snprintf(text, sizeof text, "%zu %llu %llu %llu %llu %llu %llu", BytesInUse(), frames, sessions,
             static_cast<unsigned long long>(dropped), accepted, left,
             static_cast<unsigned long long>(published));
    return text;
}

void Host::goWrong(const std::string &how)
{
    fault_ = how;
    if (how == "hole") {
        feed_.lostPicture = static_cast<int64_t>(progress_->pictures[kSteadyPlayer] + 100);
    } else if (how == "refusal") {
        RefuseViewers();
    }
}

// What a fault adds to each tide.
void Host::stillFaults()
{
    static std::vector<std::vector<char>> kept;
    if (fault_ == "memory") {
        kept.emplace_back(200000);
    } else if (fault_ == "descriptor") {
        fcntl(kControlDescriptor, F_DUPFD_CLOEXEC, 0);
    } else if (fault_ == "thread") {
        std::thread([] { pause(); }).detach();
    } else if (fault_ == "lag") {
        feed_.heldMs += 1000;
    }
}

// Once in a tide: what a road that forgot to close would leave.
void Host::leakSteadyConnection()
{
    if (fault_ == "steady_descriptor" && !hasLeaked_) {
        hasLeaked_ = fcntl(SomeConnectionOf(portOf_[kSteady]), F_DUPFD_CLOEXEC, 0) >= 0;
    }
}

// The steady road leaves nothing open, and neither do publishers.
int Host::sweep() const
{
    return SweepLeftDescriptors(portOf_[kExact]) + SweepLeftDescriptors(portOf_[kToday]);
}

// With whoever is there. The first publisher is told to stop, the second one ends with its session.
void Host::end()
{
    feed_.waitsForRecorders = false;
    publications_[0]->stop();
    publications_[0].reset();
    publications_[1]->endWithSession();
    for (std::unique_ptr<FleetingSession> &each : fleeting_) {
        each.reset();
    }
    for (std::unique_ptr<FrameFeeder> &each : feeders_) {
        each.reset();
    }
    publications_[1].reset();
    for (std::unique_ptr<BusyServer> &each : servers_) {
        each.reset();
    }
}

std::string Host::answer(const std::string &line)
{
    const std::string word = line.substr(0, line.find(' '));
    const std::string rest = line.size() > word.size() ? line.substr(word.size() + 1) : "";
    if (word == "figures") {
        leakSteadyConnection();
        return answerFigures();
    }
    if (word == "sweep") {
        return std::to_string(sweep());
    }
    if (word == "left") {
        return std::to_string(OpenDescriptors() - ownDescriptors_) + " " +
               std::to_string(Threads() - ownThreads_);
    }
    if (word == "ports") {
        std::string ports;
        for (const std::unique_ptr<BusyServer> &each : servers_) {
            ports += std::to_string(each->port) + " ";
        }
        return ports + std::to_string(servers_[kSteady]->tlsPort) + " " +
               std::to_string(servers_[kSteady]->tunnelPort);
    }
    if (word == "publish") {
        publish(rest);
    } else if (word == "still") {
        stillFaults();
        fleeting_[0]->still();
        fleeting_[1]->still();
    } else if (word == "flow") {
        hasLeaked_ = false;
        fleeting_[0]->flow();
        fleeting_[1]->flow();
    } else if (word == "fault") {
        goWrong(rest);
    } else if (word == "end") {
        end();
    }
    return "ok";
}

// A line from the control socket; empty: the other end has gone.
std::string ReadLine()
{
    std::string line;
    char byte;
    while (recv(kControlDescriptor, &byte, 1, 0) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}

int Run(uint32_t seed)
{
    struct sigaction action = {};
    action.sa_handler = ReturnAtOnce; // no SA_RESTART: a blocked write must fail
    sigaction(SIGUSR1, &action, nullptr);
    HandleSignal();
    OPENSSL_init_crypto(0, nullptr);
    Host host(seed);
    for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) {
        const std::string answer = host.answer(line) + "\n";
        send(kControlDescriptor, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
    return 0;
}

} // namespace
} // namespace soak

int main(int, char **argv)
{
    return soak::Run(argv[1] != nullptr ? static_cast<uint32_t>(atoi(argv[1])) : 1);
}
