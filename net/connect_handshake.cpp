#include "net/connect_handshake.h"

#include "net/byte_writer.h"
#include "net/handshake.h"
#include "net/handshake_packets.h"
#include "net/log.h"
#include "net/platform.h"
#include "net/record.h"
#include "net/scope.h"
#include "net/socket_io.h"

namespace {

constexpr const char *kConnect = "RtmpPublisherHandshake";

// One heap record, as on the other side.
struct ConnectPackets {
    uint8_t C0AndC1[1 + kPacketLength];
    uint8_t S0;
    uint8_t S1[kPacketLength];
    uint8_t S2[kPacketLength];
    uint8_t C2[kPacketLength];
};

void FillRandom(ByteWriter *out)
{
    while (RoomIn(out) > 0) {
        PutU8(out, static_cast<uint32_t>(rand()) >> 8);
    }
}

// time:32  version:32  random:1528 bytes. A version of 0 says that nothing is signed.
void FillC1(uint8_t *c1, bool isSigned)
{
    ByteWriter out = WriterOver(c1, kPacketLength);
    PutU32Be(&out, static_cast<uint32_t>(RtmpGetSystemTime()));
    PutU32Be(&out, isSigned ? 0x09007C02 : 0); // the player whose key it is
    FillRandom(&out);
}

int SignC1(uint8_t *c1)
{
    uint8_t digest[kDigestLength];
    const int32_t offset = GetDigestPosition1(c1);
    if (offset < 0 || CalculateDigest(static_cast<uint32_t>(offset), c1, BytesOf(GenuineFPKey),
                                      kPlayerBannerLength, digest) != 0) {
        return -1;
    }
    memcpy(c1 + offset, digest, kDigestLength);
    return 0;
}

enum class Signature { Right, Wrong, NotComputed };

Signature SignatureAt(const uint8_t *s1, int32_t offset)
{
    const uint8_t compared = offset < 0 ? 0
                                        : CompareDigest(static_cast<uint32_t>(offset), s1,
                                                        BytesOf(GenuineFMSKey), kServerBannerLength);
    if (compared > 1) {
        return Signature::NotComputed;
    }
    return compared == 1 ? Signature::Right : Signature::Wrong;
}

// FindDigestOfS1 gives null for an S1 that is not signed. -1: that could not be found out.
int FindDigestOfS1(const uint8_t *s1, const uint8_t **digest)
{
    *digest = nullptr;
    const int32_t offsets[] = {GetDigestPosition1(s1), GetDigestPosition2(s1)};
    for (const int32_t offset : offsets) {
        const Signature signature = SignatureAt(s1, offset);
        if (signature == Signature::Wrong) {
            continue;
        }
        *digest = s1 + offset;
        return signature == Signature::Right ? 0 : -1;
    }
    return 0;
}

// Random bytes, signed with a key that is itself the signature of S1's digest.
int SignC2(uint8_t *c2, const uint8_t *digestOfS1)
{
    uint8_t key[kDigestLength];
    ByteWriter out = WriterOver(c2, kSignedLength);
    FillRandom(&out);
    return HMACsha256(digestOfS1, kDigestLength, BytesOf(GenuineFPKey), kPlayerKeyLength, key) == 0 &&
                   HMACsha256(c2, kSignedLength, key, kDigestLength, c2 + kSignedLength) == 0
               ? 0
               : -1;
}

int FillC2(ConnectPackets *packets, bool isSigned)
{
    const uint8_t *digest = nullptr;
    if (isSigned && FindDigestOfS1(packets->S1, &digest) != 0) {
        return -1;
    }
    if (digest != nullptr) {
        return SignC2(packets->C2, digest);
    }
    memcpy(packets->C2, packets->S1, kPacketLength); // also for a server that signs nothing
    return 0;
}

int SendAllBytes(RtmpClient *client, const uint8_t *bytes, uint32_t length)
{
    uint32_t done = 0;
    while (done < length) {
        const int sent = SendClientBytes(client, bytes + done, length - done);
        if (sent <= 0) {
            return -1;
        }
        done += static_cast<uint32_t>(sent);
    }
    return 0;
}

int Fail(const RtmpClient *client, const char *what)
{
    RtmpLogPrint(LoggerOf(client->Server), RTMP_LOG_ERROR, "ERROR: %s: %s\n", kConnect, what);
    return -1;
}

int ReadAnswer(RtmpClient *client, ConnectPackets *packets)
{
    if (ReadClientBytes(client, &packets->S0, 1) != 0 ||
        ReadClientBytes(client, packets->S1, kPacketLength) != 0) {
        return Fail(client, "Cannot read S0 and S1 from the service");
    }
    return 0;
}

} // namespace

int ConnectHandshake(RtmpClient *client, int sign)
{
    const bool isSigned = sign != 0;
    FREE_AT_EXIT ConnectPackets *packets = NewRecord<ConnectPackets>();
    if (packets == nullptr) {
        return Fail(client, "Cannot allocate memory to handshake packets");
    }
    packets->C0AndC1[0] = kProtocolVersion;
    FillC1(packets->C0AndC1 + 1, isSigned);
    if (isSigned && SignC1(packets->C0AndC1 + 1) != 0) {
        return Fail(client, "Cannot sign C1");
    }
    if (SendAllBytes(client, packets->C0AndC1, sizeof packets->C0AndC1) != 0) {
        return Fail(client, "Cannot send C0 and C1 to the service");
    }
    if (ReadAnswer(client, packets) != 0) {
        return -1;
    }
    if (FillC2(packets, isSigned) != 0) {
        return Fail(client, "Cannot sign C2");
    }
    if (SendAllBytes(client, packets->C2, kPacketLength) != 0) {
        return Fail(client, "Cannot send C2 to the service");
    }
    if (ReadClientBytes(client, packets->S2, kPacketLength) != 0) {
        return Fail(client, "Cannot read S2 from the service");
    }
    return 0;
}
