#include "support/scripted_peer.h"

#include <algorithm>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <random>

using namespace amf0;

namespace wire {
namespace {

constexpr size_t kPacket = 1536;
constexpr size_t kDigest = 32;

std::string Key(const std::string &text)
{
    const Bytes tail = Hex("F0EEC24A8068BEE82E00D0D1029E7E576EEC5D2D29806FAB93B8E636CFEB31AE");
    return text + std::string(tail.begin(), tail.end());
}

std::string_view Text(const Bytes &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

Bytes RandomPacket(uint32_t seed)
{
    std::mt19937 generator(seed);
    Bytes packet(kPacket);
    for (uint8_t &byte : packet) {
        byte = static_cast<uint8_t>(generator());
    }
    return packet;
}

// time:32  version:32  random, with the digest of the rest somewhere in it
Bytes MakeC1(const HandshakeOptions &options)
{
    Bytes c1 = RandomPacket(options.seed);
    const Bytes head = Hex("00000000 80000702");
    std::copy(head.begin(), head.end(), c1.begin());
    if (options.scheme != 0) {
        const size_t offset = DigestOffset(c1, options.scheme);
        const Bytes digest = PacketDigest(c1, offset, PlayerKey().substr(0, 30));
        std::copy(digest.begin(), digest.end(), c1.begin() + static_cast<ptrdiff_t>(offset));
    }
    return c1;
}

// 1504 random bytes and their signature with a key made of the server's digest.
Bytes MakeC2(const HandshakeOptions &options, const Bytes &s1)
{
    if (options.echoS1) {
        return s1;
    }
    Bytes c2 = RandomPacket(options.seed + 1);
    if (options.signC2) {
        const Bytes serverDigest = Slice(s1, DigestOffset(s1, 1), kDigest);
        const Bytes key = HmacSha256(serverDigest, PlayerKey());
        const Bytes signature = HmacSha256(Slice(c2, 0, kPacket - kDigest), Text(key));
        std::copy(signature.begin(), signature.end(), c2.end() - kDigest);
    }
    return c2;
}

Bytes BasicHeader(const Outgoing &message, int headerType)
{
    const uint8_t top = static_cast<uint8_t>(headerType << 6);
    switch (message.basicForm) {
    case 2:
        return {top, static_cast<uint8_t>(message.chunkStream - 64)};
    case 3:
        return {static_cast<uint8_t>(top | 1), static_cast<uint8_t>(message.chunkStream - 64),
                static_cast<uint8_t>((message.chunkStream - 64) >> 8)};
    default:
        return {static_cast<uint8_t>(top | message.chunkStream)};
    }
}

Bytes MessageHeader(const Outgoing &message)
{
    const bool extended = message.timestamp >= 0xFFFFFF;
    Bytes header;
    if (message.headerType < 3) {
        Append(header, BigEndian(extended ? 0xFFFFFF : message.timestamp, 3));
    }
    if (message.headerType < 2) {
        Append(header, BigEndian(message.payload.size(), 3));
        header.push_back(message.type);
    }
    if (message.headerType == 0) {
        Bytes stream = BigEndian(message.stream, 4);
        std::reverse(stream.begin(), stream.end());
        Append(header, stream);
    }
    if (message.headerType < 3 && extended) {
        Append(header, BigEndian(message.timestamp, 4));
    }
    return header;
}

} // namespace

std::string_view ServerKey()
{
    static const std::string key = Key("Genuine Adobe Flash Media Server 001");
    return key;
}

std::string_view PlayerKey()
{
    static const std::string key = Key("Genuine Adobe Flash Player 001");
    return key;
}

Bytes HmacSha256(const Bytes &data, std::string_view key)
{
    Bytes out(kDigest);
    unsigned length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(), out.data(),
         &length);
    return out;
}

size_t DigestOffset(const Bytes &packet, int scheme)
{
    const size_t from = scheme == 1 ? 8 : 772;
    const size_t sum = size_t{packet[from]} + packet[from + 1] + packet[from + 2] + packet[from + 3];
    return sum % 728 + from + 4;
}

Bytes PacketDigest(const Bytes &packet, size_t offset, std::string_view key)
{
    return HmacSha256(Join({Slice(packet, 0, offset), Slice(packet, offset + kDigest, kPacket)}), key);
}

Bytes Chunks(const Outgoing &message, size_t chunkSize)
{
    Bytes bytes = Join({BasicHeader(message, message.headerType), MessageHeader(message)});
    for (size_t at = 0; at < message.payload.size(); at += chunkSize) {
        if (at > 0) {
            Append(bytes, BasicHeader(message, 3));
        }
        Append(bytes, Slice(message.payload, at, chunkSize));
    }
    return bytes;
}

Bytes ConnectCommand(const std::string &app, double transaction)
{
    return Values({String("connect"), Number(transaction),
                   Object({{"app", String(app)},
                           {"flashVer", String("LNX 10,0,32,18")},
                           {"tcUrl", String("rtmp://127.0.0.1/" + app)},
                           {"fpad", Boolean(false)},
                           {"audioCodecs", Number(3575)},
                           {"videoCodecs", Number(252)},
                           {"objectEncoding", Number(0)}})})
        .bytes;
}

Bytes CreateStreamCommand(double transaction)
{
    return Values({String("createStream"), Number(transaction), Null()}).bytes;
}

Bytes PlayCommand(const std::string &name, double transaction)
{
    return Values({String("play"), Number(transaction), Null(), String(name)}).bytes;
}

Bytes PauseCommand(bool pause, double transaction)
{
    return Values({String("pause"), Number(transaction), Null(), Boolean(pause), Number(1000)}).bytes;
}

Bytes DeleteStreamCommand(double transaction)
{
    return Values({String("deleteStream"), Number(transaction), Null(), Number(1)}).bytes;
}

HandshakeRecord ScriptedPeer::handshake(const HandshakeOptions &options)
{
    HandshakeRecord record;
    record.c1 = MakeC1(options);
    const auto put = [&](const Bytes &bytes, size_t sentBefore) {
        const size_t room = options.stopAfter > sentBefore ? options.stopAfter - sentBefore : 0;
        const Bytes part = Slice(bytes, 0, room);
        socket.sendInPieces(part,
                            options.pieceSize == 0 ? std::max<size_t>(1, part.size()) : options.pieceSize);
        return part.size() == bytes.size();
    };
    if (!put(Join({{options.version}, record.c1}), 0)) {
        return record;
    }
    record.s0 = socket.receive(1);
    record.s1 = socket.receive(kPacket);
    record.s2 = socket.receive(kPacket);
    if (options.scheme == 0 && record.s2 != record.c1) {
        throw PeerError("S2 is not C1");
    }
    record.c2 = MakeC2(options, record.s1);
    put(record.c2, 1 + kPacket);
    return record;
}

void ScriptedPeer::setChunkSize(uint32_t size)
{
    send({.payload = BigEndian(size, 4), .type = 1, .chunkStream = 2});
    outChunkSize = size;
}

void ScriptedPeer::pingRequest(uint32_t value)
{
    send({.payload = Join({BigEndian(6, 2), BigEndian(value, 4)}), .type = 4, .chunkStream = 2});
}

std::vector<Message> ScriptedPeer::read(size_t count)
{
    std::vector<Message> messages;
    for (size_t i = 0; i < count; ++i) {
        messages.push_back(read());
    }
    return messages;
}

std::vector<Message> ScriptedPeer::settle()
{
    const uint32_t value = 0x50490000 + ++pings_;
    const Bytes answer = Join({BigEndian(7, 2), BigEndian(value, 4)});
    pingRequest(value);
    std::vector<Message> before;
    for (Message message = read(); message.payload != answer || message.type != 4; message = read()) {
        before.push_back(message);
    }
    return before;
}

void ScriptedPeer::connected(const HandshakeOptions &options)
{
    handshake(options);
    command(ConnectCommand());
    read(6);
}

void ScriptedPeer::created()
{
    connected();
    command(CreateStreamCommand());
    read(1);
}

std::vector<Message> ScriptedPeer::playing(const std::string &name, size_t replies)
{
    created();
    command(PlayCommand(name));
    const std::vector<Message> messages = read(replies);
    settle();
    return messages;
}

} // namespace wire
