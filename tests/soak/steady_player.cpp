#include "soak/steady_player.h"

#include <sys/socket.h>

namespace soak {
namespace {

constexpr int kDeadlineMs = 300000;

} // namespace

Visitor::Visitor(uint16_t port, bool overTls, int deadlineMs)
{
    if (overTls) {
        tls = std::make_unique<wire::TlsPeer>(port);
        peer = std::make_unique<wire::ScriptedPeer>(tls->takePlain(), deadlineMs);
    } else {
        peer = std::make_unique<wire::ScriptedPeer>(port, deadlineMs);
    }
    peer->socket.keepRecord(false);
}

void Visitor::play(const std::string &name, const wire::HandshakeOptions &handshake)
{
    peer->handshake(handshake);
    peer->command(wire::ConnectCommand());
    peer->command(wire::CreateStreamCommand());
    peer->command(wire::PlayCommand(name));
}

SteadyPlayer::SteadyPlayer(Recording &recording, uint16_t port, bool overTls, bool readsStandard,
                           const char *name)
    : recording_(recording), visitor_(port, overTls, kDeadlineMs)
{
    visitor_.peer->chunks.standard = readsStandard;
    recording_.begin();
    visitor_.play(name);
    thread_ = std::thread([this] { run(); });
}

SteadyPlayer::~SteadyPlayer()
{
    shutdown(visitor_.peer->socket.descriptor(), SHUT_RDWR);
    thread_.join();
    recording_.end();
}

void SteadyPlayer::run()
{
    try {
        while (true) {
            const wire::Message message = visitor_.peer->read();
            recording_.take(message.type, message.timestamp, message.payload.data(), message.payload.size());
        }
    } catch (const std::exception &error) {
        why_ = error.what();
        ended_ = true;
    }
}

std::string SteadyPlayer::fault() const
{
    return ended_ ? why_ : "";
}

} // namespace soak
