#include "soak/visits.h"

#include <cerrno>
#include <sys/socket.h>

namespace soak {
namespace {

constexpr int kViewerDeadlineMs = 60000;

} // namespace

const char *const kNameOfManner[kManners] = {"viewer",
                                             "leaves in the midst",
                                             "resets in the midst",
                                             "reads slowly",
                                             "stops reading",
                                             "commands in any order",
                                             "half handshake",
                                             "garbage",
                                             "one byte a second",
                                             "silent",
                                             "second port"};

// -------------------------------------------------------------------------------------------------------
// tide

void Tide::in()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isIn_ = true;
    changed_.notify_all();
}

void Tide::out()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isIn_ = false;
    changed_.notify_all();
}

void Tide::over()
{
    const std::lock_guard<std::mutex> held(mutex_);
    isIn_ = false;
    isOver_ = true;
    changed_.notify_all();
}

bool Tide::isIn() const
{
    const std::lock_guard<std::mutex> held(mutex_);
    return isIn_;
}

bool Tide::stay(int milliseconds)
{
    std::unique_lock<std::mutex> held(mutex_);
    changed_.wait_for(held, std::chrono::milliseconds(milliseconds), [this] { return !isIn_; });
    return isIn_;
}

bool Tide::waitUntilIn()
{
    std::unique_lock<std::mutex> held(mutex_);
    changed_.wait(held, [this] { return isIn_ || isOver_; });
    return !isOver_;
}

// ------------------------------------------------------------------------------------------------------
// visit

Visit::Visit(const Ports &ports, Tide &tide, std::mt19937 &random)
    : ports_(ports), tide_(tide), random_(random)
{
    choose();
}

Visit::~Visit() = default;

int Visit::draw(int from, int to)
{
    return std::uniform_int_distribution<int>(from, to)(random_);
}

void Visit::choose()
{
    static constexpr const char *kExactSessions[] = {"camera", "hall", kFleetingName};
    static constexpr const char *kSteadySessions[] = {"camera", "hall", kFleetingName};
    isSteady = draw(0, 99) < 55;
    overTls = isSteady && draw(0, 3) == 0;
    manner = static_cast<Manner>(draw(0, static_cast<int>(Manner::Silent)));
    session_ = isSteady ? kSteadySessions[draw(0, 2)] : kExactSessions[draw(0, 2)];
    port_ = overTls ? ports_.tls : isSteady ? ports_.steady : ports_.exact;
    isStandard_ = isSteady;
    if (!isSteady && draw(0, 2) == 0) {
        port_ = ports_.today;
        isStandard_ = true;
        session_ = "camera";
        isPolite = draw(0, 1) == 0;
    }
    if (isPolite) {
        session_ = "polite";
        manner = Manner::Viewer;
    }
    const bool isWithoutSteadyPlayer = session_ == kFleetingName || (!isSteady && session_ == "hall");
    isToSeePicture = manner == Manner::Viewer && !isWithoutSteadyPlayer;
    if (isSteady && manner == Manner::Silent && draw(0, 1) == 0) {
        manner = Manner::Tunnel;
        overTls = false;
        port_ = ports_.tunnel;
    }
}

void Visit::make()
{
    switch (manner) {
    case Manner::Slow:
        return readSlowly();
    case Manner::Stopped:
        return stopReading();
    case Manner::Wanderer:
        return wander();
    case Manner::HalfHandshake:
        return shakeHalfAHand();
    case Manner::Garbage:
        return talkGarbage();
    case Manner::Drip:
        return drip();
    case Manner::Silent:
    case Manner::Tunnel:
        return beSilent();
    default:
        return watchAndGo();
    }
}

void Visit::come(int deadlineMs)
{
    visitor_ = std::make_unique<Visitor>(port_, overTls, deadlineMs);
}

void Visit::joinIn()
{
    wire::HandshakeOptions handshake = {.seed = static_cast<uint32_t>(random_())};
    if (isStandard_ && draw(0, 1) == 0) {
        handshake = wire::kPlainHandshake;
    }
    handshake.scheme = handshake.scheme == 1 ? draw(1, 2) : 0;
    visitor_->play(session_, handshake);
}

// What has come, `most` bytes of it; false: the connection has ended.
bool Visit::readSome(size_t most)
{
    uint8_t bytes[16384];
    ssize_t got = 1;
    while (got > 0 && most > 0) {
        const size_t wanted = most < sizeof bytes ? most : sizeof bytes;
        got = recv(visitor_->peer->socket.descriptor(), bytes, wanted, MSG_DONTWAIT);
        most -= got > 0 ? static_cast<size_t>(got) : 0;
    }
    return got > 0 || (got < 0 && errno == EAGAIN);
}

// The tide may go out meanwhile: who has come to see something stays until then.
bool Visit::waitForPicture()
{
    visitor_->peer->chunks.standard = isStandard_;
    const int64_t deadline = MicrosNow() + kViewerDeadlineMs * int64_t{1000};
    while (MicrosNow() < deadline) {
        const wire::Message message = visitor_->peer->read();
        const std::optional<FrameMark> mark = MarkIn(message.payload.data(), message.payload.size());
        if (mark && mark->kind == Kind::Picture) {
            return true;
        }
    }
    return false;
}

