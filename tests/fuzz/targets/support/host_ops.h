// What an input of the target host_state is made of: operations of one byte, each followed by its arguments,
// one byte each; a text or a message is a length of one byte and so many bytes. A handle is a number: which
// of those that are there, or null for 255. The comments of the procedures in host_*_ops.cpp say what the
// arguments mean.
#pragma once

#include <cstdint>

#define HOST_OPERATIONS(X)                                                                                   \
    X(ServerCreate)                                                                                          \
    X(ServerDestroy)                                                                                         \
    X(PlayerSettings)                                                                                        \
    X(ServiceSettings)                                                                                       \
    X(SessionCreate)                                                                                         \
    X(SessionDestroy)                                                                                        \
    X(SenderSettings)                                                                                        \
    X(BandwidthSettings)                                                                                     \
    X(DebugSettings)                                                                                         \
    X(BitrateSettings)                                                                                       \
    X(QueueReset)                                                                                            \
    X(QueueClose)                                                                                            \
    X(AddMedia)                                                                                              \
    X(Captions)                                                                                              \
    X(SendVideo)                                                                                             \
    X(SendAudio)                                                                                             \
    X(SendOdd)                                                                                               \
    X(SendBeside)                                                                                            \
    X(LookUp)                                                                                                \
    X(Figures)                                                                                               \
    X(PlayerJoins)                                                                                           \
    X(PlayerSays)                                                                                            \
    X(PlayerSendsBytes)                                                                                      \
    X(PlayerStopsReading)                                                                                    \
    X(PlayerReadsOn)                                                                                         \
    X(PlayerLeaves)                                                                                          \
    X(AwaitPlaying)                                                                                          \
    X(ClientCreate)                                                                                          \
    X(ClientDestroy)                                                                                         \
    X(ClientJoins)                                                                                           \
    X(ClientHears)                                                                                           \
    X(ClientReceiveList)                                                                                     \
    X(ClientSends)                                                                                           \
    X(ClientSendsMedia)                                                                                      \
    X(ClientSendList)                                                                                        \
    X(AmfWrite)                                                                                              \
    X(AmfRead)                                                                                               \
    X(AmfDecode)                                                                                             \
    X(AmfFree)                                                                                               \
    X(LogAndSignal)                                                                                          \
    X(PublisherCreate)                                                                                       \
    X(PublisherLives)                                                                                        \
    X(PublisherStep)                                                                                         \
    X(PublisherStops)                                                                                        \
    X(PublisherSends)                                                                                        \
    X(PublisherDestroy)

enum class HostOp : uint8_t {
#define HOST_OPERATION(name) name,
    HOST_OPERATIONS(HOST_OPERATION)
#undef HOST_OPERATION
        Count_,
};

// What a player says (PlayerSays), and what is read by a host's own client (ClientHears).
enum class HostSaid : uint8_t {
    Connect,
    CreateStream,
    Play, // its argument: the session's name
    Pause,
    Unpause,
    DeleteStream,
    Seek,
    Publish,
    PingRequest,
    SetChunkSize,
    WindowAckSize,
    HalfAMessage,
    Result,
    Status,
    Pong, // of services
    Count_,
};
