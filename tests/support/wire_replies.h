// What a player expects to read, worked out from the protocol: bodies of the replies, and times.
#pragma once

#include "support/scripted_peer.h"

#include <chrono>

namespace wire {

// Monotonic milliseconds: the clock that message timestamps and client ids are taken from.
inline uint64_t MonotonicMs()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// onStatus as a client without a stream name gets it.
inline Bytes Status(const std::string &level, const std::string &code, const std::string &description)
{
    using namespace amf0;
    return Values({String("onStatus"), Number(0), Null(),
                   Object({{"level", String(level)},
                           {"code", String(code)},
                           {"description", String(description)}})})
        .bytes;
}

// onStatus of a client whose last "play" named `name`.
inline Bytes Status(const std::string &level, const std::string &code, const std::string &description,
                    const std::string &name, const std::string &clientId)
{
    using namespace amf0;
    return Values({String("onStatus"), Number(0), Null(),
                   Object({{"level", String(level)},
                           {"code", String(code)},
                           {"description", String(description + " " + name)},
                           {"details", String(name)},
                           {"clientid", String(clientId)}})})
        .bytes;
}

// The text of the last member of a status, which is the client id.
inline std::string ClientIdOf(const Message &status)
{
    static const std::string key = "clientid";
    const std::string text(status.payload.begin(), status.payload.end());
    const size_t at = text.find(key);
    if (at == std::string::npos) {
        throw PeerError("no client id in " + ToHex(status.payload));
    }
    const size_t value = at + key.size() + 3; // marker and length
    return text.substr(value, text.size() - 3 - value);
}

inline Bytes SampleAccessBody()
{
    return Hex("02 0011 '|RtmpSampleAccess' 0100 0100");
}

inline Bytes ConnectResultBody()
{
    return Hex("02 0007 '_result' 00 3FF0000000000000"
               "03 0006 'fmsVer' 02 000D 'FMS/3,5,1,516' 000C 'capabilities' 00 403F000000000000"
               "   0004 'mode' 00 3FF0000000000000 000009"
               "03 0005 'level' 02 0006 'status' 0004 'code' 02 001D 'NetConnection.Connect.Success'"
               "   000B 'description' 02 0014 'Connection succeeded' 000009");
}

// Header and body as the server sends them: csid as basic header, then what the picture of the header says,
// then the body in chunks of `chunkSize`.
inline testing::AssertionResult Sent(const Message &message, const std::string &header, const Bytes &body,
                                     size_t chunkSize = 4096)
{
    std::string picture = header;
    for (size_t at = 0; at < body.size(); at += chunkSize) {
        if (at > 0) {
            picture += " " + ToHex({static_cast<uint8_t>(0xC0 | message.chunkStream)});
        }
        picture += " " + ToHex(Slice(body, at, chunkSize));
    }
    return Matches(message.raw, picture);
}

// "?????? llllll tt": timestamp left open, length of the body, type.
inline std::string Fields(const Bytes &body, const std::string &type, const std::string &time = "??????")
{
    return " " + time + " " + ToHex(BigEndian(body.size(), 3)) + " " + type + " ";
}

} // namespace wire