bool Visit::readFor(int milliseconds)
{
    constexpr int kStep = 250;
    for (int spent = 0; spent < milliseconds; spent += kStep) {
        if (!readSome(SIZE_MAX) || !tide_.stay(kStep)) {
            return false;
        }
    }
    return true;
}

void Visit::goSomehow()
{
    if (draw(0, 1) == 0) {
        visitor_->peer->socket.reset();
    } else {
        visitor_->peer->socket.leave();
    }
}

void Visit::watchAndGo()
{
    come(isToSeePicture ? kViewerDeadlineMs : 5000);
    joinIn();
    sawPicture = isToSeePicture && waitForPicture();
    readFor(draw(200, 8000));
    if (manner == Manner::Resetter) {
        visitor_->peer->socket.reset();
    }
    if (manner != Manner::Viewer) {
        return;
    }
    if (isPolite) {
        parked = std::move(visitor_);
        parked->peer->command(wire::DeleteStreamCommand());
        return;
    }
    visitor_->peer->command(wire::DeleteStreamCommand());
}

void Visit::readSlowly()
{
    come();
    visitor_->peer->socket.setReceiveBuffer(4096);
    joinIn();
    for (int step = draw(1, 40); step > 0 && readSome(512) && tide_.stay(250); --step) {
    }
    goSomehow();
}

// On the exact road for a moment, which the kernel's buffers take: whoever takes longer there holds up the
// others.
void Visit::stopReading()
{
    come();
    if (isSteady) {
        visitor_->peer->socket.setReceiveBuffer(4096);
    }
    joinIn();
    tide_.stay(draw(100, isSteady ? 12000 : 4000));
    visitor_->peer->socket.reset();
}

void Visit::wander()
{
    come();
    joinIn();
    wire::ScriptedPeer &peer = *visitor_->peer;
    for (int step = draw(1, 20); step > 0 && readFor(250); --step) {
        switch (draw(0, 6)) {
        case 0:
            peer.command(wire::PauseCommand(true));
            break;
        case 1:
            peer.command(wire::PauseCommand(false));
            break;
        case 2:
            peer.command(wire::PlayCommand(session_));
            break;
        case 3:
            peer.command(wire::CreateStreamCommand());
            break;
        case 4:
            peer.pingRequest(static_cast<uint32_t>(random_()));
            break;
        case 5:
            peer.setChunkSize(static_cast<uint32_t>(draw(64, 5000)));
            break;
        default:
            if (draw(0, 5) == 0) {
                peer.command(wire::PlayCommand("nobody knows it"));
            }
        }
    }
    goSomehow();
}

void Visit::shakeHalfAHand()
{
    come(1000);
    wire::HandshakeOptions handshake = {.seed = static_cast<uint32_t>(random_())};
    handshake.stopAfter = static_cast<size_t>(draw(0, 3072));
    if (draw(0, 9) == 0) {
        handshake.version = static_cast<uint8_t>(draw(0, 255));
    }
    visitor_->peer->handshake(handshake);
    readFor(draw(0, 3) == 0 ? draw(0, 9000) : 0);
    goSomehow();
}

Bytes Visit::noise(size_t most)
{
    Bytes bytes(static_cast<size_t>(draw(1, static_cast<int>(most))));
    for (uint8_t &byte : bytes) {
        byte = static_cast<uint8_t>(random_());
    }
    return bytes;
}

void Visit::talkGarbage()
{
    come(2000);
    const int moment = draw(0, 3);
    wire::ScriptedPeer &peer = *visitor_->peer;
    if (moment == 1) {
        peer.handshake();
    } else if (moment > 1) {
        joinIn();
        readFor(draw(0, 1000));
    }
    if (moment == 3) { // chunks in order, with anything in them
        for (int count = draw(1, 10); count > 0; --count) {
            peer.send({.payload = noise(400), .type = static_cast<uint8_t>(draw(0, 30))});
        }
    } else {
        peer.socket.send(noise(5000));
    }
    readFor(draw(0, 2000));
    goSomehow();
}

void Visit::drip()
{
    come();
    Bytes bytes = noise(60);
    bytes[0] = 3;
    if (draw(0, 1) == 0) {
        visitor_->peer->handshake();
        bytes = wire::Chunks({.payload = wire::ConnectCommand()});
    }
    for (size_t at = 0; at < bytes.size() && at < 20; ++at) {
        visitor_->peer->socket.send({bytes[at]});
        if (!readSome(SIZE_MAX) || !tide_.stay(1000)) {
            break;
        }
    }
    goSomehow();
}

void Visit::beSilent()
{
    come();
    if (manner == Manner::Tunnel && draw(0, 1) == 0) {
        visitor_->peer->socket.send(Text("POST /open/1 HTTP/1.1\r\nContent-Length: 1\r\n\r\n"));
    }
    readFor(draw(0, 8000));
    goSomehow();
}

} // namespace soak
