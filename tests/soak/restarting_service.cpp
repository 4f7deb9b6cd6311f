#include "soak/restarting_service.h"

#include "support/amf_bytes.h"

#include <arpa/inet.h>
#include <bit>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace amf0;

namespace soak {
namespace {

constexpr size_t kPacket = 1536;
using Clock = std::chrono::steady_clock;

// A command's name, and the number behind it.
std::string CommandOf(const Bytes &payload, double &transaction)
{
    const size_t length = payload.size() > 3 ? payload[2] : 0;
    if (payload.size() < 3 + length + 9) {
        return "";
    }
    uint64_t bits = 0;
    for (size_t at = 0; at < 8; ++at) {
        bits = bits << 8 | payload[3 + length + 1 + at];
    }
    transaction = std::bit_cast<double>(bits);
    return {payload.begin() + 3, payload.begin() + 3 + static_cast<ptrdiff_t>(length)};
}

Bytes Started()
{
    return Values({String("onStatus"), Number(0), Null(),
                   Object({{"level", String("status")},
                           {"code", String("NetStream.Publish.Start")},
                           {"description", String("text")}})})
        .bytes;
}

} // namespace

RestartingService::RestartingService(Recording &recording, uint32_t seed)
    : recording_(recording), random_(seed)
{
    listen();
    thread_ = std::thread([this] { run(); });
}

RestartingService::~RestartingService()
{
    {
        const std::lock_guard<std::mutex> held(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
    if (listener_ >= 0) {
        close(listener_);
    }
}

void RestartingService::still()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isStill_ = true;
    changed_.notify_all();
}

void RestartingService::flow()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isStill_ = false;
}

int RestartingService::draw(int from, int to)
{
    return std::uniform_int_distribution<int>(from, to)(random_);
}

// On the port that it had, if it had one.
void RestartingService::listen()
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address), length) != 0 || ::listen(listener_, 5) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        close(listener_);
        listener_ = -1; // somebody has the port for a moment
    }
    port_ = listener_ >= 0 ? ntohs(address.sin_port) : port_;
}

bool RestartingService::isWanted()
{
    const std::lock_guard<std::mutex> held(mutex_);
    return !stop_;
}

bool RestartingService::goesOn(Clock::time_point death)
{
    const std::lock_guard<std::mutex> held(mutex_);
    return !stop_ && (isStill_ || Clock::now() < death);
}

void RestartingService::stayAway()
{
    std::unique_lock<std::mutex> held(mutex_);
    changed_.wait_for(held, std::chrono::milliseconds(draw(100, 1500)), [this] { return stop_ || isStill_; });
}

int RestartingService::acceptOne()
{
    pollfd entry = {listener_, POLLIN, 0};
    return poll(&entry, 1, 100) == 1 ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

void RestartingService::run()
{
    while (isWanted()) {
        if (listener_ < 0) {
            listen();
        }
        const int fd = listener_ >= 0 ? acceptOne() : -1;
        if (fd >= 0) {
            serve(fd);
        }
    }
}

// Until it dies, at some moment of the connection; then it is away for a while.
void RestartingService::serve(int fd)
{
    wire::ScriptedPeer peer(wire::Connected{fd}, 60000);
    peer.chunks.standard = true;
    peer.socket.keepRecord(false);
    const Clock::time_point death =
        Clock::now() + std::chrono::milliseconds(draw(0, 3) == 0 ? 5 : draw(500, 6000));
    recording_.begin();
    try {
        peer.socket.receive(1 + kPacket);
        peer.socket.send(Bytes(1 + 2 * kPacket, 3));
        peer.socket.receive(kPacket);
        while (goesOn(death)) {
            answer(peer, peer.read());
        }
    } catch (const wire::PeerError &) { // the host has gone first
    }
    recording_.end();
    if (!isWanted()) {
        return;
    }
    close(listener_);
    listener_ = -1;
    draw(0, 1) == 0 ? peer.socket.reset() : peer.socket.leave();
    ++restarts;
    stayAway();
}

void RestartingService::answer(wire::ScriptedPeer &peer, const wire::Message &message)
{
    if (message.type != 20) {
        recording_.take(message.type, message.timestamp, message.payload.data(), message.payload.size());
        return;
    }
    double transaction = 0;
    const std::string command = CommandOf(message.payload, transaction);
    if (command == "connect") {
        peer.command(Values({String("_result"), Number(transaction), Null(), Null()}).bytes);
    } else if (command == "createStream") {
        peer.command(Values({String("_result"), Number(transaction), Null(), Number(1)}).bytes);
    } else if (command == "publish") {
        peer.command(Started());
    }
}

} // namespace soak
