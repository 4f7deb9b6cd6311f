// Every step of a player's life in the middle of which it may leave. The session is called "cam", and sends
// frames.
#pragma once

#include "support/scripted_peer.h"

namespace wire {

inline void HalfOf(ScriptedPeer &peer, const Bytes &command)
{
    const Bytes bytes = Chunks({.payload = command});
    peer.socket.send(Slice(bytes, 0, bytes.size() / 2));
}

inline void StartToPlay(ScriptedPeer &peer)
{
    peer.created();
    peer.command(PlayCommand("cam"));
}

inline void BePlaying(ScriptedPeer &peer)
{
    StartToPlay(peer);
    peer.read(7);
}

using LeavingStep = void (*)(ScriptedPeer &);

inline constexpr LeavingStep kLeavingSteps[] = {
    [](ScriptedPeer &) {},
    [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 1}); },
    [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 800}); },
    [](ScriptedPeer &peer) { peer.handshake({.stopAfter = 1537}); },
    [](ScriptedPeer &peer) { peer.handshake({.scheme = 2, .stopAfter = 2500}); },
    [](ScriptedPeer &peer) { peer.handshake({.scheme = 2}); },
    [](ScriptedPeer &peer) { peer.handshake({.signC2 = false}); },
    [](ScriptedPeer &peer) {
        peer.handshake(), peer.socket.send({0x03, 0x00});
    },
    [](ScriptedPeer &peer) { peer.handshake(), HalfOf(peer, ConnectCommand()); },
    [](ScriptedPeer &peer) { peer.handshake(), peer.command(ConnectCommand()); },
    [](ScriptedPeer &peer) { peer.handshake(), peer.command(ConnectCommand("vod")); },
    [](ScriptedPeer &peer) { peer.connected(); },
    [](ScriptedPeer &peer) { peer.connected(), HalfOf(peer, CreateStreamCommand()); },
    [](ScriptedPeer &peer) { peer.created(); },
    [](ScriptedPeer &peer) { peer.created(), HalfOf(peer, PlayCommand("cam")); },
    [](ScriptedPeer &peer) { peer.created(), peer.command(PlayCommand("nobody")); },
    [](ScriptedPeer &peer) { peer.handshake(), peer.command(PlayCommand("cam")); },
    [](ScriptedPeer &peer) { StartToPlay(peer); },
    [](ScriptedPeer &peer) { StartToPlay(peer), peer.read(3); },
    [](ScriptedPeer &peer) { BePlaying(peer); },
    [](ScriptedPeer &peer) { BePlaying(peer), peer.read(1), peer.socket.receive(10); }, // within a frame
    [](ScriptedPeer &peer) { BePlaying(peer), HalfOf(peer, PauseCommand(true)); },
    [](ScriptedPeer &peer) { BePlaying(peer), peer.command(PauseCommand(true)); },
    [](ScriptedPeer &peer) {
        BePlaying(peer);
        peer.command(PauseCommand(true)), peer.command(PauseCommand(false));
    },
    [](ScriptedPeer &peer) { BePlaying(peer), peer.command(PlayCommand("cam")); },
    [](ScriptedPeer &peer) { BePlaying(peer), peer.command(DeleteStreamCommand()); },
    [](ScriptedPeer &peer) { BePlaying(peer), peer.send({.payload = {1}, .type = 9}); },
};
inline constexpr size_t kLeavingStepCount = sizeof kLeavingSteps / sizeof kLeavingSteps[0];
inline constexpr size_t kStepsBeforePlaying = 17; // the first ones; the others wait for answers to "play"

} // namespace wire
